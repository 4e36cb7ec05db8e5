#include "view/TrafficLog.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace keltop::view {

namespace {

/// How much of the library's reason is kept: it may quote what the peer sent.
constexpr std::size_t kLongestRefusal = 200;

/// How many pieces one call looks at: it must not keep the log from who has something to tell.
constexpr std::size_t kMostLooks = 1024;

State stateOf(net::ConnectionEnd how) noexcept {
  switch (how) {
    case net::ConnectionEnd::closedByPeer:
      return State::closedByPeer;
    case net::ConnectionEnd::closedHere:
      return State::closedHere;
    case net::ConnectionEnd::reset:
      return State::reset;
    case net::ConnectionEnd::failed:
      break;
  }
  return State::failed;
}

}  // namespace

TrafficLog::TrafficLog() : TrafficLog(Limits{}) {}

// The memory is not touched before it is used: the system gives it page by page.
TrafficLog::TrafficLog(const Limits& limits, Clock clock)
    : limits_(limits),
      clock_(std::move(clock)),
      ring_(std::make_unique_for_overwrite<char[]>(limits.bytes)),
      pieces_(std::make_unique_for_overwrite<Kept[]>(limits.pieces)),
      allowance_(limits.burst) {}

Microseconds TrafficLog::systemTime() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::uint64_t TrafficLog::opened(const Poco::Net::SocketAddress& peer, const Poco::Net::SocketAddress& own) noexcept {
  try {
    Entry made;
    made.facts.peer = peer.toString();
    made.facts.own = own.toString();
    made.facts.begin = clock_();
    const std::lock_guard lock(mutex_);
    const std::uint64_t id = ++counts_.seen;
    if (entries_.size() >= limits_.connections) {
      dropConnection();
    }
    made.facts.id = id;
    const auto place = entries_.insert(entries_.end(), std::move(made));
    try {
      byId_.emplace(id, place);
    } catch (const std::bad_alloc&) {
      entries_.erase(place);
      ++counts_.droppedConnections;
      return id;
    }
    ++counts_.open;
    changed(*place, place->facts.begin);
    return id;
  } catch (const std::exception&) {
    return 0;  // no memory for it: it is on the wire all the same, and nothing is told of it
  }
}

void TrafficLog::received(std::uint64_t connection, std::string_view bytes) noexcept {
  add(connection, Direction::received, bytes);
}

void TrafficLog::sent(std::uint64_t connection, std::string_view bytes) noexcept {
  add(connection, Direction::sent, bytes);
}

void TrafficLog::refused(std::uint64_t connection, std::string_view reason) noexcept {
  const Microseconds time = clock_();
  const std::lock_guard lock(mutex_);
  Entry* const of = entry(connection);
  if (of == nullptr) {
    return;
  }
  of->facts.refused = true;
  try {
    of->facts.refusal = reason.substr(0, kLongestRefusal);
  } catch (const std::bad_alloc&) {
    of->facts.refusal.clear();  // that it was refused counts more than why
  }
  changed(*of, time);
}

void TrafficLog::ended(std::uint64_t connection, net::ConnectionEnd how) noexcept {
  const Microseconds time = clock_();
  const std::lock_guard lock(mutex_);
  Entry* const of = entry(connection);
  if (of == nullptr || of->facts.state != State::open) {
    return;
  }
  of->facts.state = stateOf(how);
  --counts_.open;
  changed(*of, time);
  try {
    endedFirst_.push_back(connection);
  } catch (const std::bad_alloc&) {  // then it makes place when it is the oldest of all
  }
}

LogCounts TrafficLog::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

std::optional<Connection> TrafficLog::find(std::uint64_t id) const {
  const std::lock_guard lock(mutex_);
  const Entry* const found = entry(id);
  return found == nullptr ? std::nullopt : std::optional(found->facts);
}

std::vector<Connection> TrafficLog::changedAfter(std::uint64_t change, std::size_t most) const {
  std::vector<Connection> result;
  const std::lock_guard lock(mutex_);
  auto first = entries_.begin();
  if (first != entries_.end() && first->facts.change <= change) {  // else all of them changed later
    first = entries_.end();
    while (first != entries_.begin() && std::prev(first)->facts.change > change) {
      --first;
    }
  }
  for (; first != entries_.end() && result.size() < most; ++first) {
    result.push_back(first->facts);
  }
  return result;
}

