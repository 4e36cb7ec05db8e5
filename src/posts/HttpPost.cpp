#include "posts/HttpPost.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timespan.h>
#include <Poco/Timestamp.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <istream>
#include <new>
#include <sstream>

#include "posts/ReportFailure.h"
#include "posts/TlsSocket.h"
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

/// The library's session over a socket that behaves as a plain one does.
class SecureSession : public Poco::Net::HTTPSClientSession {
 public:
  SecureSession(const std::string& host, std::uint16_t port, const Context::Ptr& context)
      : HTTPSClientSession(host, port, context) {
    attachSocket(Poco::Net::StreamSocket(new TlsSocket(context, host)));
  }

 protected:
  void connect(const Poco::Net::SocketAddress& address) override {
    // What lies between the two wants the library's own TLS socket.
    HTTPSession::connect(address);  // NOLINT(bugprone-parent-virtual-call)
  }
};

/// What the system asks of TLS. Newer versions of the library put an asking of their own, none, in its place.
int systemSecurityLevel() {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> untouched(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  return SSL_CTX_get_security_level(untouched.get());
}

/// Any certificate will do: servers under test have home-made ones.
std::unique_ptr<HTTPClientSession> openSecureSession(const std::string& host, std::uint16_t port) {
  const Context::Ptr context =
      new Context(Context::CLIENT_USE, "", Context::VERIFY_NONE, kVerificationDepth, kLoadDefaultAuthorities, kCiphers);
  SSL_CTX_set_security_level(context->sslContext(), systemSecurityLevel());
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

/// What a post is answered.
struct Answer {
  HTTPResponse head;
  std::ostringstream body;
  bool whole = true;
};

/// Reads the body as far as there is memory for it.
void receiveBody(std::istream& stream, Answer& answer) {
  // Streams keep what goes wrong in them to themselves unless they are asked.
  stream.exceptions(std::ios::badbit);
  answer.body.exceptions(std::ios::badbit);
  try {
    Poco::StreamCopier::copyStream(stream, answer.body, kBodyBufferSize);
  } catch (const std::bad_alloc&) {
    answer.whole = false;
  }
}

/// False when there is nothing to show, which has been reported.
bool receive(const HttpWay& way, HTTPClientSession& session, Answer& answer) {
  try {
    receiveBody(session.receiveResponse(answer.head), answer);
    return true;
  } catch (const Poco::TimeoutException& error) {
    reportFailure(way.timeoutSite, "Read timeout: ", error);
  } catch (const Poco::Exception& error) {
    reportFailure(way.readSite, "Read error: ", error);
  }
  return false;
}

/// The library reads numbers followed by a blank and anything as an address, and puts all of it into the request.
void checkHost(const std::string& host) {
  const auto isBlankOrControl = [](char character) {
    constexpr unsigned char kDelete = 0x7F;
    const auto byte = static_cast<unsigned char>(character);
    return byte <= ' ' || byte == kDelete;
  };
  if (std::ranges::any_of(host, isBlankOrControl)) {
    throw Poco::Net::HostNotFoundException(host);
  }
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
  checkHost(posting.host);
  session->sendRequest(request) << posting.body;
  Answer answer;
  if (!receive(way, *session, answer)) {
    return;
  }
  showResponse(console, way, answer.head, answer.body.view());
  if (!answer.whole) {
    console.flush();
    reportFailure(way.readSite, "Read error: ", Poco::OutOfMemoryException());
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
