#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <utility>

#include "platform/Clock.h"

namespace keltop::platform {
namespace {

std::time_t systemSeconds() {
  return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

/// A local time, and the fields of the second that it is of, by the system's clock at the time; nothing when it is of
/// none. It is not turned into a second: where a clock is set back, it is of two, an hour apart.
std::pair<LocalTime, std::optional<std::tm>> readClock() {
  const std::time_t before = systemSeconds();
  const LocalTime time = localTime();
  const std::time_t after = systemSeconds();
  for (std::time_t second = before - 1; second <= after + 1; ++second) {
    const std::tm fields = *std::localtime(&second);
    if (fields.tm_year + 1900 == time.year && fields.tm_mon + 1 == time.month && fields.tm_mday == time.day &&
        fields.tm_hour == time.hour && fields.tm_min == time.minute && fields.tm_sec == time.second) {
      return {time, fields};
    }
  }
  return {time, std::nullopt};
}

TEST(Clock, tellsTheLocalTime) {
  const auto [time, second] = readClock();
  EXPECT_TRUE(second);
  EXPECT_LT(time.milliseconds, 1000);
}

TEST(Clock, tellsTheDayOfTheWeekFromSunday) {
  const auto [time, second] = readClock();
  ASSERT_TRUE(second);
  EXPECT_EQ(time.dayOfWeek, second->tm_wday);
}

TEST(Clock, canBeReplacedAndBroughtBack) {
  static constexpr LocalTime kFixed = {2024, 1, 1, 15, 9, 5, 7, 42};
  setLocalTimeSource([]() noexcept { return kFixed; });
  EXPECT_EQ(localTime(), kFixed);
  setLocalTimeSource(nullptr);
  EXPECT_NE(localTime(), kFixed);
}

}  // namespace
}  // namespace keltop::platform
