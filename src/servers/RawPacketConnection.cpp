#include "servers/RawPacketConnection.h"

#include <Poco/Exception.h>
#include <Poco/Timespan.h>

#include <algorithm>
#include <string>

#include "product/ConsoleStream.h"
#include "product/ShutdownEvent.h"
#include "semaphore/EventSemaphore.h"
#include "servers/ReadAhead.h"

namespace keltop {

namespace {

constexpr long kPollSeconds = 2;

}  // namespace

void RawPacketConnection::run() {
  socket().setSendTimeout(timeout());
  socket().setReceiveTimeout(timeout());
  // Held for the connection's life, which keeps the event in being; not waited on, and not having it is no error.
  SEMAPHORE::EventSemaphore shutdown;
  shutdown.open(kShutdownEventName);
  // Kept: after a reset the socket no longer knows its peer.
  const std::string peer = socket().peerAddress().toString();
  ConsoleStream console;
  console << "\r\nConnect from " << peer << std::endl;
  try {
    printUntilClosed(console);
  } catch (const Poco::Exception& error) {
    console << "Error: " << error.displayText() << '\n' << "\r\nClosing connection to " << peer << std::endl;
    return;
  }
  console << "\r\nDisconnect from " << peer << std::endl;
}

void RawPacketConnection::printUntilClosed(ConsoleStream& console) {
  ReadAhead peer(socket());
  bool closed = false;
  while (!closed) {
    peer.release();  // a silent peer holds no room
    if (!socket().poll(Poco::Timespan(kPollSeconds, 0), Poco::Net::Socket::SELECT_READ)) {
      continue;
    }
    try {
      closed = printBurst(console, peer);
    } catch (const Poco::TimeoutException&) {
      // A pause in what the peer sends; the connection stays.
    }
  }
}

bool RawPacketConnection::printBurst(ConsoleStream& console, ReadAhead& peer) {
  for (;;) {
    const int count = peer.receive();
    if (count <= 0) {
      return count == 0;
    }
    printBytes(console, peer.received());
    console.flush();  // the next read may wait, and what came must be seen
  }
}

/// Byte by byte, each as a terminated text: a zero byte shows nothing, and what lies between two of them is one piece.
void RawPacketConnection::printBytes(ConsoleStream& console, std::string_view bytes) {
  for (std::size_t begin = 0; begin < bytes.size();) {
    const std::size_t end = std::min(bytes.find('\0', begin), bytes.size());
    console.append(bytes.substr(begin, end - begin));
    begin = end + 1;
  }
}

}  // namespace keltop
