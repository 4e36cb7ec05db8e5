#include "net/ConnectionGroup.h"

#include "net/AcceptedSocket.h"

namespace keltop::net {

void ConnectionGroup::stop() noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  stopped_ = true;
  for (AcceptedSocket* const connection : inBody_) {
    connection->endTraffic();
  }
}

void ConnectionGroup::beginBody(AcceptedSocket& connection) {
  const std::lock_guard<std::mutex> guard(guard_);
  if (stopped_) {
    connection.endTraffic();
  }
  inBody_.insert(&connection);
}

void ConnectionGroup::endBody(AcceptedSocket& connection) noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  inBody_.erase(&connection);
}

}  // namespace keltop::net
