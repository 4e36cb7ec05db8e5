#include "net/ServingConnection.h"

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>

#include <exception>
#include <memory>
#include <utility>

#include "net/AcceptedSocket.h"

namespace keltop::net {

using Poco::Net::StreamSocket;
using Poco::Net::TCPServerConnection;
using Poco::Net::TCPServerConnectionFactory;

ServingConnection::ServingConnection(const StreamSocket& first, TCPServerConnectionFactory::Ptr factory,
                                     Poco::AutoPtr<ListeningSocket> listening)
    : TCPServerConnection(first), factory_(std::move(factory)), listening_(std::move(listening)) {}

void ServingConnection::run() {
  listening_->workerBegins();
  serve(std::exchange(socket(), StreamSocket()));
  while (Poco::AutoPtr<AcceptedSocket> next = listening_->next()) {
    serve(StreamSocket(next.duplicate()));
  }
  listening_->workerEnds();
}

/// As the library serves one: what goes wrong with a connection is told to its error handler and ends that connection.
void ServingConnection::serve(const StreamSocket& socket) noexcept {
  try {
    auto* const accepted = dynamic_cast<AcceptedSocket*>(socket.impl());
    if (accepted == nullptr || accepted->begin()) {
      const std::unique_ptr<TCPServerConnection> connection(factory_->createConnection(socket));
      connection->run();
    }
  } catch (const Poco::Exception& error) {
    Poco::ErrorHandler::handle(error);
  } catch (const std::exception& error) {
    Poco::ErrorHandler::handle(error);
  } catch (...) {
    Poco::ErrorHandler::handle();
  }
}

ServingConnectionFactory::ServingConnectionFactory(TCPServerConnectionFactory::Ptr factory,
                                                   Poco::AutoPtr<ListeningSocket> listening)
    : factory_(std::move(factory)), listening_(std::move(listening)) {}

TCPServerConnection* ServingConnectionFactory::createConnection(const StreamSocket& socket) {
  return std::make_unique<ServingConnection>(socket, factory_, listening_).release();
}

}  // namespace keltop::net
