#include "net/Server.h"

#include <Poco/Net/HTTPServerConnectionFactory.h>

#include <cstddef>
#include <thread>
#include <utility>

#include "net/RequestEnd.h"
#include "net/ServingConnection.h"
#include "platform/Sockets.h"

namespace keltop::net {

namespace {

/// Threads that are there from the beginning: whatever runs out later, somebody can be served.
constexpr int kFewestThreads = 2;
constexpr int kIdleSeconds = 60;

/// Enough for a handshake and a handler; thousands of the system's default size would fill an address space.
constexpr int kStackBytes = 256 * 1024;

constexpr auto kLook = std::chrono::milliseconds(2);

int mostThreads() {
  static const std::size_t limit = platform::raiseConnectionLimit();
  return static_cast<int>(limit);
}

}  // namespace

Server::Server(const ServerOptions& options, const Poco::Net::TCPServerConnectionFactory::Ptr& factory,
               const SocketTimeouts& timeouts)
    : group_(std::make_shared<ConnectionGroup>(options.watcher)),
      pool_("worker", kFewestThreads, mostThreads(), kIdleSeconds, kStackBytes) {
  create(options, factory, Poco::makeAuto<Poco::Net::TCPServerParams>(), timeouts);
}

Server::Server(const ServerOptions& options, const Poco::Net::HTTPRequestHandlerFactory::Ptr& factory)
    : group_(std::make_shared<ConnectionGroup>(options.watcher)),
      pool_("worker", kFewestThreads, mostThreads(), kIdleSeconds, kStackBytes),
      httpParameters_(Poco::makeAuto<Poco::Net::HTTPServerParams>()) {
  // What the library's HTTPServer is: its TCPServer with these parameters and this factory.
  create(options,
         Poco::makeShared<Poco::Net::HTTPServerConnectionFactory>(httpParameters_,
                                                                  Poco::makeShared<RequestEndFactory>(factory)),
         httpParameters_, {.send = 0, .receive = httpParameters_->getTimeout()});
}

Server::~Server() = default;

void Server::create(const ServerOptions& options, const Poco::Net::TCPServerConnectionFactory::Ptr& factory,
                    const Poco::Net::TCPServerParams::Ptr& parameters, const SocketTimeouts& timeouts) {
  listening_ = Poco::makeAuto<ListeningSocket>(group_, options.make, static_cast<std::size_t>(pool_.capacity()));
  listening_->listenOn(options.port, options.backlog, timeouts);
  server_.emplace(Poco::makeShared<ServingConnectionFactory>(factory, listening_), pool_, OwnServerSocket(listening_),
                  parameters);
}

void Server::start() {
  server_->start();
}

void Server::stop() {
  listening_->stop();
  group_->stop();
  server_->stop();
}

bool Server::finish(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (pool_.used() > 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(kLook);
  }
  return true;
}

}  // namespace keltop::net
