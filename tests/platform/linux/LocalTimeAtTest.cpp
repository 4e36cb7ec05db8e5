#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/linux/LocalTimeAt.h"

namespace keltop::platform {
namespace {

/// A zone of this process for the life of this object.
class Zone {
 public:
  explicit Zone(const char* zone) {
    if (const char* const before = std::getenv(kVariable); before != nullptr) {
      before_ = before;
    }
    use(zone);
  }
  ~Zone() { use(before_.empty() ? nullptr : before_.c_str()); }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  static constexpr const char* kVariable = "TZ";

  static void use(const char* zone) {
    if (zone == nullptr) {
      ::unsetenv(kVariable);
    } else {
      ::setenv(kVariable, zone, 1);
    }
    ::tzset();
  }

  std::string before_;
};

constexpr long kLastMillisecond = 999'999'999;

LocalTime clockTime(std::uint16_t hour, std::uint16_t minute, std::uint16_t second, std::uint16_t milliseconds) {
  return {.hour = hour, .minute = minute, .second = second, .milliseconds = milliseconds};
}

/// Rules written out, so that no data of the system's zones are needed: the last second before a change of the offset,
/// and the first of the new one.
struct Change {
  const char* what;
  const char* zone;
  std::time_t second;  ///< the first with the new offset
  LocalTime before;
  LocalTime after;
};

void PrintTo(const Change& change, std::ostream* out) {
  *out << change.what;
}

class OffsetChange : public testing::TestWithParam<Change> {
 protected:
  static void expectClock(const LocalTime& time, const LocalTime& expected) {
    EXPECT_EQ(clockTime(time.hour, time.minute, time.second, time.milliseconds), expected);
  }
};

TEST_P(OffsetChange, takesEffectWithItsFirstMillisecond) {
  const Zone zone(GetParam().zone);
  const std::time_t second = GetParam().second;
  for (int turn = 0; turn < 2; ++turn) {  // the second time the clock is set back
    (void)localTimeAt({second - 1, 0});
    expectClock(localTimeAt({second - 1, kLastMillisecond}), GetParam().before);
    expectClock(localTimeAt({second, 0}), GetParam().after);
    const LocalTime later = localTimeAt({second, kLastMillisecond});
    EXPECT_EQ(later.milliseconds, 999);
    EXPECT_EQ(later.hour, GetParam().after.hour);
  }
}

INSTANTIATE_TEST_SUITE_P(Zones, OffsetChange,
                         testing::Values(Change{"spring, an hour", "CET-1CEST,M3.5.0,M10.5.0/3", 1711846800,
                                                clockTime(1, 59, 59, 999), clockTime(3, 0, 0, 0)},
                                         Change{"autumn, an hour", "CET-1CEST,M3.5.0,M10.5.0/3", 1729990800,
                                                clockTime(2, 59, 59, 999), clockTime(2, 0, 0, 0)},
                                         Change{"half an hour", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 1728142200,
                                                clockTime(1, 59, 59, 999), clockTime(2, 30, 0, 0)},
                                         Change{"in mid-minute", "AAA0BBB-0:00:30,J60/0:00:17,J300/0", 1709251217,
                                                clockTime(0, 0, 16, 999), clockTime(0, 0, 47, 0)}));

TEST(LocalTimeAt, isTheSystemsCalendarWhateverTheOrderOfTheInstants) {
  const Zone zone("NST3:30NDT,M3.2.0,M11.1.0");
  const std::time_t start = 1704067200;
  for (const std::time_t offset : {0, 86'400 * 70, 59, 60, 3'599, 3'600, -1, 0, 31'622'399, 1}) {
    const std::time_t second = start + offset;
    const std::tm expected = *std::localtime(&second);
    const LocalTime time = localTimeAt({second, 42'000'000});
    EXPECT_EQ(time.year, expected.tm_year + 1900);
    EXPECT_EQ(time.month, expected.tm_mon + 1);
    EXPECT_EQ(time.dayOfWeek, expected.tm_wday);
    EXPECT_EQ(time.day, expected.tm_mday);
    EXPECT_EQ(time.hour, expected.tm_hour);
    EXPECT_EQ(time.minute, expected.tm_min);
    EXPECT_EQ(time.second, expected.tm_sec);
    EXPECT_EQ(time.milliseconds, 42);
  }
}

}  // namespace
}  // namespace keltop::platform
