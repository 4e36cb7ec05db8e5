#pragma once

#include <Poco/Exception.h>
#include <Poco/Timespan.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <utility>

#include "net/AcceptedSocket.h"
#include "net/ListeningSocket.h"
#include "net/SecureContext.h"
#include "net/SecureTypes.h"

namespace keltop::net {

/// Told of a handshake that failed, on the thread that serves the connection.
using HandshakeFailed = std::function<void(const Poco::Exception&)>;

/// Makes the sockets of a server behind TLS. With `failed`, each handshake is made before anything else of the
/// connection; where it fails, `failed` is told, and the connection is not served. Without, the handshake is made when
/// the connection's handler first waits for the peer, and its failure is one of that wait, for the handler to show.
[[nodiscard]] MakeAcceptedSocket makeSecureSockets(const SecureIdentity& identity, HandshakeFailed failed);

/// The socket of one connection behind TLS. It is used as a plain one: what it gives and takes is not encrypted yet or
/// any more, a wait for it ends when there is something to give, not when there is something to decrypt.
///
/// The TLS library works on memory; what it wants sent and received goes through the plain socket, with its time-outs
/// and its failures, and the handshake's time is limited whatever the peer does. The library's own secure sockets leave
/// the waiting to the system, a record at a time.
///
/// A peer that closes without TLS's farewell has closed all the same: many do. What it cut off is not shown.
class SecureSocket : public AcceptedSocket {
 public:
  SecureSocket(const NewConnection& connection, std::shared_ptr<SSL_CTX> context, HandshakeFailed failed);

  bool begin() override;
  bool poll(const Poco::Timespan& timeout, int mode) override;
  void close() override;

  /// The library's newer releases give a result here.
  using ShutdownResult = decltype(std::declval<AcceptedSocket&>().shutdownSend());
  ShutdownResult shutdownSend() override;

 protected:
  ~SecureSocket() override;

  int receiveSome(char* buffer, int length, int flags) override;
  int sendSome(const char* bytes, int length, int flags) override;

 private:
  using Time = std::chrono::steady_clock::time_point;

  void shakeHands();
  [[nodiscard]] bool handshakeOver();
  [[nodiscard]] bool somethingToGive();
  [[nodiscard]] int readWhatCame(char* buffer, int length);
  [[nodiscard]] bool waitForPeer(Time until, int mode);
  void noteResult(int result);
  void takeFromPeer();
  void giveToPeer();
  void sayFarewell() noexcept;
  void fail(std::exception_ptr failure) noexcept;

  const std::shared_ptr<SSL_CTX> context_;
  const HandshakeFailed failed_;
  SessionOwner session_;
  BIO* received_ = nullptr;  ///< from the peer, not decrypted yet; the session's
  BIO* toSend_ = nullptr;    ///< encrypted, for the peer; the session's
  Time handshakeLimit_;
  bool shaken_ = false;         ///< the handshake has been made
  bool cutOff_ = false;         ///< the peer's end of the plain connection has come
  bool ended_ = false;          ///< the peer sends nothing more
  bool farewell_ = false;       ///< said
  std::exception_ptr failure_;  ///< of the connection, for whoever asks it for bytes
};

}  // namespace keltop::net
