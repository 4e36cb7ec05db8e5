#include "servers/ReadAhead.h"

#include <algorithm>

namespace keltop {

int ReadAhead::receive() {
  const std::size_t wanted = count_ == size_ ? std::clamp(size_ * 2, kLeast, kMost) : size_;
  count_ = 0;
  if (wanted != size_) {
    release();
    room_ = std::make_unique_for_overwrite<char[]>(wanted);  // what is not received is never touched
    size_ = wanted;
  }
  const int count = socket_.receiveBytes(room_.get(), static_cast<int>(size_));
  count_ = count > 0 ? static_cast<std::size_t>(count) : 0;
  return count;
}

void ReadAhead::release() noexcept {
  room_.reset();
  size_ = 0;
  count_ = 0;
}

}  // namespace keltop
