#include "net/AcceptedSocket.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketDefs.h>
#include <Poco/Thread.h>

#include <chrono>
#include <cstddef>
#include <string_view>
#include <vector>

namespace keltop::net {

namespace {

using Poco::Timespan;
using Poco::Net::SocketAddress;
using std::chrono::steady_clock;

/// How long, and for how much, a client that does not stop sending keeps its connection after the answer.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr std::size_t kLingerBytes = std::size_t{64} << 20U;

/// How often a lingering connection looks whether the server has been stopped.
constexpr auto kLingerLook = std::chrono::microseconds(50'000);
constexpr std::size_t kLingerBuffer = 65536;

}  // namespace

AcceptedSocket::AcceptedSocket(const NewConnection& connection)
    : StreamSocketImpl(static_cast<poco_socket_t>(connection.socket)),
      peer_(connection.peer),
      noDelay_(connection.inherits),
      group_(connection.group) {
  if (connection.inherits) {
    sendTimeout_ = connection.inherited.send;
    receiveTimeout_ = connection.inherited.receive;
  }
  if (TrafficWatcher* const watcher = group_->watcher(); watcher != nullptr) {
    watched_ = watcher->opened(peer_, AcceptedSocket::address());
  }
}

AcceptedSocket::~AcceptedSocket() {
  tellEnded();
}

void AcceptedSocket::endRequest(bool whole) noexcept {
  group_->endBody(*this);
  wholeRequest_ = whole;
}

void AcceptedSocket::endTraffic() noexcept {
  trafficEnded_ = true;
  platform::endTraffic(static_cast<platform::SocketNumber>(sockfd()));
}

int AcceptedSocket::receiveBytes(void* buffer, int length, int flags) {
  try {
    char* const bytes = static_cast<char*>(buffer);
    const int count = receiveSome(bytes, length, flags);
    if (count == 0 && length > 0) {
      end_ = ConnectionEnd::closedByPeer;
    }
    if (count > 0 && watched_) {
      group_->watcher()->received(*watched_, std::string_view(bytes, static_cast<std::size_t>(count)));
    }
    return count;
  } catch (const Poco::Exception& error) {
    receiveFailed_ = true;
    noteFailure(error);
    throw;
  }
}

int AcceptedSocket::sendBytes(const void* buffer, int length, int flags) {
  const char* const bytes = static_cast<const char*>(buffer);
  int sent = 0;
  try {
    while (sent < length) {
      const int count = sendSome(bytes + sent, length - sent, flags);
      answered_ = true;
      if (watched_) {
        group_->watcher()->sent(*watched_, std::string_view(bytes + sent, static_cast<std::size_t>(count)));
      }
      sent += count;
      if (!getBlocking()) {
        break;
      }
    }
  } catch (const Poco::Exception& error) {
    noteFailure(error);
    throw;
  }
  return sent;
}

bool AcceptedSocket::poll(const Timespan& timeout, int mode) {
  if (!initialized()) {
    throw Poco::Net::InvalidSocketException();
  }
  if ((mode & SELECT_READ) != 0 && holdsReceived()) {
    return true;
  }
  const platform::SocketWait wait = {.forReading = (mode & SELECT_READ) != 0, .forWriting = (mode & SELECT_WRITE) != 0};
  const auto ready =
      platform::waitForSocket(static_cast<platform::SocketNumber>(sockfd()), wait, timeout.totalMilliseconds());
  if (!ready) {
    error();
  }
  return ready.value_or(false);
}

void AcceptedSocket::close() {
  if (initialized()) {
    if (peerMaySend()) {
      linger();
    }
    StreamSocketImpl::close();
  }
  tellEnded();
}

SocketAddress AcceptedSocket::address() {
  if (!own_) {
    own_ = StreamSocketImpl::address();
  }
  return *own_;
}

void AcceptedSocket::setSendTimeout(const Timespan& timeout) {
  if (sendTimeout_ != timeout) {
    StreamSocketImpl::setSendTimeout(timeout);
    sendTimeout_ = timeout;
  }
}

void AcceptedSocket::setReceiveTimeout(const Timespan& timeout) {
  if (receiveTimeout_ != timeout) {
    StreamSocketImpl::setReceiveTimeout(timeout);
    receiveTimeout_ = timeout;
  }
}

void AcceptedSocket::setRawOption(int level, int option, const void* value, poco_socklen_t length) {
  const bool delay = level == IPPROTO_TCP && option == TCP_NODELAY;
  if (delay && noDelay_ && length == sizeof(int) && *static_cast<const int*>(value) != 0) {
    return;  // as it is
  }
  StreamSocketImpl::setRawOption(level, option, value, length);
  noDelay_ = noDelay_ && !delay;
}

int AcceptedSocket::receiveSome(char* buffer, int length, int flags) {
  try {
    return StreamSocketImpl::receiveBytes(buffer, length, flags);
  } catch (const Poco::Exception&) {
    if (!trafficEnded_) {
      throw;
    }
    return 0;  // some systems tell that end as a failure
  }
}

int AcceptedSocket::sendSome(const char* bytes, int length, int flags) {
  // The base's base: the base itself sends on and on, and the watcher would be told nothing until the end.
  return SocketImpl::sendBytes(bytes, length, flags);  // NOLINT(bugprone-parent-virtual-call)
}

/// The library calls it when it has sent an answer, and closes the connection next.
AcceptedSocket::ShutdownResult AcceptedSocket::shutdownSend() {
  if (!sendingEnded_ && (peerMaySend() || !closingEndsSending())) {
    sendingEnded_ = true;
    endSending();
  }
  return ShutdownResult();
}

void AcceptedSocket::endSending() {
  StreamSocketImpl::shutdownSend();
}

void AcceptedSocket::tellRefused(std::string_view reason) noexcept {
  if (watched_) {
    group_->watcher()->refused(*watched_, reason);
  }
}

bool AcceptedSocket::peerMaySend() const noexcept {
  const bool done = wholeRequest_ && !receiveFailed_;
  return answered_ && !done && end_ != ConnectionEnd::closedByPeer && end_ != ConnectionEnd::reset;
}

/// Closing while bytes of the client are unread, or on their way, makes the system reset the connection, which destroys
/// the answer that it has not read yet. So what it still sends is read, and shown to nobody but the watcher.
void AcceptedSocket::linger() {
  try {
    shutdownSend();
    std::vector<char> unread(kLingerBuffer);
    std::size_t count = 0;
    const auto deadline = steady_clock::now() + kLingerTime;
    while (count < kLingerBytes && !group_->stopped() && steady_clock::now() < deadline) {
      if (!poll(Timespan(kLingerLook.count()), SELECT_READ)) {
        continue;
      }
      const int received = receiveBytes(unread.data(), static_cast<int>(unread.size()), 0);
      if (received == 0) {
        return;
      }
      count += received > 0 ? static_cast<std::size_t>(received) : 0;
    }
  } catch (const Poco::Exception&) {
    // The client has gone: nothing is left to wait for.
  }
}

void AcceptedSocket::noteFailure(const Poco::Exception& error) noexcept {
  if (dynamic_cast<const Poco::TimeoutException*>(&error) != nullptr) {
    return;  // the connection goes on, or is closed here
  }
  const bool reset = dynamic_cast<const Poco::Net::ConnectionResetException*>(&error) != nullptr ||
                     dynamic_cast<const Poco::Net::ConnectionAbortedException*>(&error) != nullptr;
  end_ = reset ? ConnectionEnd::reset : ConnectionEnd::failed;
}

void AcceptedSocket::tellEnded() noexcept {
  if (watched_) {
    group_->watcher()->ended(*watched_, end_);
    watched_.reset();
  }
}

}  // namespace keltop::net
