#include "platform/linux/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace keltop::platform {

void sleepWhile(const FutexWord& word, std::uint32_t value, WaitDeadline deadline) noexcept {
  timespec until = {};
  if (deadline) {
    // The steady clock is the monotonic one, by which this wait measures; absolute, so that an early return costs
    // nothing.
    const auto sinceStart = deadline->time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceStart);
    until.tv_sec = static_cast<std::time_t>(seconds.count());
    until.tv_nsec = static_cast<long>(std::chrono::nanoseconds(sinceStart - seconds).count());
  }
  const int before = errno;
  (void)::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, deadline ? &until : nullptr, nullptr,
                  FUTEX_BITSET_MATCH_ANY);
  errno = before;
}

void wakeSleepers(const FutexWord& word, int most) noexcept {
  const int before = errno;
  (void)::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, most, nullptr, nullptr, 0);
  errno = before;
}

}  // namespace keltop::platform
