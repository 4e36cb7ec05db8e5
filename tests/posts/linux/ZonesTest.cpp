#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "posts/PostValues.h"

namespace {

/// The second that the system's clock shows to this program; 0 for the true one.
std::atomic<std::time_t> shown = 0;

}  // namespace

/// In the place of the system's own. A program of its own has it, since every clock of the program is read by it.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock == CLOCK_REALTIME && shown != 0) {
    *time = {.tv_sec = shown, .tv_nsec = 0};
    return 0;
  }
  return ::timespec_get(time, TIME_UTC) == TIME_UTC ? 0 : -1;
}

namespace keltop {
namespace {

namespace fs = std::filesystem;

/// The names of the zones that the system knows, but for those that count leap seconds.
std::set<std::string> systemZones() {
  const fs::path folder = "/usr/share/zoneinfo";
  std::set<std::string> zones;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    std::array<char, 4> mark = {};
    std::ifstream(entry.path()).read(mark.data(), mark.size());
    const std::string name = entry.path().lexically_relative(folder).string();
    if (std::string(mark.data(), mark.size()) == "TZif" && !name.starts_with("right/")) {
      zones.insert(name);
    }
  }
  return zones;
}

std::string told(const PostValues& values) {
  return values.date + ' ' + values.time;
}

/// The wall clock as the C library has it.
std::string wallClock(std::time_t second) {
  std::tm fields = {};
  (void)::localtime_r(&second, &fields);
  std::array<char, 32> text = {};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%d %H:%M:%S", &fields)};
}

/// Winter, the month of Ramadan in 2026, summer, and a time when the southern summer has begun.
constexpr std::array<std::time_t, 4> kInstants = {1768478709, 1772366709, 1784117109, 1792065909};

TEST(Zones, thePayloadsDateAndTimeAreTheWallClocks) {
  const std::set<std::string> zones = systemZones();
  ASSERT_GT(zones.size(), 300U) << "the system's zones are not installed";
  for (const std::string& zone : zones) {
    (void)::setenv("TZ", zone.c_str(), 1);
    ::tzset();
    for (const std::time_t instant : kInstants) {
      shown = instant;
      const std::string now = told(gatherValues({}, {}));
      shown = 0;
      EXPECT_EQ(now, wallClock(instant)) << zone;
    }
  }
}

/// The test's own reference, by hand.
TEST(Zones, winterInDublinIsGreenwichTime) {
  (void)::setenv("TZ", "Europe/Dublin", 1);
  ::tzset();
  EXPECT_EQ(wallClock(kInstants[0]), "20260115 12:05:09");
}

}  // namespace
}  // namespace keltop
