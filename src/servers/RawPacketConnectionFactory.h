#pragma once

#include <Poco/Net/TCPServerConnectionFactory.h>

namespace keltop {

/// Makes one RawPacketConnection for each accepted connection; the server owns it.
class RawPacketConnectionFactory : public Poco::Net::TCPServerConnectionFactory {
 public:
  ~RawPacketConnectionFactory() override = default;
  Poco::Net::TCPServerConnection* createConnection(const Poco::Net::StreamSocket& socket) override;
};

}  // namespace keltop
