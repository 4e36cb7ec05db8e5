#pragma once

#include <Poco/Net/StreamSocket.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace keltop {

/// Receives from a socket many bytes at a time. The room for them is there only while it is needed: it begins small,
/// doubles as long as the peer fills it, and can be given back when the peer pauses.
class ReadAhead {
 public:
  /// The socket must outlive this object.
  explicit ReadAhead(Poco::Net::StreamSocket& socket) : socket_(socket) {}

  /// As receiving from the socket: the count of bytes, 0 when the peer has closed, negative when there is nothing to
  /// read now; a time-out or a reset is the library's exception.
  int receive();

  /// What the last call received; valid until the next one, or release.
  [[nodiscard]] std::string_view received() const noexcept { return {room_.get(), count_}; }

  /// Gives the room back.
  void release() noexcept;

 private:
  static constexpr std::size_t kLeast = std::size_t{4} << 10U;
  static constexpr std::size_t kMost = std::size_t{32} << 10U;

  Poco::Net::StreamSocket& socket_;
  std::unique_ptr<char[]> room_;
  std::size_t size_ = 0;
  std::size_t count_ = 0;
};

}  // namespace keltop
