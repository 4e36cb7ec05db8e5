#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <vector>

namespace keltop {

/// The milliseconds of a wait that something else must end long before.
inline constexpr std::int32_t kLong = 20'000;

/// How long a wait of that time lasts at least, by the test's clock: the wait's own counts in milliseconds, and may run
/// a little faster.
constexpr std::chrono::milliseconds almost(std::chrono::milliseconds asked) noexcept {
  return asked - asked / 1000 - std::chrono::milliseconds(1);
}

/// Whether another thread is not done yet with what it was begun for. It is observed for a while, in which it comes to
/// where it waits.
template <typename Result>
[[nodiscard]] bool waits(const std::future<Result>& begun) {
  return begun.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
}

/// How many of several threads are not done yet, when one of them has been observed for a while.
template <typename Result>
[[nodiscard]] std::ptrdiff_t waitingOf(const std::vector<std::future<Result>>& begun) {
  (void)std::ranges::any_of(begun, waits<Result>);
  return std::ranges::count_if(begun, [](const std::future<Result>& one) {
    return one.wait_for(std::chrono::milliseconds(0)) == std::future_status::timeout;
  });
}

/// Whether another thread's wait is ended by what has just been done. A busy machine is given time, but less than
/// kLong: the end of a wait's own time is not taken for it.
template <typename Result>
[[nodiscard]] bool ends(const std::future<Result>& begun) {
  return begun.wait_for(std::chrono::milliseconds(kLong / 2)) == std::future_status::ready;
}

}  // namespace keltop
