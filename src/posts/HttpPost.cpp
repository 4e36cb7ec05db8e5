#include "posts/HttpPost.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timespan.h>
#include <Poco/Timestamp.h>

#include <istream>
#include <sstream>

#include "posts/ReportFailure.h"
#include "product/ConsoleStream.h"

namespace keltop {

namespace {

using Poco::Net::Context;
using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::MessageHeader;

constexpr unsigned kSiteDump = 1240;

constexpr std::size_t kBodyBufferSize = 8192;
constexpr int kVerificationDepth = 9;
constexpr bool kLoadDefaultAuthorities = false;
constexpr const char* kCiphers = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH";

std::unique_ptr<HTTPClientSession> openPlainSession(const std::string& host, std::uint16_t port) {
  return std::make_unique<HTTPClientSession>(host, port);
}

/// What is left of the time-out when the handshake has had all of it.
constexpr Poco::Timespan::TimeDiff kLookMicroseconds = 1000;

/// A session whose connecting fails when the handshake does not come about. The library takes one that the peer has
/// ended for done, and where a wait that ran out counts as "try again", one that stalled too; either would show only
/// when the response is read.
class SecureSession : public Poco::Net::HTTPSClientSession {
 public:
  SecureSession(const std::string& host, std::uint16_t port, const Context::Ptr& context)
      : HTTPSClientSession(host, port, context) {}

 protected:
  void connect(const Poco::Net::SocketAddress& address) override {
    HTTPSClientSession::connect(address);
    Poco::Net::SecureStreamSocket secure(socket());
    secure.setReceiveTimeout(Poco::Timespan(kLookMicroseconds));
    if (secure.completeHandshake() != 1) {
      throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
    }
    secure.setReceiveTimeout(getTimeout());
  }
};

/// Any certificate will do: servers under test have home-made ones.
std::unique_ptr<HTTPClientSession> openSecureSession(const std::string& host, std::uint16_t port) {
  const Context::Ptr context =
      new Context(Context::CLIENT_USE, "", Context::VERIFY_NONE, kVerificationDepth, kLoadDefaultAuthorities, kCiphers);
  return std::make_unique<SecureSession>(host, port, context);
}

void printHeaders(std::ostream& text, const MessageHeader& headers) {
  for (const auto& [name, value] : headers) {
    text << name << ": " << value << "\r\n";
  }
}

bool showWholeRequest(std::ostream& console, const HTTPRequest& request, const std::string& body) {
  try {
    console << "Sending request" << std::endl;
    std::ostringstream head;
    head << request.getMethod() << ' ' << request.getURI() << ' ' << request.getVersion() << "\r\n";
    printHeaders(head, request);
    console << head.view() << "\r\n" << body;
    return true;
  } catch (const Poco::Exception& error) {
    reportFailure(kSiteDump, "Read error: ", error);  // "Read" is intended
    return false;
  }
}

bool showBody(std::ostream& console, const HTTPRequest& /*request*/, const std::string& body) {
  console << kPostingTitle << body << std::endl;
  return true;
}

/// The order in which the headers are set is their order on the wire.
void setHeaders(HTTPRequest& request, const Posting& posting) {
  request.set("Date", Poco::DateTimeFormatter::format(Poco::Timestamp(), Poco::DateTimeFormat::ISO8601_FORMAT,
                                                      Poco::DateTimeFormatter::UTC));
  request.set("User-Agent", posting.userAgent);
  request.setContentLength64(static_cast<Poco::Int64>(posting.body.size()));
  request.setContentType(std::string(posting.contentType));
}

bool receive(const HttpWay& way, HTTPClientSession& session, HTTPResponse& response, std::ostream& body) {
  try {
    std::istream& stream = session.receiveResponse(response);
    Poco::StreamCopier::copyStream(stream, body, kBodyBufferSize);
    return true;
  } catch (const Poco::TimeoutException& error) {
    reportFailure(way.timeoutSite, "Read timeout: ", error);
  } catch (const Poco::Exception& error) {
    reportFailure(way.readSite, "Read error: ", error);
  }
  return false;
}

void exchange(const HttpWay& way, const Posting& posting, std::chrono::microseconds timeout) {
  const std::unique_ptr<HTTPClientSession> session = way.openSession(posting.host, posting.port);
  HTTPRequest request(HTTPRequest::HTTP_POST, posting.path, HTTPRequest::HTTP_1_1);
  setHeaders(request, posting);
  session->setTimeout(Poco::Timespan(timeout.count()));
  ConsoleStream console;
  if (!way.showRequest(console, request, posting.body)) {
    return;
  }
  console.flush();  // the server may take its time
  session->sendRequest(request) << posting.body;
  HTTPResponse response;
  std::ostringstream body;
  if (receive(way, *session, response, body)) {
    showResponse(console, way, response, body.view());
  }
}

}  // namespace

const HttpWay kPlainHttp = {.openSession = openPlainSession,
                            .showRequest = showWholeRequest,
                            .responseTitle = "\r\nReceived response\n",
                            .headEnd = "\r\n",
                            .timeoutSite = 1257,
                            .readSite = 1261,
                            .showSite = 1281,
                            .waySite = 1286};

/// One line end more after the response's head than plain HTTP has, on purpose.
const HttpWay kHttps = {.openSession = openSecureSession,
                        .showRequest = showBody,
                        .responseTitle = "\r\nReceived:\r\n",
                        .headEnd = "\r\n\r\n",
                        .timeoutSite = 1163,
                        .readSite = 1167,
                        .showSite = 1187,
                        .waySite = 1192};

void showResponse(std::ostream& console, const HttpWay& way, const HTTPResponse& response, std::string_view body) {
  const int status = static_cast<int>(response.getStatus());
  try {
    console << way.responseTitle << std::flush;
    std::ostringstream head;
    // The reason comes before the code, the reverse of a status line, on purpose.
    head << response.getVersion() << ' ' << response.getReason() << ' ' << status << "\r\n";
    printHeaders(head, response);
    console << head.view() << way.headEnd << body << "\r\n";
  } catch (const Poco::Exception& error) {
    ConsoleStream() << "\r\nResponse code: " << status << ' ' << response.getReason() << std::endl;
    reportFailure(way.showSite, "Error: ", error);
  }
}

void postHttp(const HttpWay& way, const Posting& posting, std::chrono::microseconds timeout) {
  try {
    exchange(way, posting, timeout);
  } catch (const Poco::Exception& error) {
    reportFailure(way.waySite, "Error: ", error);
  }
}

}  // namespace keltop
