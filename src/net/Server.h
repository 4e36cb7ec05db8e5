#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <Poco/Net/TCPServerParams.h>
#include <Poco/ThreadPool.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "net/ConnectionGroup.h"
#include "net/ListeningSocket.h"
#include "net/TrafficWatcher.h"

namespace keltop::net {

/// Where and for whom a server listens.
struct ServerOptions {
  std::uint16_t port = 0;  ///< of all local IPv4 addresses; 0 lets the system choose
  int backlog = 64;
  TrafficWatcher* watcher = nullptr;          ///< told what goes over the wire, where there is one; outlives the server
  MakeAcceptedSocket make = makePlainSocket;  ///< the kind of socket that connections get
};

/// One of the library's servers, with its default parameters, on a socket and a thread pool of our own. As many
/// connections are served at once as the machine allows, each by a thread.
///
/// Construction binds the port and listens; serving begins with start. Failures of both are the library's exceptions.
class Server {
 public:
  /// A server of plain connections: the factory makes one object for each. They get the time-outs.
  Server(const ServerOptions& options, const Poco::Net::TCPServerConnectionFactory::Ptr& factory,
         const SocketTimeouts& timeouts);

  /// An HTTP server.
  Server(const ServerOptions& options, const Poco::Net::HTTPRequestHandlerFactory::Ptr& factory);

  /// Waits for the workers, up to ten seconds for each that is still busy.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  void start();

  /// Accepts nobody any more, and ends the wait for what is missing of a request's body. Connections that are being
  /// served go on.
  void stop();

  /// Waits until no connection is served any more, at most that long; whether that was reached.
  [[nodiscard]] bool finish(std::chrono::milliseconds limit);

  [[nodiscard]] std::uint16_t port() const { return server_->port(); }

 private:
  void create(const ServerOptions& options, const Poco::Net::TCPServerConnectionFactory::Ptr& factory,
              const Poco::Net::TCPServerParams::Ptr& parameters, const SocketTimeouts& timeouts);

  const std::shared_ptr<ConnectionGroup> group_;
  Poco::ThreadPool pool_;
  const Poco::Net::HTTPServerParams::Ptr httpParameters_;  ///< null for a server of plain connections
  Poco::AutoPtr<ListeningSocket> listening_;
  std::optional<Poco::Net::TCPServer> server_;
};

}  // namespace keltop::net
