#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/ServerSocketImpl.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "net/AcceptedSocket.h"
#include "net/ConnectionGroup.h"

namespace keltop::net {

/// Makes the socket of a connection that was accepted; an encrypted server's makes its own kind. It must not wait.
using MakeAcceptedSocket = std::function<Poco::AutoPtr<AcceptedSocket>(const NewConnection&)>;

[[nodiscard]] Poco::AutoPtr<AcceptedSocket> makePlainSocket(const NewConnection& connection);

/// The listening socket beneath a server of the library, and who accepts its connections.
///
/// A worker that has done with a connection accepts the next one itself (next), which spares the way through the
/// acceptor, a queue and a sleeping thread. The library's acceptor thread looks on, in poll: it is told of a connection
/// when no worker takes it, and hands that to a further worker. A connection is accepted when there is a worker for it
/// or one can be had; the others wait in the system's backlog. So none is ever accepted and dropped: the library drops
/// what its own queue has no room for, and is never given that many.
class ListeningSocket : public Poco::Net::ServerSocketImpl {
 public:
  /// `workers`: how many connections may be served at once. The group outlives the socket.
  ListeningSocket(std::shared_ptr<ConnectionGroup> group, MakeAcceptedSocket make, std::size_t workers);

  /// Binds to the port of all local IPv4 addresses and listens. The connections will have the time-outs. A port in use
  /// and what else fails are the library's exceptions.
  void listenOn(std::uint16_t port, int backlog, const SocketTimeouts& timeouts);

  /// Nobody is accepted any more, and who waits here is woken. By the server's owner.
  void stop();

  // For the library's acceptor thread.

  /// True when a connection waits that a further worker should serve.
  bool poll(const Poco::Timespan& timeout, int mode) override;

  /// That connection; the library's exception when there is none after all.
  Poco::Net::SocketImpl* acceptConnection(Poco::Net::SocketAddress& peer) override;

  // For the workers.

  /// A worker begins with the connection that the acceptor handed to it, and later ends its work.
  void workerBegins();
  void workerEnds() noexcept;

  /// The next connection for a worker that has done with one; null when it is to step back, because nobody came for a
  /// while or because others wait who came before.
  [[nodiscard]] Poco::AutoPtr<AcceptedSocket> next();

 protected:
  ~ListeningSocket() override;

 private:
  [[nodiscard]] bool somebodyForAFurtherWorker(std::chrono::milliseconds limit);
  [[nodiscard]] bool workersKeepUp() noexcept;
  [[nodiscard]] bool waitForConnection(std::chrono::milliseconds limit) noexcept;
  [[nodiscard]] Poco::AutoPtr<AcceptedSocket> waitForNext();
  void expectCrowd();
  void keepDoor();
  [[nodiscard]] bool roomForAnother();
  void acceptAll();
  [[nodiscard]] Poco::AutoPtr<AcceptedSocket> acceptOne();
  [[nodiscard]] Poco::AutoPtr<AcceptedSocket> takeAccepted();
  [[nodiscard]] bool haveAccepted();
  [[nodiscard]] bool stopped() const noexcept { return stopped_.load(std::memory_order_relaxed); }

  const std::shared_ptr<ConnectionGroup> group_;
  const MakeAcceptedSocket make_;
  const std::size_t mostWorkers_;
  SocketTimeouts timeouts_;

  std::atomic<bool> stopped_ = false;
  std::atomic<std::size_t> workers_ = 0;  ///< that are serving or wait in next
  std::atomic<std::size_t> handed_ = 0;   ///< connections given to the library that no worker has begun with
  std::atomic<std::size_t> waiting_ = 0;  ///< workers that wait in next
  std::atomic<std::size_t> taken_ = 0;    ///< connections that workers took themselves, ever
  std::atomic<bool> noRoom_ = false;      ///< the system refused to accept for lack of descriptors or memory
  std::size_t takenBefore_ = 0;           ///< when the acceptor looked last

  std::atomic<bool> crowd_ = false;  ///< more come than workers are started for
  std::condition_variable crowdComes_;
  std::thread doorkeeper_;

  std::mutex guard_;
  std::deque<Poco::AutoPtr<AcceptedSocket>> accepted_;  ///< by the acceptor, and not handed to anybody yet
};

/// The library's owner of it.
class OwnServerSocket : public Poco::Net::ServerSocket {
 public:
  explicit OwnServerSocket(const Poco::AutoPtr<ListeningSocket>& socket)
      : ServerSocket(Poco::AutoPtr<ListeningSocket>(socket).duplicate(), true) {}
};

}  // namespace keltop::net
