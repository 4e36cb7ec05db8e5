#pragma once

#include <atomic>
#include <mutex>
#include <unordered_set>

namespace keltop::net {

class AcceptedSocket;
class TrafficWatcher;

/// What the connections of one server share: who watches them, and whether the server has been stopped.
class ConnectionGroup {
 public:
  /// `watcher` may be null; else it must outlive the connections.
  explicit ConnectionGroup(TrafficWatcher* watcher) noexcept : watcher_(watcher) {}

  [[nodiscard]] TrafficWatcher* watcher() const noexcept { return watcher_; }
  [[nodiscard]] bool stopped() const noexcept { return stopped_.load(std::memory_order_relaxed); }

  /// The server ends: no connection lingers any more, and those that may be waiting for the rest of a request's body
  /// find its end.
  void stop() noexcept;

  /// The connection waits for the body of a request, from now until it has ended waiting. Both from its own thread.
  void beginBody(AcceptedSocket& connection);
  void endBody(AcceptedSocket& connection) noexcept;

 private:
  TrafficWatcher* const watcher_;
  std::atomic<bool> stopped_ = false;
  std::mutex guard_;
  std::unordered_set<AcceptedSocket*> inBody_;
};

}  // namespace keltop::net
