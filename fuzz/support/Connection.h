#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "support/Sockets.h"

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
  [[nodiscard]] std::string received() const { return receiveAll(client); }

  Poco::Net::StreamSocket client;
  Poco::Net::StreamSocket server;

 private:
  explicit Connection(Poco::Net::ServerSocket& listening)
      : client(listening.address()), server(listening.acceptConnection()) {}

  static Poco::Net::ServerSocket& listener() {
    static Poco::Net::ServerSocket listening(Poco::Net::SocketAddress("127.0.0.1", 0));
    ignoreBrokenPipes();
    return listening;
  }
};

/// Serves a connection; false when it ended with an exception of the library, which a server's thread would report.
template <typename Serve>
[[nodiscard]] bool serves(Serve serve) {
  try {
    serve();
    return true;
  } catch (const Poco::Exception&) {
    return false;
  }
}

}  // namespace keltop::fuzz
