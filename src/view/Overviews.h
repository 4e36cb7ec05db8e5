#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "view/Exchange.h"
#include "view/TrafficLog.h"

namespace keltop::view {

/// What the list shows of a connection's bytes.
struct Overview {
  enum class Kind : std::uint8_t {
    silent,  ///< nothing came
    http,    ///< a request that the library reads
    tls,     ///< a TLS hello, to a port that speaks none
    bytes    ///< anything else, and whatever a raw listener gets
  };
  Kind kind = Kind::silent;
  std::string method;
  std::string target;
  std::string status;
  std::optional<BodyEnd> bodyEnd{};
  std::uint64_t bodySize = 0;
  std::optional<std::uint64_t> announced{};
  std::uint64_t restSize = 0;  ///< bytes after the end of the request
  std::string first;           ///< the first bytes, where it is no request
};

/// Makes overviews, and keeps them: each connection is read once for all browsers, and its request is still named when
/// its first bytes have made place for newer ones.
class Overviews {
 public:
  /// The log must outlive this object.
  Overviews(const TrafficLog& log, bool raw) : log_(log), raw_(raw) {}

  [[nodiscard]] Overview of(const Connection& connection);

 private:
  struct Kept {
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    bool ended = false;
    Overview overview;
  };

  [[nodiscard]] Overview read(const Connection& connection) const;

  const TrafficLog& log_;
  const bool raw_;
  std::mutex mutex_;
  std::unordered_map<std::uint64_t, Kept> kept_;
};

/// A stream of which the beginning is at hand.
[[nodiscard]] Stream streamOf(const Connection& connection, Direction direction, std::string_view bytes) noexcept;

}  // namespace keltop::view
