#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "net/TrafficWatcher.h"

namespace keltop::view {

/// Microseconds since 1970, UTC.
using Microseconds = std::int64_t;

enum class Direction : std::uint8_t { received, sent };

enum class State : std::uint8_t { open, closedByPeer, closedHere, reset, failed };

/// One of the two streams of bytes of a connection.
struct StreamSize {
  std::uint64_t total = 0;  ///< bytes that went over the wire
  std::uint64_t lost = 0;   ///< of these, from the first on, how many are no longer kept
};

/// What is known of a connection, but for its bytes.
struct Connection {
  std::uint64_t id = 0;
  std::uint64_t change = 0;  ///< the number of its last change; the changes of all connections are counted together
  std::string peer;
  std::string own;
  Microseconds begin = 0;
  Microseconds end = 0;  ///< of the last thing that happened, while it is open
  State state = State::open;
  bool refused = false;
  std::string refusal;  ///< the library's reason
  StreamSize received;
  StreamSize sent;

  [[nodiscard]] const StreamSize& stream(Direction direction) const noexcept {
    return direction == Direction::received ? received : sent;
  }
};

/// Bytes that came or went in one go.
struct Piece {
  std::uint64_t number = 0;  ///< grows from piece to piece, over all connections
  Microseconds time = 0;
  Direction direction = Direction::received;
  std::uint64_t offset = 0;  ///< of its first byte in its stream
  std::string bytes;         ///< its beginning, as much as was asked for
  std::uint64_t length = 0;  ///< of the whole piece
};

/// What of the log is told beside its connections.
struct LogCounts {
  std::uint64_t seen = 0;
  std::uint64_t open = 0;
  std::uint64_t change = 0;              ///< the number of the last change
  std::uint64_t droppedConnections = 0;  ///< the log had too many
  std::uint64_t droppedBytes = 0;        ///< the log was full
};

/// Keeps what goes over the wire, the newest of it, in memory that is bounded: when it is full, the oldest pieces and
/// the connections that ended first make place. What was dropped is counted.
///
/// Any thread may call anything. No call waits for more than another call's copying of some kilobytes, and telling the
/// log costs no call of the operating system: a flood is not slowed by who looks on.
class TrafficLog : public net::TrafficWatcher {
 public:
  struct Limits {
    std::size_t bytes = std::size_t{40} << 20U;
    std::size_t pieces = std::size_t{128} << 10U;
    std::size_t connections = 10'000;

    /// More than that at once, or for long, is a flood: of its pieces the ends are kept, and copying costs little.
    std::size_t burst = std::size_t{32} << 20U;
    std::size_t bytesInMicrosecond = 256;
    std::size_t endOfPiece = 4096;
  };
  using Clock = std::function<Microseconds()>;

  TrafficLog();
  explicit TrafficLog(const Limits& limits, Clock clock = systemTime);
  ~TrafficLog() override = default;
  TrafficLog(const TrafficLog&) = delete;
  TrafficLog& operator=(const TrafficLog&) = delete;

  [[nodiscard]] static Microseconds systemTime();

  std::uint64_t opened(const Poco::Net::SocketAddress& peer, const Poco::Net::SocketAddress& own) noexcept override;
  void received(std::uint64_t connection, std::string_view bytes) noexcept override;
  void sent(std::uint64_t connection, std::string_view bytes) noexcept override;
  void refused(std::uint64_t connection, std::string_view reason) noexcept override;
  void ended(std::uint64_t connection, net::ConnectionEnd how) noexcept override;

  [[nodiscard]] LogCounts counts() const;
  [[nodiscard]] std::optional<Connection> find(std::uint64_t id) const;

  /// The connections that changed after that change, the one that changed longest ago first, `most` at most.
  [[nodiscard]] std::vector<Connection> changedAfter(std::uint64_t change, std::size_t most) const;

  /// Every connection that is kept, by its number.
  [[nodiscard]] std::vector<std::uint64_t> ids() const;