std::vector<std::uint64_t> TrafficLog::ids() const {
  std::vector<std::uint64_t> result;
  {
    const std::lock_guard lock(mutex_);
    result.reserve(entries_.size());
    std::ranges::transform(entries_, std::back_inserter(result), [](const Entry& one) { return one.facts.id; });
  }
  std::ranges::sort(result);
  return result;
}

std::vector<Piece> TrafficLog::piecesAfter(std::uint64_t id, std::uint64_t number, std::size_t most,
                                           std::size_t bytesOfEach) const {
  std::vector<Piece> result;
  const std::lock_guard lock(mutex_);
  const Entry* const of = entry(id);
  if (of == nullptr) {
    return result;
  }
  const bool known = number >= std::max(firstPiece_, of->since) && number < nextPiece_ && kept(number).connection == id;
  std::uint64_t after = known ? kept(number).next : of->first;
  if (!known && number != 0 && number >= after) {
    return result;  // nothing that is kept is newer
  }
  for (; after != 0 && result.size() < std::min(most, kMostLooks); after = kept(after).next) {
    const Kept& one = kept(after);
    Piece& piece = result.emplace_back(Piece{after, one.time, one.direction, one.offset, {}, one.length});
    copyOut(one.position, std::min<std::size_t>(one.length, bytesOfEach), piece.bytes);
  }
  return result;
}

std::string TrafficLog::bytes(std::uint64_t id, Direction direction, std::size_t most) const {
  constexpr std::size_t kPart = std::size_t{64} << 10U;
  std::string result;
  Place place;
  while (result.size() < most) {
    const auto part = next(id, direction, place, std::min(kPart, most - result.size()));
    if (!part || part->empty()) {
      break;
    }
    result += *part;
  }
  return result;
}

std::optional<std::uint64_t> TrafficLog::pieceAt(const Entry& of, const Place& place) const noexcept {
  if (place.piece == 0) {
    return of.first;
  }
  if (place.piece >= std::max(firstPiece_, of.since)) {
    const Kept& last = kept(place.piece);
    return place.within < last.length ? place.piece : last.next;
  }
  return std::nullopt;
}

std::optional<std::string> TrafficLog::next(std::uint64_t id, Direction direction, Place& place,
                                            std::size_t most) const {
  std::string result;
  for (;;) {
    const std::lock_guard lock(mutex_);
    const Entry* const of = entry(id);
    if (of == nullptr) {
      return std::nullopt;
    }
    std::optional<std::uint64_t> at = pieceAt(*of, place);
    if (!at) {
      // The piece itself is gone; nothing of this stream is lost as long as what follows it is there.
      if (!place.offset || of->facts.stream(direction).lost > *place.offset) {
        return std::nullopt;
      }
      at = of->first;
    }
    if (!place.offset) {
      place.offset = of->facts.stream(direction).lost;
    }
    std::size_t looks = 0;
    for (; *at != 0 && result.size() < most && looks < kMostLooks; ++looks) {
      const Kept& one = kept(*at);
      const std::size_t within = one.direction != direction   ? one.length
                                 : *at == place.piece         ? place.within
                                 : *place.offset > one.offset ? static_cast<std::size_t>(*place.offset - one.offset)
                                                              : 0;
      const std::size_t count =
          std::min<std::size_t>(one.length - std::min<std::size_t>(within, one.length), most - result.size());
      copyOut(one.position + within, count, result);
      *place.offset += count;
      place.piece = *at;
      place.within = within + count;
      if (place.within < one.length) {
        break;
      }
      at = one.next;
    }
    if (looks < kMostLooks || !result.empty()) {
      return result;
    }
  }
}

bool TrafficLog::waitForClose(std::chrono::milliseconds time) const {
  std::unique_lock lock(mutex_);
  return closing_.wait_for(lock, time, [this] { return closed_; });
}

void TrafficLog::close() noexcept {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  closing_.notify_all();
}

TrafficLog::Entry* TrafficLog::entry(std::uint64_t id) noexcept {
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : &*found->second;
}

const TrafficLog::Entry* TrafficLog::entry(std::uint64_t id) const noexcept {
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : &*found->second;
}

void TrafficLog::add(std::uint64_t id, Direction direction, std::string_view bytes) noexcept {
  if (bytes.empty()) {
    return;
  }
  const Microseconds time = clock_();
  const std::lock_guard lock(mutex_);
  Entry* const of = entry(id);
  if (of == nullptr) {
    counts_.droppedBytes += bytes.size();
    return;
  }
  changed(*of, time);
  append(*of, direction, bytes);
}

