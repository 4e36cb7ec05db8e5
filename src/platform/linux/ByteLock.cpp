#include "platform/linux/ByteLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace keltop::platform {

namespace {

constexpr auto kRetry = std::chrono::microseconds(100);

struct flock lockOf(std::int64_t byte, short type) noexcept {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(byte);
  lock.l_len = 1;
  return lock;
}

}  // namespace

bool setByteLock(int file, std::int64_t byte, short type) noexcept {
  struct flock lock = lockOf(byte, type);
  return ::fcntl(file, F_OFD_SETLK, &lock) == 0;
}

bool waitForByteLock(int file, std::int64_t byte, std::chrono::milliseconds patience) noexcept {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!setByteLock(file, byte, F_WRLCK)) {
    if ((errno != EAGAIN && errno != EACCES) || std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(kRetry);
  }
  return true;
}

std::optional<bool> byteLockedElsewhere(int file, std::int64_t byte) noexcept {
  struct flock lock = lockOf(byte, F_WRLCK);
  if (::fcntl(file, F_OFD_GETLK, &lock) != 0) {
    return std::nullopt;
  }
  return lock.l_type != F_UNLCK;
}

}  // namespace keltop::platform
