#pragma once

#include <Poco/Net/Context.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace keltop {

/// The client's side of a TLS connection, as a socket of the network library. The library has one of its own, whose
/// waiting and whose ends differ from one version to the next; this one behaves as a plain socket does:
/// - it waits for the peer once and no longer than the time-out, and a signal in between changes nothing;
/// - the peer's orderly close is the end of what is received, with the farewell of TLS (RFC 8446, 6.1) or without;
/// - everything else that goes wrong is an exception of the library.
class TlsSocket : public Poco::Net::StreamSocketImpl {
 public:
  /// `host` is the name that the server is told (RFC 6066, 3).
  TlsSocket(Poco::Net::Context::Ptr context, std::string host);
  TlsSocket(const TlsSocket&) = delete;
  TlsSocket& operator=(const TlsSocket&) = delete;

  /// Connects and completes the handshake. The time-out is for the connection, and for each time that the server has
  /// to be waited for in the handshake.
  void connect(const Poco::Net::SocketAddress& address, const Poco::Timespan& timeout) override;

  /// Sends all of it; gives `length`.
  int sendBytes(const void* data, int length, int flags) override;

  /// Gives how many bytes have come, at least one; 0 where the peer has closed.
  int receiveBytes(void* buffer, int length, int flags) override;

  void close() override;

 protected:
  ~TlsSocket() override;

 private:
  struct Free {
    void operator()(SSL* session) const noexcept { SSL_free(session); }
  };

  /// Repeats a step of TLS until it is done; gives its result, or 0 where the peer has ended the conversation.
  template <typename Step>
  int complete(const Poco::Timespan& timeout, Step step);
  void await(int mode, const Poco::Timespan& timeout);

  Poco::Net::Context::Ptr context_;
  std::string host_;
  std::unique_ptr<SSL, Free> session_;
};

}  // namespace keltop
