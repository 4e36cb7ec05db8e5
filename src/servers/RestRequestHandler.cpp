#include "servers/RestRequestHandler.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/NumberFormatter.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timestamp.h>
#include <Poco/URI.h>

#include <istream>
#include <string>
#include <string_view>

#include "product/ConsoleStream.h"
#include "product/Version.h"
#include "servers/BodyUntilFailure.h"

namespace keltop {

namespace {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using Poco::Net::MessageHeader;

constexpr std::size_t kBodyBufferSize = 8192;
/// Room for the head of a message as most clients send it, so that collecting it does not move it again and again.
constexpr std::size_t kUsualHeadSize = 512;
constexpr unsigned kSiteDump = 418;

const std::string& serverAgent() {
  static const std::string agent = std::string(kAgentName).append("/").append(kTraceVersion).append(" KELTOP");
  return agent;
}

/// "User-Agent" in a response and the server's own address as "Location" are intended; clients under test see them.
void setHeaders(const std::string& serverAddress, HTTPServerResponse& response) {
  response.setDate(Poco::Timestamp());
  response.set("Connection", "close");
  response.set("Content-Language", "en");
  response.set("User-Agent", serverAgent());
  response.set("Access-Control-Allow-Origin", "*");
  response.set("Location", serverAddress);
}

template <typename Text>
void appendHeaders(Text& text, const MessageHeader& headers, std::string_view lineEnd) {
  for (const auto& [name, value] : headers) {
    text.append(name).append(": ").append(value).append(lineEnd);
  }
}

void printConnection(ConsoleStream& console, const HTTPServerRequest& request, const std::string& serverAddress,
                     const Poco::URI& uri) {
  console.append("Connected:\n");
  console.append("  Client: ").append(request.clientAddress().toString()).append("\n");
  console.append("  Server: ").append(serverAddress).append("\n");
  console.append("  Path: ").append(uri.getPath()).append("\n");
  console.append("  Query: ").append(uri.getQuery()).append("\n");
}

void printRequest(ConsoleStream& console, const HTTPServerRequest& request, const Poco::URI& uri) {
  console.append("\r\nRequest:\n");
  console.append(request.getMethod()).append(" ").append(uri.getPathEtc()).append(" ").append(request.getVersion());
  console.append("\n");
  appendHeaders(console, request, "\n");
  console.append("\n");
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
  BodyUntilFailure source(request.stream());
  std::istream stream(&source);
  std::string body;
  Poco::StreamCopier::copyToString(stream, body, kBodyBufferSize);
  console.append(body).append("\n");
}

}  // namespace

void printResponse(std::ostream& console, const HTTPServerResponse& response) {
  try {
    // The status comes first and the version last, the reverse of a status line, on purpose.
    const HTTPResponse::HTTPStatus status = response.getStatus();
    std::string dump;
    dump.reserve(kUsualHeadSize);
    Poco::NumberFormatter::append(dump, static_cast<int>(status));
    dump.append(" ").append(HTTPResponse::getReasonForStatus(status));
    dump.append(" ").append(response.getVersion()).append("\r\n");
    appendHeaders(dump, response, "\r\n");
    console << dump.append("\r\n");
  } catch (const Poco::Exception& error) {
    console.rdbuf()->pubsync();  // what was printed before comes before, also when the stream has failed
    printSiteLine("RestRequestHandler::handleRequest", kSiteDump, "Read error: ", error.displayText());
  }
}

void RestRequestHandler::handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) {
  const std::string serverAddress = request.serverAddress().toString();
  setHeaders(serverAddress, response);
  const Poco::URI uri(request.getURI());
  // Lines are collected, and flushed where the handler may have to wait for the client.
  ConsoleStream console;
  printConnection(console, request, serverAddress, uri);
  printRequest(console, request, uri);
  [[maybe_unused]] const ClientWords words(request);
  printBody(console, request);
  response.setStatusAndReason(HTTPResponse::HTTP_OK);
  console.append("\r\nResponse:\n");
  printResponse(console, response);
  // Only into the library's buffer, which is sent when the handler has returned: nothing blocks here.
  response.send();
  console.append("\r\n\n");
}

}  // namespace keltop