  /// A connection's pieces after the one of that number, `most` at most, each with at most `bytesOfEach` of its bytes.
  [[nodiscard]] std::vector<Piece> piecesAfter(std::uint64_t id, std::uint64_t number, std::size_t most,
                                               std::size_t bytesOfEach) const;

  /// The beginning of what is kept of a stream, `most` bytes at most.
  [[nodiscard]] std::string bytes(std::uint64_t id, Direction direction, std::size_t most) const;

  /// Where the next part of a stream is; a new one is where what is kept of it begins.
  struct Place {
    std::uint64_t piece = 0;  ///< the last piece that was read from
    std::size_t within = 0;   ///< bytes of it that have been read
    std::optional<std::uint64_t> offset{};
  };

  /// The next bytes of a stream, `most` at most, and none at its present end; moves the place behind them. Nothing when
  /// they have been dropped meanwhile.
  [[nodiscard]] std::optional<std::string> next(std::uint64_t id, Direction direction, Place& place,
                                                std::size_t most) const;

  /// Waits until the log is closed, at most so long; true when it is.
  [[nodiscard]] bool waitForClose(std::chrono::milliseconds time) const;

  /// Ends every wait, now and from now on.
  void close() noexcept;

 private:
  /// A piece whose bytes stand in the ring.
  struct Kept {
    std::uint64_t connection;
    Microseconds time;
    std::uint64_t position;  ///< of its first byte, counted over all bytes that ever were in the ring
    std::uint64_t offset;
    std::uint64_t next;  ///< the connection's next piece, 0 for none
    std::uint32_t length;
    Direction direction;
  };
  struct Entry {
    Connection facts;
    std::uint64_t first = 0;  ///< its first piece that is kept, 0 for none
    std::uint64_t last = 0;
    std::uint64_t since = 1;  ///< pieces before that one are its own no more
  };
  using Entries = std::list<Entry>;

  [[nodiscard]] Entry* entry(std::uint64_t id) noexcept;
  [[nodiscard]] const Entry* entry(std::uint64_t id) const noexcept;
  [[nodiscard]] Kept& kept(std::uint64_t number) const noexcept { return pieces_[number % limits_.pieces]; }
  void add(std::uint64_t id, Direction direction, std::string_view bytes) noexcept;
  void append(Entry& to, Direction direction, std::string_view bytes);
  [[nodiscard]] bool isFlood(std::size_t bytes, Microseconds time) noexcept;
  void forget(Entry& entry) noexcept;
  void makePlace(std::size_t bytes) noexcept;
  void dropOldestPiece() noexcept;
  void dropConnection() noexcept;
  void changed(Entry& changedOne, Microseconds time) noexcept;
  void copyIn(std::uint64_t position, std::string_view bytes) noexcept;
  void copyOut(std::uint64_t position, std::size_t count, std::string& to) const;
  /// The piece that a place goes on with, 0 when there is none yet; nothing when it was dropped.
  [[nodiscard]] std::optional<std::uint64_t> pieceAt(const Entry& of, const Place& place) const noexcept;

  const Limits limits_;
  const Clock clock_;
  mutable std::mutex mutex_;
  mutable std::condition_variable closing_;
  bool closed_ = false;
  LogCounts counts_;
  Entries entries_;  ///< the one that changed longest ago first
  std::unordered_map<std::uint64_t, Entries::iterator> byId_;
  std::deque<std::uint64_t> endedFirst_;
  std::unique_ptr<char[]> ring_;
  std::unique_ptr<Kept[]> pieces_;
  std::size_t allowance_;  ///< bytes that may come now without being a flood
  Microseconds allowedAt_ = 0;
  std::uint64_t firstPosition_ = 0;
  std::uint64_t nextPosition_ = 0;
  std::uint64_t firstPiece_ = 1;
  std::uint64_t nextPiece_ = 1;
};

}  // namespace keltop::view
