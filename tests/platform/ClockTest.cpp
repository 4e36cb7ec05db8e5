#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "platform/Clock.h"

namespace keltop::platform {
namespace {

std::time_t secondsOf(const LocalTime& time) {
  std::tm fields = {};
  fields.tm_year = time.year - 1900;
  fields.tm_mon = time.month - 1;
  fields.tm_mday = time.day;
  fields.tm_hour = time.hour;
  fields.tm_min = time.minute;
  fields.tm_sec = time.second;
  fields.tm_isdst = -1;
  return std::mktime(&fields);
}

TEST(Clock, tellsTheLocalTime) {
  const std::time_t before = std::time(nullptr);
  const LocalTime now = localTime();
  const std::time_t after = std::time(nullptr);
  EXPECT_GE(secondsOf(now), before);
  EXPECT_LE(secondsOf(now), after);
  EXPECT_LT(now.milliseconds, 1000);
  EXPECT_LT(now.dayOfWeek, 7);
}

TEST(Clock, tellsTheDayOfTheWeekFromSunday) {
  const LocalTime now = localTime();
  const std::time_t seconds = secondsOf(now);
  EXPECT_EQ(now.dayOfWeek, std::localtime(&seconds)->tm_wday);
}

TEST(Clock, canBeReplacedAndBroughtBack) {
  static constexpr LocalTime kFixed = {2024, 1, 1, 15, 9, 5, 7, 42};
  setLocalTimeSource([]() noexcept { return kFixed; });
  EXPECT_EQ(localTime(), kFixed);
  setLocalTimeSource(nullptr);
  EXPECT_GE(localTime().year, 2025);
}

}  // namespace
}  // namespace keltop::platform
