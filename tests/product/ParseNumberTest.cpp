#include <gtest/gtest.h>

#include "product/ParseNumber.h"

namespace keltop {
namespace {

TEST(ParseNumber, takesLeadingBlanksASignAndDigits) {
  EXPECT_EQ(parseNumber("80"), 80);
  EXPECT_EQ(parseNumber(" \t\n\v\f\r+7"), 7);
  EXPECT_EQ(parseNumber("-3"), -3);
  EXPECT_EQ(parseNumber("007"), 7);
}

TEST(ParseNumber, stopsAtTheFirstOtherCharacter) {
  EXPECT_EQ(parseNumber("80x"), 80);
  EXPECT_EQ(parseNumber("12 34"), 12);
  EXPECT_EQ(parseNumber("0x10"), 0);
}

TEST(ParseNumber, withoutDigitsItIsZero) {
  EXPECT_EQ(parseNumber(""), 0);
  EXPECT_EQ(parseNumber("x"), 0);
  EXPECT_EQ(parseNumber("- 5"), 0);
}

TEST(ParseNumber, beyondTheRangeItIsTheNearestLimit) {
  EXPECT_EQ(parseNumber("2147483647"), 2147483647);
  EXPECT_EQ(parseNumber("2147483648"), 2147483647);
  EXPECT_EQ(parseNumber("99999999999999999999999"), 2147483647);
  EXPECT_EQ(parseNumber("-2147483649"), -2147483647 - 1);
}

}  // namespace
}  // namespace keltop
