#pragma once

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "net/ConnectionGroup.h"
#include "net/TrafficWatcher.h"
#include "platform/Sockets.h"

namespace keltop::net {

/// The time-outs that a server's connections are given, zero for none. Where the system lets accepted sockets inherit
/// them they are set once, on the listening socket, and asking for them again costs no call.
struct SocketTimeouts {
  Poco::Timespan send;
  Poco::Timespan receive;
};

/// What is known of a connection when it has been accepted.
struct NewConnection {
  platform::SocketNumber socket = 0;
  Poco::Net::SocketAddress peer;
  SocketTimeouts inherited;  ///< what the socket has without being asked for it
  bool inherits = false;     ///< whether it does, TCP_NODELAY included
  std::shared_ptr<ConnectionGroup> group;
};

/// The socket of one accepted connection beneath the library's servers. It behaves as the library's own, with fewer
/// system calls, and with these differences:
/// - the peer's address is the one that accept gave: it is known also when the peer has gone;
/// - a watcher is told what is received and sent;
/// - closing it lets the answer reach a client that may still be sending (RFC 9112, section 9.6).
///
/// As the library's it is used by one thread at a time, but for endTraffic.
///
/// An encrypted connection derives from it: begin does the handshake, receiveSome and sendSome decrypt and encrypt,
/// holdsReceived tells of what has been decrypted and not been given yet, endSending says farewell. The watcher is told
/// here, so it sees what these give and take.
class AcceptedSocket : public Poco::Net::StreamSocketImpl {
 public:
  /// Nothing, or a number in newer versions of the library.
  using ShutdownResult = decltype(std::declval<Poco::Net::SocketImpl&>().shutdownSend());

  /// Owns the system's socket from here on, and tells the watcher that the connection is open.
  explicit AcceptedSocket(const NewConnection& connection);

  /// Called once, on the thread that serves the connection, before anything else of it: the place for a handshake.
  /// False when the connection is not to be served; the watcher has been told why.
  [[nodiscard]] virtual bool begin() { return true; }

  /// A request has begun to be handled: until endRequest, the end of the server ends it.
  void beginRequest() { group_->beginBody(*this); }

  /// `whole`: all that the request promised has been received, so that the client has no more to send.
  void endRequest(bool whole) noexcept;

  /// Ends both directions and leaves the socket open: who waits for bytes gets those that have come, and then the end.
  /// From any thread while the connection is in its group.
  void endTraffic() noexcept;

  // As the library has them.
  int receiveBytes(void* buffer, int length, int flags) override;
  int sendBytes(const void* buffer, int length, int flags) override;
  bool poll(const Poco::Timespan& timeout, int mode) override;
  void close() override;
  ShutdownResult shutdownSend() override;
  Poco::Net::SocketAddress address() override;
  Poco::Net::SocketAddress peerAddress() override { return peer_; }
  void setSendTimeout(const Poco::Timespan& timeout) override;
  void setReceiveTimeout(const Poco::Timespan& timeout) override;
  void setRawOption(int level, int option, const void* value, poco_socklen_t length) override;

  // The other ways of receiving and sending would pass the watcher by. The library's servers do not use them.
  using StreamSocketImpl::receiveBytes;
  using StreamSocketImpl::sendBytes;

 protected:
  /// Closes, without lingering: a derived class's part is gone by then.
  ~AcceptedSocket() override;

  /// One receive: the count of bytes, 0 at the end of what the peer sends, negative where there is nothing now;
  /// failures are the library's exceptions.
  virtual int receiveSome(char* buffer, int length, int flags);

  /// One send: the count of bytes that were taken, at least one; failures are the library's exceptions.
  virtual int sendSome(const char* bytes, int length, int flags);

  /// Whether receiveSome has bytes to give that no wait for the socket would tell of.
  [[nodiscard]] virtual bool holdsReceived() const noexcept { return false; }

  /// Tells the peer, once, that nothing more will be sent. A failure does not matter any more.
  virtual void endSending();

  /// Whether closing alone tells the peer so: then endSending is left out where the connection is closed right after.
  [[nodiscard]] virtual bool closingEndsSending() const noexcept { return true; }

  [[nodiscard]] const ConnectionGroup& group() const noexcept { return *group_; }

  /// Tells the watcher that the connection is not served.
  void tellRefused(std::string_view reason) noexcept;

 private:
  [[nodiscard]] bool peerMaySend() const noexcept;
  void linger();
  void noteFailure(const Poco::Exception& error) noexcept;
  void tellEnded() noexcept;

  const Poco::Net::SocketAddress peer_;
  std::optional<Poco::Net::SocketAddress> own_;
  std::optional<Poco::Timespan> sendTimeout_;
  std::optional<Poco::Timespan> receiveTimeout_;
  bool noDelay_;
  std::atomic<bool> trafficEnded_ = false;
  bool sendingEnded_ = false;
  bool answered_ = false;      ///< something has been sent
  bool wholeRequest_ = false;  ///< the client has nothing more to send
  bool receiveFailed_ = false;
  ConnectionEnd end_ = ConnectionEnd::closedHere;
  std::optional<std::uint64_t> watched_;  ///< the watcher's number, while it is told
  std::shared_ptr<ConnectionGroup> group_;
};

}  // namespace keltop::net
