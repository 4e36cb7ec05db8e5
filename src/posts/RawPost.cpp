#include "posts/RawPost.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <array>
#include <string>

#include "posts/ReportFailure.h"
#include "product/ConsoleStream.h"

namespace keltop {

namespace {

using Poco::Net::StreamSocket;

constexpr unsigned kSiteTarget = 1025;
constexpr unsigned kSiteNothingRead = 1089;
constexpr unsigned kSiteReset = 1095;

constexpr long kConnectSeconds = 5;

/// Intended: what has not come by the time the request is out is not waited for.
constexpr Poco::Timespan::TimeDiff kReceiveMicroseconds = 5;

/// One byte more than is received, so that what came reads as a terminated text.
using Buffer = std::array<char, 2049>;

/// How the failures of one phase are reported.
struct Phase {
  unsigned netSite;
  unsigned timeoutSite;
  std::string_view timeoutText;
  unsigned otherSite;
  std::string_view otherText;
};

constexpr Phase kConnecting = {1035, 1040, "Error: ", 1045, "Unknown error"};
constexpr Phase kSending = {1064, 1069, "Error: ", 1074, "Unknown error"};
constexpr Phase kReceiving = {1099, 1103, "Timeout: ", 1107, "Other error"};

/// True when the step went well; a failure has been reported.
template <typename Step>
bool guarded(const Phase& phase, Step step) {
  try {
    step();
    return true;
  } catch (const Poco::Net::NetException& error) {
    reportFailure(phase.netSite, "Error: ", error);
  } catch (const Poco::TimeoutException& error) {
    reportFailure(phase.timeoutSite, phase.timeoutText, error);
  } catch (...) {
    printSiteLine(kPostRoutine, phase.otherSite, phase.otherText);
  }
  return false;
}

/// A raw post goes out byte for byte like this: the colon in the protocol's version, "Agent" and the missing "Host" are
/// intended.
std::string requestText(const Posting& posting) {
  std::string text;
  text.append("POST ").append(posting.path).append(" HTTP/1:1\r\n");
  text.append("Content-Type: ").append(posting.contentType).append("\r\n");
  text.append("Agent: ").append(posting.userAgent).append("\r\n");
  text.append("Content-Length: ").append(std::to_string(posting.body.size())).append("\r\n");
  text.append("\r\n").append(posting.body);
  return text;
}

int receiveOnce(StreamSocket& socket, Buffer& buffer) {
  const Poco::Timespan wait(kReceiveMicroseconds);
  socket.setReceiveTimeout(wait);
  // A system that counts whole milliseconds makes "wait for ever" of so short a time; there, a look must do.
  if (socket.getReceiveTimeout() == 0 && !socket.poll(wait, Poco::Net::Socket::SELECT_READ)) {
    throw Poco::TimeoutException();
  }
  return socket.receiveBytes(buffer.data(), static_cast<int>(buffer.size() - 1));
}

/// The count of bytes that came; 0 when there is nothing to show, for whatever reason, which has been reported.
int receive(StreamSocket& socket, Buffer& buffer) {
  int count = 0;
  (void)guarded(kReceiving, [&] {
    try {
      count = receiveOnce(socket, buffer);
      if (count == 0) {
        printSiteLine(kPostRoutine, kSiteNothingRead, "Zerio bytes read");  // spelled so on purpose
      }
    } catch (const Poco::Net::ConnectionResetException& error) {
      reportFailure(kSiteReset, "Connection reset: ", error);
    }
  });
  return count;
}

}  // namespace

void postRaw(StreamSocket& socket, const Posting& posting) {
  ConsoleStream console;
  printSiteLine(kPostRoutine, kSiteTarget, posting.host, std::string(" ").append(std::to_string(posting.port)));
  const Poco::Net::SocketAddress address(posting.host, posting.port);
  if (!guarded(kConnecting, [&] { socket.connect(address, Poco::Timespan(kConnectSeconds, 0)); })) {
    return;
  }
  const std::string request = requestText(posting);
  console << kPostingTitle << request << std::endl;
  if (!guarded(kSending, [&] { socket.sendBytes(request.data(), static_cast<int>(request.size())); })) {
    return;
  }
  Buffer buffer = {};
  if (receive(socket, buffer) != 0) {
    console << "\r\nReceived:\r\n" << buffer.data() << std::endl;
    socket.close();
  }
}

}  // namespace keltop
