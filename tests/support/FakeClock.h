#pragma once

#include <mutex>

#include "platform/Clock.h"

namespace keltop {

/// The local time of the whole process, set by hand, for as long as this object lives. Any thread may read it.
class FakeClock {
 public:
  explicit FakeClock(const platform::LocalTime& time) {
    set(time);
    platform::setLocalTimeSource(now);
  }
  ~FakeClock() { platform::setLocalTimeSource(nullptr); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  static void set(const platform::LocalTime& time) {
    const std::lock_guard<std::mutex> guard(mutex);
    current = time;
  }

 private:
  static platform::LocalTime now() noexcept {
    const std::lock_guard<std::mutex> guard(mutex);
    return current;
  }

  static inline std::mutex mutex;
  static inline platform::LocalTime current;
};

}  // namespace keltop
