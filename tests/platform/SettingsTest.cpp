#include <gtest/gtest.h>

#include "platform/Settings.h"

namespace keltop::platform {
namespace {

TEST(Settings, theDataLocationCanBeReplacedAndBroughtBack) {
  const std::string before = dataLocation();
  EXPECT_FALSE(before.empty());
  setDataLocationSource([]() -> std::string { return "elsewhere"; });
  EXPECT_EQ(dataLocation(), "elsewhere");
  setDataLocationSource(nullptr);
  EXPECT_EQ(dataLocation(), before);
}

}  // namespace
}  // namespace keltop::platform
