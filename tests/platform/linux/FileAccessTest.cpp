#include <gtest/gtest.h>

#include <filesystem>

#include "platform/FileAccess.h"
#include "support/TemporaryFolder.h"

namespace keltop::platform {

using std::filesystem::perms;

TEST(FileAccess, tellsWhetherOthersMayRead) {
  const TemporaryFolder folder;
  const std::string path = folder / "key.pem";
  writeContent(path, "key");
  std::filesystem::permissions(path, perms::owner_read | perms::owner_write);
  EXPECT_FALSE(othersMayRead(path));
  for (const perms more : {perms::others_read, perms::group_read}) {
    std::filesystem::permissions(path, perms::owner_read | more);
    EXPECT_TRUE(othersMayRead(path));
  }
}

}  // namespace keltop::platform
