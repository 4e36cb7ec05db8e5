#include <gtest/gtest.h>

#include "trace/BuildPath.h"
#include "trace/TraceFolder.h"

namespace keltop {
namespace {

class BuildPath : public TraceFolder {};

TEST_F(BuildPath, eachPartGetsASeparatorUnlessItHasOne) {
  const std::string data = data_.path().string();
  const std::string s(1, platform::pathSeparator());
  EXPECT_EQ(buildPath("A"), data + s + "A");
  EXPECT_EQ(buildPath(s + "A", "b"), data + s + "A" + s + "b");
  EXPECT_EQ(buildPath("A", s + "b", "c", "d"), data + s + "A" + s + "b" + s + "c" + s + "d");
}

TEST_F(BuildPath, emptyPartsAreLeftOut) {
  const std::string data = data_.path().string();
  EXPECT_EQ(buildPath(""), data);
  EXPECT_EQ(buildPath("", "b", "", "d"), data + platform::pathSeparator() + "b" + platform::pathSeparator() + "d");
}

TEST_F(BuildPath, theDataLocationIsLookedUpEachTime) {
  platform::setDataLocationSource([]() -> std::string { return "one"; });
  EXPECT_EQ(buildPath(""), "one");
  platform::setDataLocationSource([]() -> std::string { return "two"; });
  EXPECT_EQ(buildPath(""), "two");
}

}  // namespace
}  // namespace keltop
