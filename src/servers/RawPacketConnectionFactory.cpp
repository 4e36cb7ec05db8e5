#include "servers/RawPacketConnectionFactory.h"

#include <memory>

#include "servers/RawPacketConnection.h"

namespace keltop {

Poco::Net::TCPServerConnection* RawPacketConnectionFactory::createConnection(const Poco::Net::StreamSocket& socket) {
  return std::make_unique<RawPacketConnection>(socket).release();
}

}  // namespace keltop