void TrafficLog::append(Entry& to, Direction direction, std::string_view bytes) {
  StreamSize& stream = direction == Direction::received ? to.facts.received : to.facts.sent;
  const std::size_t most = isFlood(bytes.size(), to.facts.end) ? limits_.endOfPiece : limits_.bytes;
  if (bytes.size() > most) {
    const std::size_t over = bytes.size() - most;
    forget(to);
    stream.total += over;
    stream.lost = stream.total;
    counts_.droppedBytes += over;
    bytes.remove_prefix(over);
  }
  makePlace(bytes.size());
  const std::uint64_t number = nextPiece_++;
  kept(number) = Kept{
      to.facts.id, to.facts.end, nextPosition_, stream.total, 0, static_cast<std::uint32_t>(bytes.size()), direction};
  copyIn(nextPosition_, bytes);
  nextPosition_ += bytes.size();
  stream.total += bytes.size();
  if (to.first == 0) {
    to.first = number;
  } else {
    kept(to.last).next = number;
  }
  to.last = number;
}

/// What is allowed grows with the time, up to what may come at once.
bool TrafficLog::isFlood(std::size_t bytes, Microseconds time) noexcept {
  const auto passed = static_cast<std::size_t>(std::clamp<Microseconds>(time - allowedAt_, 0, 1'000'000));
  allowedAt_ = time;
  allowance_ = std::min(limits_.burst, allowance_ + passed * limits_.bytesInMicrosecond);
  if (bytes > allowance_) {
    return true;
  }
  allowance_ -= bytes;
  return false;
}

/// Drops all that is kept of a connection's streams. Their place is free when it is the oldest.
void TrafficLog::forget(Entry& entry) noexcept {
  for (StreamSize* stream : {&entry.facts.received, &entry.facts.sent}) {
    counts_.droppedBytes += stream->total - stream->lost;
    stream->lost = stream->total;
  }
  entry.first = 0;
  entry.last = 0;
  entry.since = nextPiece_;
}

void TrafficLog::makePlace(std::size_t bytes) noexcept {
  while (nextPiece_ != firstPiece_ &&
         (nextPiece_ - firstPiece_ >= limits_.pieces || nextPosition_ - firstPosition_ + bytes > limits_.bytes)) {
    dropOldestPiece();
  }
}

void TrafficLog::dropOldestPiece() noexcept {
  const Kept& oldest = kept(firstPiece_);
  if (Entry* const of = entry(oldest.connection); of != nullptr && firstPiece_ >= of->since) {
    (oldest.direction == Direction::received ? of->facts.received : of->facts.sent).lost += oldest.length;
    of->first = oldest.next;
    if (of->first == 0) {
      of->last = 0;
    }
    counts_.droppedBytes += oldest.length;
  }
  firstPosition_ += oldest.length;
  ++firstPiece_;
}

void TrafficLog::dropConnection() noexcept {
  // The one that ended first; where all are open, the one in which nothing has happened for longest.
  auto place = entries_.begin();
  if (!endedFirst_.empty()) {
    place = byId_.find(endedFirst_.front())->second;
    endedFirst_.pop_front();
  } else if (place->facts.state == State::open) {
    --counts_.open;
  }
  for (const StreamSize* stream : {&place->facts.received, &place->facts.sent}) {
    counts_.droppedBytes += stream->total - stream->lost;
  }
  ++counts_.droppedConnections;
  byId_.erase(place->facts.id);
  entries_.erase(place);
}

void TrafficLog::changed(Entry& changedOne, Microseconds time) noexcept {
  changedOne.facts.change = ++counts_.change;
  changedOne.facts.end = std::max(time, changedOne.facts.begin);
  entries_.splice(entries_.end(), entries_, byId_.find(changedOne.facts.id)->second);
}

void TrafficLog::copyIn(std::uint64_t position, std::string_view bytes) noexcept {
  const std::size_t at = position % limits_.bytes;
  const std::size_t straight = std::min(bytes.size(), limits_.bytes - at);
  std::memcpy(&ring_[at], bytes.data(), straight);
  std::memcpy(&ring_[0], bytes.data() + straight, bytes.size() - straight);
}

void TrafficLog::copyOut(std::uint64_t position, std::size_t count, std::string& to) const {
  const std::size_t at = position % limits_.bytes;
  const std::size_t straight = std::min(count, limits_.bytes - at);
  to.append(&ring_[at], straight).append(&ring_[0], count - straight);
}

}  // namespace keltop::view
