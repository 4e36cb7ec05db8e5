#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "trace/ModuleFileName.h"

namespace keltop {
namespace {

ModuleName row(std::uint32_t module, std::string_view shortName) {
  ModuleName name = {.module = module};
  std::copy(shortName.begin(), shortName.end(), name.texts.begin());
  return name;
}

TEST(ModuleFileName, linesHaveTheirNumberInThreeDigits) {
  EXPECT_EQ(moduleFileName(5, ""), "LINE005");
  EXPECT_EQ(moduleFileName(999, ""), "LINE999");
  EXPECT_EQ(moduleFileName(7, "ABC"), "ABC-007");
}

TEST(ModuleFileName, othersAreNamedByTheirNumber) {
  EXPECT_EQ(moduleFileName(1000, ""), "LOG1000");
  EXPECT_EQ(moduleFileName(1067, ""), "LOG1067");
  EXPECT_EQ(moduleFileName(1099, ""), "LOG1099");
  EXPECT_EQ(moduleFileName(1300, ""), "LOG1300");
  EXPECT_EQ(moduleFileName(4294967295U, ""), "LOG4294967295");
}

TEST(ModuleFileName, hostelsReachUpTo1299AndHideTheRangeBehindThem) {
  EXPECT_EQ(moduleFileName(1100, ""), "HOSTEL1");
  EXPECT_EQ(moduleFileName(1199, ""), "HOSTEL100");
  EXPECT_EQ(moduleFileName(1200, ""), "HOSTEL101");
  EXPECT_EQ(moduleFileName(1299, ""), "HOSTEL200");
}

TEST(ModuleFileName, aGivenNameReplacesTheMadeUpOne) {
  EXPECT_EQ(moduleFileName(1067, "KELTOP"), "KELTOP");
  EXPECT_EQ(moduleFileName(1200, "X"), "X");
}

TEST(ModuleFileName, aRowOfTheTableGivesItsShortName) {
  ModuleName second = row(1150, "SHORT");
  second.texts[6] = 'L';  // the long name follows the zero byte
  const std::array<ModuleName, 2> table = {row(1067, "FIRST"), second};
  EXPECT_EQ(moduleFileName(1067, "", table), "FIRST");
  EXPECT_EQ(moduleFileName(1150, "", table), "SHORT");
  EXPECT_EQ(moduleFileName(1150, "GIVEN", table), "GIVEN");
  EXPECT_EQ(moduleFileName(1151, "", table), "HOSTEL52");
  EXPECT_TRUE(moduleNames().empty());
}

TEST(ModuleFileName, linesAreNotLookedUpInTheTable) {
  const std::array<ModuleName, 1> table = {row(7, "SEVEN")};
  EXPECT_EQ(moduleFileName(7, "", table), "LINE007");
}

}  // namespace
}  // namespace keltop
