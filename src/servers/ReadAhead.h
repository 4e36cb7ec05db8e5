#pragma once

#include <Poco/Net/StreamSocket.h>

#include <cstddef>
#include <vector>

namespace keltop {

/// Gives a socket's bytes one at a time and receives them many at a time.
class ReadAhead {
 public:
  /// The socket must outlive this object.
  explicit ReadAhead(Poco::Net::StreamSocket& socket) : socket_(socket), received_(kSize) {}

  /// As receiving one byte from the socket: 1 with the byte stored, 0 when the peer has closed, negative when there is
  /// nothing to read now; a time-out or a reset is the library's exception. Bytes received before come first.
  int receiveByte(char& byte);

  /// True when the next byte must come from the socket, which may wait.
  [[nodiscard]] bool drained() const noexcept { return next_ == end_; }

 private:
  static constexpr std::size_t kSize = 65536;

  Poco::Net::StreamSocket& socket_;
  std::vector<char> received_;
  std::size_t next_ = 0;
  std::size_t end_ = 0;
};

}  // namespace keltop
