#include "servers/RestRequestHandler.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timestamp.h>
#include <Poco/URI.h>

#include <sstream>
#include <string>

#include "product/ConsoleStream.h"
#include "product/Version.h"

namespace keltop {

namespace {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using Poco::Net::MessageHeader;

constexpr std::size_t kBodyBufferSize = 8192;
constexpr unsigned kSiteDump = 418;

std::string serverAgent() {
  return std::string(kAgentName).append("/").append(kTraceVersion).append(" KELTOP");
}

/// "User-Agent" in a response and the server's own address as "Location" are intended; clients under test see them.
void setHeaders(const HTTPServerRequest& request, HTTPServerResponse& response) {
  response.setDate(Poco::Timestamp());
  response.set("Connection", "close");
  response.set("Content-Language", "en");
  response.set("User-Agent", serverAgent());
  response.set("Access-Control-Allow-Origin", "*");
  response.set("Location", request.serverAddress().toString());
}

void printHeaders(std::ostream& console, const MessageHeader& headers, const char* lineEnd) {
  for (const auto& [name, value] : headers) {
    console << name << ": " << value << lineEnd;
  }
}

void printConnection(std::ostream& console, const HTTPServerRequest& request, const Poco::URI& uri) {
  console << "Connected:\n"
          << "  Client: " << request.clientAddress().toString() << '\n'
          << "  Server: " << request.serverAddress().toString() << '\n'
          << "  Path: " << uri.getPath() << '\n'
          << "  Query: " << uri.getQuery() << '\n';
}

void printRequest(std::ostream& console, const HTTPServerRequest& request, const Poco::URI& uri) {
  console << "\r\n"
          << "Request:\n"
          << request.getMethod() << ' ' << uri.getPathEtc() << ' ' << request.getVersion() << '\n';
  printHeaders(console, request, "\n");
  console << '\n';
}

/// What a client says about itself. It is looked up for each request and changes nothing, on purpose.
struct ClientWords {
  explicit ClientWords(const HTTPServerRequest& request)
      : accept(request.get("Accept", "")), tenant(request.get("Tenant", "")), agent(request.get("User-Agent", "")) {
    if (request.hasCredentials()) {
      request.getCredentials(scheme, credentials);
    }
  }

  std::string accept;
  std::string tenant;
  std::string agent;
  std::string scheme;
  std::string credentials;
};

void printBody(ConsoleStream& console, HTTPServerRequest& request) {
  if (request.getContentLength64() <= 0) {
    return;  // none, or of unknown length
  }
  console.flush();  // the client may take its time to send the body
  std::string body;
  Poco::StreamCopier::copyToString(request.stream(), body, kBodyBufferSize);
  console << body << '\n';
}

}  // namespace

void printResponse(std::ostream& console, const HTTPServerResponse& response) {
  try {
    std::ostringstream dump;
    // The status comes first and the version last, the reverse of a status line, on purpose.
    const HTTPResponse::HTTPStatus status = response.getStatus();
    dump << static_cast<int>(status) << ' ' << HTTPResponse::getReasonForStatus(status) << ' ' << response.getVersion()
         << "\r\n";
    printHeaders(dump, response, "\r\n");
    dump << "\r\n";
    console << dump.str();
  } catch (const Poco::Exception& error) {
    console.rdbuf()->pubsync();  // what was printed before comes before, also when the stream has failed
    printSiteLine("RestRequestHandler::handleRequest", kSiteDump, "Read error: ", error.displayText());
  }
}

void RestRequestHandler::handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) {
  setHeaders(request, response);
  const Poco::URI uri(request.getURI());
  // Lines are collected, and flushed where the handler may have to wait for the client.
  ConsoleStream console;
  printConnection(console, request, uri);
  printRequest(console, request, uri);
  [[maybe_unused]] const ClientWords words(request);
  printBody(console, request);
  response.setStatusAndReason(HTTPResponse::HTTP_OK);
  console << "\r\nResponse:\n";
  printResponse(console, response);
  console.flush();
  response.send();
  console << "\r\n\n";
}

}  // namespace keltop
