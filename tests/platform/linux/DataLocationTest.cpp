#include <gtest/gtest.h>

#include "platform/linux/DataLocation.h"
#include "support/TemporaryFolder.h"

namespace keltop::platform {
namespace {

class DataLocation : public testing::Test {
 protected:
  [[nodiscard]] std::string from(const char* environment, const char* settings) const {
    writeContent(folder_ / "conf", settings);
    return dataLocationFrom(environment, folder_ / "conf");
  }

  TemporaryFolder folder_;
};

TEST_F(DataLocation, theEnvironmentWinsWhenItIsNotEmpty) {
  EXPECT_EQ(from("/env", "DataLocation=/conf\n"), "/env");
  EXPECT_EQ(from("", "DataLocation=/conf\n"), "/conf");
  EXPECT_EQ(from(nullptr, "DataLocation=/conf\n"), "/conf");
}

TEST_F(DataLocation, theFallbackFollowsAMissingFileKeyOrValue) {
  EXPECT_EQ(dataLocationFrom(nullptr, folder_ / "missing"), "/var/lib/vs");
  EXPECT_EQ(dataLocationFrom(nullptr, folder_.path().string()), "/var/lib/vs");
  EXPECT_EQ(from(nullptr, ""), "/var/lib/vs");
  EXPECT_EQ(from(nullptr, "Other=/a\nDataLocations=/b\ndatalocation=/c\nDataLocation\n#DataLocation=/d\n"),
            "/var/lib/vs");
  EXPECT_EQ(from(nullptr, "DataLocation=\n"), "/var/lib/vs");
}

TEST_F(DataLocation, theKeyIsFoundInAnyLine) {
  EXPECT_EQ(from(nullptr, "Other=1\n\nDataLocation = /data/a=b c \r\nDataLocation=/second\n"), "/data/a=b c");
  EXPECT_EQ(from(nullptr, "DataLocation=/no/line/end"), "/no/line/end");
}

TEST_F(DataLocation, theFileIsReadAfresh) {
  EXPECT_EQ(from(nullptr, "DataLocation=/one\n"), "/one");
  EXPECT_EQ(from(nullptr, "DataLocation=/two\n"), "/two");
}

}  // namespace
}  // namespace keltop::platform
