#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <string>
#include <string_view>

#include "support/Check.h"

namespace keltop::fuzz {

/// The two ends of a connection over the loopback device.
class Connection {
 public:
  Connection() : Connection(listener()) {}

  /// All of it at once; texts are shorter than what the system takes before somebody reads.
  void send(std::string_view text) {
    while (!text.empty()) {
      const int sent = client.sendBytes(text.data(), static_cast<int>(text.size()));
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  /// What the server's end has sent until now, which must be closed for sending.
  std::string received() {
    std::string all;
    std::array<char, 65536> piece = {};
    ssize_t count = 0;
    while ((count = ::recv(client.impl()->sockfd(), piece.data(), piece.size(), 0)) > 0) {
      all.append(piece.data(), static_cast<std::size_t>(count));
    }
    return all;
  }

  Poco::Net::StreamSocket client;
  Poco::Net::StreamSocket server;

 private:
  explicit Connection(Poco::Net::ServerSocket& listening)
      : client(listening.address()), server(listening.acceptConnection()) {}

  static Poco::Net::ServerSocket& listener() {
    static Poco::Net::ServerSocket listening(Poco::Net::SocketAddress("127.0.0.1", 0));
    // As the program does: the library sends without keeping the signal away.
    static const bool quiet = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    check(quiet, "SIGPIPE cannot be ignored");
    return listening;
  }
};

}  // namespace keltop::fuzz
