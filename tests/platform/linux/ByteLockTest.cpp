#include <fcntl.h>
#include <gtest/gtest.h>

#include "platform/linux/ByteLock.h"
#include "platform/linux/FileDescriptor.h"
#include "support/TemporaryFolder.h"

namespace keltop::platform {
namespace {

constexpr std::int64_t kByte = 4096;

TEST(ByteLock, tellsOpenFilesApart) {
  const TemporaryFolder folder;
  writeContent(folder / "a", {});
  const FileDescriptor one(::open((folder / "a").c_str(), O_RDWR | O_CLOEXEC));
  const FileDescriptor two(::open((folder / "a").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(byteLockedElsewhere(two.get(), kByte), false);
  EXPECT_TRUE(setByteLock(one.get(), kByte, F_WRLCK));
  EXPECT_EQ(byteLockedElsewhere(two.get(), kByte), true);
  EXPECT_EQ(byteLockedElsewhere(one.get(), kByte), false) << "its own lock is not another's";
  EXPECT_FALSE(setByteLock(two.get(), kByte, F_RDLCK));
  EXPECT_TRUE(setByteLock(one.get(), kByte, F_UNLCK));
  EXPECT_TRUE(waitForByteLock(two.get(), kByte));
}

TEST(ByteLock, onNoFileFailsWithoutWaiting) {
  EXPECT_FALSE(setByteLock(-1, kByte, F_WRLCK));
  EXPECT_FALSE(waitForByteLock(-1, kByte));
  EXPECT_EQ(byteLockedElsewhere(-1, kByte), std::nullopt);
}

}  // namespace
}  // namespace keltop::platform
