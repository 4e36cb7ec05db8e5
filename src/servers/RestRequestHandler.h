#pragma once

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <ostream>

namespace keltop {

/// Prints everything about one HTTP request and answers it with status 200, fixed headers and no body.
/// Holds no state; the library runs each handler on one of its worker threads.
class RestRequestHandler : public Poco::Net::HTTPRequestHandler {
 public:
  ~RestRequestHandler() override = default;
  void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override;
};

/// Prints the response head as it is about to be sent. A failure of the network library is reported on standard output,
/// after what `console` holds, and goes no further.
void printResponse(std::ostream& console, const Poco::Net::HTTPServerResponse& response);

}  // namespace keltop
