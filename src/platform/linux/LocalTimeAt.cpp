#include "platform/linux/LocalTimeAt.h"

#include <cstdint>

namespace keltop::platform {

namespace {

template <typename Field>
std::uint16_t field(Field value) noexcept {
  return static_cast<std::uint16_t>(value);
}

LocalTime calendarOf(std::time_t second) noexcept {
  std::tm local = {};
  (void)::localtime_r(&second, &local);
  constexpr int kTmYearBase = 1900;
  return {.year = field(local.tm_year + kTmYearBase),
          .month = field(local.tm_mon + 1),
          .dayOfWeek = field(local.tm_wday),
          .day = field(local.tm_mday),
          .hour = field(local.tm_hour),
          .minute = field(local.tm_min),
          .second = field(local.tm_sec)};
}

}  // namespace

LocalTime localTimeAt(const timespec& instant) noexcept {
  constexpr long kNanosecondsInMillisecond = 1'000'000;
  thread_local std::time_t second = -1;
  thread_local LocalTime calendar = calendarOf(second);
  if (instant.tv_sec != second) {
    second = instant.tv_sec;
    calendar = calendarOf(second);
  }
  LocalTime time = calendar;
  time.milliseconds = field(instant.tv_nsec / kNanosecondsInMillisecond);
  return time;
}

}  // namespace keltop::platform
