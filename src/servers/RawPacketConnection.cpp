#include "servers/RawPacketConnection.h"

#include <Poco/Exception.h>
#include <Poco/Timespan.h>

#include <string>

#include "product/ConsoleStream.h"
#include "product/ShutdownEvent.h"
#include "semaphore/EventSemaphore.h"
#include "servers/ReadAhead.h"

namespace keltop {

namespace {

constexpr long kSocketTimeoutSeconds = 10;
constexpr long kPollSeconds = 2;

}  // namespace

void RawPacketConnection::run() {
  socket().setSendTimeout(Poco::Timespan(kSocketTimeoutSeconds, 0));
  socket().setReceiveTimeout(Poco::Timespan(kSocketTimeoutSeconds, 0));
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
    if (!socket().poll(Poco::Timespan(kPollSeconds, 0), Poco::Net::Socket::SELECT_READ)) {
      continue;
    }
    Buffer buffer = {};
    try {
      closed = printBurst(console, peer, buffer);
    } catch (const Poco::TimeoutException&) {
      // A pause in what the peer sends; the connection stays.
    }
  }
}

bool RawPacketConnection::printBurst(ConsoleStream& console, ReadAhead& peer, Buffer& buffer) {
  for (;;) {
    if (peer.drained()) {
      console.flush();  // the next read may wait, and what came must be seen
    }
    const int count = peer.receiveByte(buffer.front());
    if (count <= 0) {
      return count == 0;
    }
    console << buffer.data();  // as a terminated text: a zero byte shows nothing
  }
}

}  // namespace keltop
