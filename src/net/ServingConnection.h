#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Net/TCPServerConnectionFactory.h>

#include "net/ListeningSocket.h"

namespace keltop::net {

/// What the library runs on a worker thread: it serves the connection that the library accepted, and then, one after
/// the other, those that it accepts itself, as long as somebody comes.
class ServingConnection : public Poco::Net::TCPServerConnection {
 public:
  /// `factory` makes the connection object that serves one socket.
  ServingConnection(const Poco::Net::StreamSocket& first, Poco::Net::TCPServerConnectionFactory::Ptr factory,
                    Poco::AutoPtr<ListeningSocket> listening);
  void run() override;

 private:
  void serve(const Poco::Net::StreamSocket& socket) noexcept;

  Poco::Net::TCPServerConnectionFactory::Ptr factory_;
  Poco::AutoPtr<ListeningSocket> listening_;
};

/// Makes them.
class ServingConnectionFactory : public Poco::Net::TCPServerConnectionFactory {
 public:
  ServingConnectionFactory(Poco::Net::TCPServerConnectionFactory::Ptr factory,
                           Poco::AutoPtr<ListeningSocket> listening);
  Poco::Net::TCPServerConnection* createConnection(const Poco::Net::StreamSocket& socket) override;

 private:
  Poco::Net::TCPServerConnectionFactory::Ptr factory_;
  Poco::AutoPtr<ListeningSocket> listening_;
};

}  // namespace keltop::net
