// The floor of the HTTP comparison: the same library, the same answer, nothing printed.

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Timestamp.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

class SilentHandler : public Poco::Net::HTTPRequestHandler {
 public:
  void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override {
    response.setDate(Poco::Timestamp());
    response.set("Connection", "close");
    response.set("Content-Language", "en");
    response.set("User-Agent", "floor");
    response.set("Access-Control-Allow-Origin", "*");
    response.set("Location", request.serverAddress().toString());
    response.setStatusAndReason(HTTPServerResponse::HTTP_OK);
    response.send();
  }
};

class SilentHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  Poco::Net::HTTPRequestHandler* createRequestHandler(const HTTPServerRequest& /*request*/) override {
    return std::make_unique<SilentHandler>().release();
  }
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    return 1;
  }
  const Poco::Net::ServerSocket socket(static_cast<Poco::UInt16>(std::atoi(arguments[1])));
  Poco::Net::HTTPServer server(Poco::makeShared<SilentHandlerFactory>(), socket,
                               Poco::makeAuto<Poco::Net::HTTPServerParams>());
  server.start();
  (void)std::getchar();  // until standard input ends
  server.stop();
}
