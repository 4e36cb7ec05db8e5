#include "view/Overviews.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace keltop::view {

namespace {

constexpr std::size_t kReceivedAtHand = std::size_t{64} << 10U;
constexpr std::size_t kSentAtHand = std::size_t{8} << 10U;
constexpr std::size_t kLongestMethod = 64;
constexpr std::size_t kLongestTarget = 512;
constexpr std::size_t kFirstBytes = 120;

/// More than the log has connections: those that it has dropped are dropped here together, now and then.
constexpr std::size_t kMostKept = 12'000;

void describe(const Message& request, Overview& overview) {
  overview.kind = Overview::Kind::http;
  overview.method = request.first.substr(0, kLongestMethod);
  overview.target = request.second.substr(0, kLongestTarget);
  overview.bodyEnd = request.body.end;
  overview.bodySize = request.body.wireTotal;
  overview.announced = request.body.announced;
  overview.restSize = request.restTotal;
}

}  // namespace

Stream streamOf(const Connection& connection, Direction direction, std::string_view bytes) noexcept {
  return {bytes, connection.stream(direction).total, connection.state != State::open};
}

Overview Overviews::of(const Connection& connection) {
  const bool ended = connection.state != State::open;
  {
    const std::lock_guard lock(mutex_);
    const auto found = kept_.find(connection.id);
    if (found != kept_.end()) {
      const Kept& kept = found->second;
      const bool same =
          kept.received == connection.received.total && kept.sent == connection.sent.total && kept.ended == ended;
      if (same || connection.received.lost > 0) {
        return kept.overview;
      }
    }
  }
  Overview overview = read(connection);
  const std::lock_guard lock(mutex_);
  if (kept_.size() >= kMostKept) {
    const std::vector<std::uint64_t> known = log_.ids();
    std::erase_if(kept_, [&known](const auto& one) { return !std::ranges::binary_search(known, one.first); });
  }
  kept_[connection.id] = {connection.received.total, connection.sent.total, ended, overview};
  return overview;
}

Overview Overviews::read(const Connection& connection) const {
  Overview overview;
  const std::string received = log_.bytes(connection.id, Direction::received, kReceivedAtHand);
  if (connection.received.total == 0) {
    return overview;
  }
  overview.kind = Overview::Kind::bytes;
  overview.first = received.substr(0, kFirstBytes);
  if (connection.received.lost > 0) {
    return overview;
  }
  const bool tls = isTlsHello(received);
  if (tls) {
    overview.kind = Overview::Kind::tls;
  }
  if (!raw_) {
    const std::string sent = log_.bytes(connection.id, Direction::sent, kSentAtHand);
    const Exchange exchange =
        readExchange(streamOf(connection, Direction::received, received), streamOf(connection, Direction::sent, sent));
    if (exchange.request && !connection.refused && !tls) {
      describe(*exchange.request, overview);
    }
    if (exchange.answer) {
      overview.status = exchange.answer->second.substr(0, 3);
    }
  }
  return overview;
}

}  // namespace keltop::view
