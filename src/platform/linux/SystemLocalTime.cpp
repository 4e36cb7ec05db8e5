#include "platform/SystemLocalTime.h"

#include <cstdint>
#include <ctime>

namespace keltop::platform {

namespace {

template <typename Field>
std::uint16_t field(Field value) noexcept {
  return static_cast<std::uint16_t>(value);
}

}  // namespace

LocalTime systemLocalTime() noexcept {
  timespec now = {};
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  std::tm local = {};
  (void)::localtime_r(&now.tv_sec, &local);
  constexpr int kTmYearBase = 1900;
  constexpr long kNanosecondsInMillisecond = 1'000'000;
  return {.year = field(local.tm_year + kTmYearBase),
          .month = field(local.tm_mon + 1),
          .dayOfWeek = field(local.tm_wday),
          .day = field(local.tm_mday),
          .hour = field(local.tm_hour),
          .minute = field(local.tm_min),
          .second = field(local.tm_sec),
          .milliseconds = field(now.tv_nsec / kNanosecondsInMillisecond)};
}

}  // namespace keltop::platform
