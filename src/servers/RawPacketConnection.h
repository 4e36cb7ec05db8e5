#pragma once

#include <Poco/Net/TCPServerConnection.h>

#include <array>

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

 private:
  /// One byte is stored at its start, so that it always reads as a text of at most one character.
  using Buffer = std::array<char, 2049>;

  void printUntilClosed(ConsoleStream& console);
  /// Prints while bytes come; true when the peer has closed.
  bool printBurst(ConsoleStream& console, ReadAhead& peer, Buffer& buffer);
};

}  // namespace keltop
