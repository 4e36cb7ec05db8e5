#include "net/ListeningSocket.h"

#include <Poco/Net/NetException.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "platform/Sockets.h"

namespace keltop::net {

namespace {

using Poco::AutoPtr;
using Poco::Timespan;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// How long a worker waits for a connection before it steps back.
constexpr auto kWorkersPatience = milliseconds(20);

/// How many workers wait at a time: each connection wakes all of them.
constexpr std::size_t kMostWaiting = 16;

/// Up to this many workers, a connection gets one at once; from then on when the others do not keep up.
constexpr std::size_t kEagerWorkers = 16;

/// How often the acceptor looks whether the workers keep up, and whether they still wait.
constexpr auto kLook = milliseconds(1);

/// Without a connection for so long, a crowd is over.
constexpr auto kCrowdPatience = milliseconds(20);

/// How long accepting pauses when descriptors or memory have run out: others must close something first.
constexpr auto kNoRoomPause = milliseconds(50);

/// How many connections the library's queue, which drops what is beyond 64, may hold.
constexpr std::size_t kMostHanded = 32;

}  // namespace

AutoPtr<AcceptedSocket> makePlainSocket(const NewConnection& connection) {
  return {new AcceptedSocket(connection)};
}

ListeningSocket::ListeningSocket(std::shared_ptr<ConnectionGroup> group, MakeAcceptedSocket make, std::size_t workers)
    : group_(std::move(group)), make_(std::move(make)), mostWorkers_(workers) {}

void ListeningSocket::listenOn(std::uint16_t port, int backlog, const SocketTimeouts& timeouts) {
  const Poco::Net::SocketAddress address(port);
  init(address.af());
  const bool reuse = platform::prepareListenSocket(static_cast<platform::SocketNumber>(sockfd()));
  timeouts_ = timeouts;
  if (platform::acceptedSocketsInheritOptions()) {
    setSendTimeout(timeouts.send);
    setReceiveTimeout(timeouts.receive);
    setNoDelay(true);
  }
  // Never with a shared port: a second program would listen on it, unnoticed by both.
  bind(address, reuse, false);
  listen(backlog);
  doorkeeper_ = std::thread([this] { keepDoor(); });
}

ListeningSocket::~ListeningSocket() {
  stop();
}

void ListeningSocket::stop() {
  {
    const std::lock_guard<std::mutex> guard(guard_);
    stopped_ = true;
    crowdComes_.notify_one();
    if (initialized()) {
      platform::stopListening(static_cast<platform::SocketNumber>(sockfd()));
    }
  }
  if (doorkeeper_.joinable()) {
    doorkeeper_.join();
  }
}

bool ListeningSocket::poll(const Timespan& timeout, int /*mode*/) {
  const auto deadline = steady_clock::now() + milliseconds(timeout.totalMilliseconds());
  do {
    if (stopped()) {
      std::this_thread::sleep_for(kLook);
      return false;
    }
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (somebodyForAFurtherWorker(std::max(left, milliseconds(0)))) {
      return true;
    }
  } while (steady_clock::now() < deadline);
  return false;
}

/// One look, which may wait for as long as said.
bool ListeningSocket::somebodyForAFurtherWorker(milliseconds limit) {
  if (handed_ >= kMostHanded || workers_ + handed_ >= mostWorkers_) {
    std::this_thread::sleep_for(kLook);
    return false;
  }
  if (!haveAccepted()) {
    if (waiting_ > 0 || crowd_) {
      std::this_thread::sleep_for(kLook);
      return false;
    }
    if (!waitForConnection(limit) || waiting_ > 0) {
      return false;  // nobody, or a worker has come just now and has seen it, too
    }
  }
  if (workers_ >= kEagerWorkers && workersKeepUp()) {
    std::this_thread::sleep_for(kLook);
    return false;
  }
  expectCrowd();
  acceptAll();
  return haveAccepted();
}

void ListeningSocket::expectCrowd() {
  if (!crowd_) {
    const std::lock_guard<std::mutex> guard(guard_);
    crowd_ = true;
    crowdComes_.notify_one();
  }
}

/// The doorkeeper's thread. While a crowd comes it does nothing but accept: the acceptor is busy with starting workers,
/// and the backlog would overflow meanwhile, which costs a client a second.
void ListeningSocket::keepDoor() {
  std::unique_lock<std::mutex> guard(guard_);
  for (;;) {
    crowdComes_.wait(guard, [this] { return crowd_ || stopped(); });
    if (stopped()) {
      return;
    }
    guard.unlock();
    if (!roomForAnother()) {
      std::this_thread::sleep_for(kLook);
    } else if (waitForConnection(kCrowdPatience)) {
      acceptAll();
    } else {
      crowd_ = false;
    }
    guard.lock();
  }
}

/// Whether a worker has taken a connection since the last look.
bool ListeningSocket::workersKeepUp() noexcept {
  return std::exchange(takenBefore_, taken_.load()) != taken_;
}

bool ListeningSocket::waitForConnection(milliseconds limit) noexcept {
  if (noRoom_.exchange(false)) {
    std::this_thread::sleep_for(kNoRoomPause);
  }
  return platform::waitForSocket(static_cast<platform::SocketNumber>(sockfd()), {.forReading = true}, limit.count())
      .value_or(false);
}

/// All that a worker can be had for, so that the backlog does not overflow while the workers are started.
void ListeningSocket::acceptAll() {
  const std::lock_guard<std::mutex> guard(guard_);
  while (workers_ + handed_ + accepted_.size() < mostWorkers_) {
    AutoPtr<AcceptedSocket> accepted = acceptOne();
    if (!accepted) {
      return;
    }
    accepted_.push_back(std::move(accepted));
  }
}

bool ListeningSocket::roomForAnother() {
  const std::lock_guard<std::mutex> guard(guard_);
  return workers_ + handed_ + accepted_.size() < mostWorkers_;
}

Poco::Net::SocketImpl* ListeningSocket::acceptConnection(Poco::Net::SocketAddress& peer) {
  AutoPtr<AcceptedSocket> accepted = takeAccepted();
  if (!accepted) {
    throw Poco::Net::NetException("No connection waits");
  }
  peer = accepted->peerAddress();
  ++handed_;
  return accepted.duplicate();  // NOLINT(clang-analyzer-cplusplus.NewDelete): it does not see the count of owners
}

void ListeningSocket::workerBegins() {
  ++workers_;
  --handed_;
}

void ListeningSocket::workerEnds() noexcept {
  --workers_;
}

AutoPtr<AcceptedSocket> ListeningSocket::next() {
  if (stopped() || handed_ > 0) {
    return {};
  }
  AutoPtr<AcceptedSocket> found = takeAccepted();
  if (!found) {
    found = acceptOne();
  }
  if (!found) {
    found = waitForNext();
  }
  if (found) {
    ++taken_;
  }
  return found;
}

AutoPtr<AcceptedSocket> ListeningSocket::waitForNext() {
  AutoPtr<AcceptedSocket> found;
  const bool last = waiting_.fetch_add(1) == 0;
  if (waiting_ <= kMostWaiting) {
    const auto deadline = steady_clock::now() + kWorkersPatience;
    for (auto left = kWorkersPatience; !found && left.count() > 0 && !stopped() && !noRoom_;
         left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now())) {
      if (waitForConnection(left)) {
        found = acceptOne();
      }
    }
  }
  --waiting_;
  if (found && last) {
    acceptAll();  // nobody else waits for those who came at the same moment
    if (haveAccepted()) {
      expectCrowd();
    }
  }
  return found;
}

