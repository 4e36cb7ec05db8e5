#pragma once

#include <cstdint>

#include "semaphore/Mutex.h"

namespace SEMAPHORE {

/// Holds a mutex for a scope.
class ScopedLock {
 public:
  /// Waits at most that many milliseconds.
  ScopedLock(Mutex& mutex, std::uint32_t milliseconds) : mutex_(mutex), result_(mutex.lock(milliseconds)) {}
  ~ScopedLock() {
    // Also after 128: an abandoned mutex is this thread's then, and where it is not, unlocking does nothing.
    if (result_ != keltop::platform::kWaitTimeout) {
      mutex_.unlock();
    }
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  [[nodiscard]] bool held() const noexcept { return result_ == keltop::platform::kWaitObject; }

 private:
  Mutex& mutex_;
  std::uint32_t result_;
};

}  // namespace SEMAPHORE
