#pragma once

#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Timespan.h>

#include <string_view>

namespace keltop {

class ConsoleStream;
class ReadAhead;

/// Shows on the console, byte by byte, what one peer sends, and never answers. Runs on one of the library's worker
/// threads until the peer closes or the connection fails.
class RawPacketConnection : public Poco::Net::TCPServerConnection {
 public:
  using Poco::Net::TCPServerConnection::TCPServerConnection;
  ~RawPacketConnection() override = default;
  void run() override;

  /// How long sending and receiving may take at a time.
  [[nodiscard]] static Poco::Timespan timeout() { return {10, 0}; }

 private:
  void printUntilClosed(ConsoleStream& console);
  /// Prints while bytes come; true when the peer has closed.
  bool printBurst(ConsoleStream& console, ReadAhead& peer);
  static void printBytes(ConsoleStream& console, std::string_view bytes);
};

}  // namespace keltop