AutoPtr<AcceptedSocket> ListeningSocket::acceptOne() {
  platform::AcceptedConnection accepted;
  if (stopped()) {
    return {};
  }
  switch (platform::acceptWaiting(static_cast<platform::SocketNumber>(sockfd()), accepted)) {
    case platform::AcceptResult::accepted:
      break;
    case platform::AcceptResult::noRoom:
      noRoom_ = true;
      return {};
    case platform::AcceptResult::none:
      return {};
  }
  const Poco::Net::SocketAddress peer(reinterpret_cast<const sockaddr*>(accepted.peer.data()),
                                      static_cast<poco_socklen_t>(accepted.peerLength));
  return make_({.socket = accepted.socket,
                .peer = peer,
                .inherited = timeouts_,
                .inherits = platform::acceptedSocketsInheritOptions(),
                .group = group_});
}

AutoPtr<AcceptedSocket> ListeningSocket::takeAccepted() {
  const std::lock_guard<std::mutex> guard(guard_);
  if (accepted_.empty()) {
    return {};
  }
  AutoPtr<AcceptedSocket> first = std::move(accepted_.front());
  accepted_.pop_front();
  return first;
}

bool ListeningSocket::haveAccepted() {
  const std::lock_guard<std::mutex> guard(guard_);
  return !accepted_.empty();
}

}  // namespace keltop::net
