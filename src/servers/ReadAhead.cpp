#include "servers/ReadAhead.h"

namespace keltop {

int ReadAhead::receiveByte(char& byte) {
  if (drained()) {
    const int count = socket_.receiveBytes(received_.data(), static_cast<int>(received_.size()));
    if (count <= 0) {
      return count;
    }
    next_ = 0;
    end_ = static_cast<std::size_t>(count);
  }
  byte = received_[next_++];
  return 1;
}

}  // namespace keltop
