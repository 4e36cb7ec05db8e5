#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include "support/Check.h"
#include "support/Sockets.h"

namespace keltop::fuzz {

/// The network that the process sees: whatever address it connects to, the one peer there is on the loopback device
/// answers, with a text that it has ready. No name is looked up and no packet leaves the machine.
class FakeNetwork {
 public:
  /// The answer to the next connection, which begins with what it has to say and then only listens.
  void answerWith(std::string answer) { answer_ = std::move(answer); }

  /// Lets the next connections fail with that error number; 0 lets them come about.
  void failWith(int error) { error_ = error; }

  /// What the peer was sent in all, once the other end is closed; nothing where nobody connected.
  std::optional<std::string> received() {
    if (!peer_) {
      return {};
    }
    std::string all = receiveAll(*peer_);
    peer_.reset();
    return all;
  }

  /// In place of the system's.
  int connect(int socket, bool version6) {
    if (error_ != 0) {
      errno = error_;
      return -1;
    }
    check(!peer_, "two connections for one post");
    const int flags = ::fcntl(socket, F_GETFL);
    check(::fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) == 0 && connectTo(socket, version6) == 0, "no connection");
    (void)::fcntl(socket, F_SETFL, flags);
    peer_ = listener_.acceptConnection();
    peer_->sendBytes(answer_.data(), static_cast<int>(answer_.size()));
    peer_->shutdownSend();
    return 0;
  }

  static FakeNetwork& instance() {
    static FakeNetwork network;
    return network;
  }

 private:
  FakeNetwork() : listener_(Poco::Net::SocketAddress("127.0.0.1", 0)) { ignoreBrokenPipes(); }

  [[nodiscard]] long connectTo(int socket, bool version6) const {
    const in_port_t port = htons(listener_.address().port());
    if (!version6) {
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_port = port;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      return ::syscall(SYS_connect, socket, &address, sizeof address);
    }
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = port;
    address.sin6_addr.s6_addr[10] = 0xFF;  // 127.0.0.1, as version 6 writes it
    address.sin6_addr.s6_addr[11] = 0xFF;
    address.sin6_addr.s6_addr[12] = 127;
    address.sin6_addr.s6_addr[15] = 1;
    return ::syscall(SYS_connect, socket, &address, sizeof address);
  }

  Poco::Net::ServerSocket listener_;
  std::optional<Poco::Net::StreamSocket> peer_;
  std::string answer_;
  int error_ = 0;
};

}  // namespace keltop::fuzz
