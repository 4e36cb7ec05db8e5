#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace keltop::view {

/// What one peer or the other put on the wire, as far as it is at hand.
struct Stream {
  std::string_view bytes;  ///< from its first byte on
  std::uint64_t total =
      0;               ///< how many there are in all; more than there are bytes where only the beginning is at hand
  bool ended = false;  ///< nothing more will come
};

/// A header as it came: neither unfolded, nor decoded, nor trimmed but for the blanks around the value.
struct HeaderLine {
  std::string_view name;
  std::string_view value;
};

/// How a body came to its end.
enum class BodyEnd {
  complete,    ///< as long as it was announced
  coming,      ///< shorter, but more may come
  shorter,     ///< shorter, and nothing more will come
  broken,      ///< its chunks are none
  unannounced  ///< no length was announced: it is what came
};

struct Body {
  BodyEnd end = BodyEnd::complete;
  bool chunked = false;
  std::optional<std::uint64_t> announced{};  ///< Content-Length
  std::string_view wire;                     ///< as it came, chunk sizes included
  std::uint64_t wireTotal = 0;
  std::string decoded;  ///< of a chunked body that is at hand: what its chunks carry

  /// The body itself, as far as it is at hand.
  [[nodiscard]] std::string_view content() const noexcept { return chunked ? std::string_view(decoded) : wire; }
};

/// A request or an answer.
struct Message {
  std::string_view head;   ///< to the end of its empty line
  std::string_view first;  ///< its first word: the method, or the version
  std::string_view second;
  std::string_view third;
  std::vector<HeaderLine> headers;
  Body body;
  std::string_view rest;  ///< what came behind it
  std::uint64_t restTotal = 0;

  /// The value of the first header of that name, whatever its case.
  [[nodiscard]] std::optional<std::string_view> header(std::string_view name) const noexcept;
};

/// What a peer asked and what it got, read with the library's own parsers. What these refuse is not there. The views
/// refer to the bytes that were read.
struct Exchange {
  std::optional<Message> request;         ///< method, target, version
  std::vector<std::string_view> interim;  ///< heads of answers that are not the last, such as 100
  std::optional<Message> answer;          ///< version, status, reason
};

/// Reads the one exchange of a connection: this program's server closes after its first answer.
[[nodiscard]] Exchange readExchange(const Stream& received, const Stream& sent);

/// Whether that is the beginning of a TLS handshake (RFC 8446, 5.1 and 4.1.2: a record of type 22, in it a hello).
[[nodiscard]] bool isTlsHello(std::string_view bytes) noexcept;

/// The parts of a target behind its first "?", split at "&" and "=" and with escapes resolved, as forms have them.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> readForm(std::string_view text);

/// The part of a target behind its first "?" and before its "#".
[[nodiscard]] std::string_view queryOf(std::string_view target) noexcept;

}  // namespace keltop::view
