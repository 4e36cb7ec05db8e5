#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "platform/Files.h"
#include "support/ResourceLimit.h"
#include "support/TemporaryFolder.h"

namespace keltop::platform {
namespace {

namespace fs = std::filesystem;

TEST(LinuxFiles, aFileDeletedWhileOpenTakesNothingMore) {
  const TemporaryFolder folder;
  const FileHandle file = openSharedAppend(folder / "a");
  EXPECT_TRUE(appendToFile(file, "x"));
  ASSERT_EQ(::unlink((folder / "a").c_str()), 0);
  EXPECT_FALSE(appendToFile(file, "y"));
  closeFile(file);
}

TEST(LinuxFiles, aPipeInTheFilesPlaceIsNotOpened) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo((folder / "a").c_str(), 0600), 0);
  EXPECT_EQ(openSharedAppend(folder / "a"), kNoFile);
  EXPECT_TRUE(removeFile(folder / "a"));
}

TEST(LinuxFiles, aDanglingLinkIsFollowedOnceItsFolderIsThere) {
  const TemporaryFolder folder;
  fs::create_symlink(folder / "other/a", folder / "a");
  EXPECT_EQ(openSharedAppend(folder / "a"), kNoFile);
  fs::create_directory(folder / "other");
  const FileHandle file = openSharedAppend(folder / "a");
  EXPECT_TRUE(appendToFile(file, "x"));
  EXPECT_EQ(contentOf(folder / "other/a"), "x");
  closeFile(file);
}

TEST(LinuxFiles, aTextThatHasRoomInPartIsTakenBack) {
  const TemporaryFolder folder;
  const FileHandle file = openSharedAppend(folder / "a");
  EXPECT_TRUE(appendToFile(file, "one"));
  {
    const ResourceLimit full(RLIMIT_FSIZE, 5);
    EXPECT_FALSE(appendToFile(file, "two"));
    EXPECT_EQ(contentOf(folder / "a"), "one");
  }
  EXPECT_TRUE(appendToFile(file, "three"));
  EXPECT_EQ(contentOf(folder / "a"), "onethree");
  closeFile(file);
}

TEST(LinuxFiles, aCopyThatHasNoRoomLeavesNothing) {
  const TemporaryFolder folder;
  writeContent(folder / "a", "content");
  const ResourceLimit full(RLIMIT_FSIZE, 5);
  EXPECT_FALSE(copyFile(folder / "a", folder / "b"));
  EXPECT_FALSE(fs::exists(folder / "b"));
}

TEST(LinuxFiles, whatIsMadeIsEverybodysWhateverTheUmaskSays) {
  const TemporaryFolder folder;
  const mode_t usual = ::umask(077);
  const FileHandle file = openSharedAppend(folder / "a");
  EXPECT_TRUE(copyFile(folder / "a", folder / "b"));
  EXPECT_TRUE(makeFolder(folder / "c"));
  ::umask(usual);
  for (const char* name : {"a", "b"}) {
    EXPECT_EQ(fs::status(folder / name).permissions(), fs::perms{0666}) << name;
  }
  EXPECT_EQ(fs::status(folder / "c").permissions(), fs::perms{01777});
  closeFile(file);
}

TEST(LinuxFiles, aSearchLeavesOutLinksToNowhere) {
  const TemporaryFolder folder;
  fs::create_symlink(folder / "missing", folder / "a");
  EXPECT_TRUE(findFiles(folder.path().string(), "*").empty());
}

volatile std::sig_atomic_t grewTooLarge = 0;

TEST(LinuxFiles, aDeviceWithoutAnEndIsNotCopied) {
  const TemporaryFolder folder;
  fs::create_symlink("/dev/zero", folder / "zero");
  rlimit usual = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &usual), 0);
  const rlimit small = {1'000'000, usual.rlim_max};
  const auto before = std::signal(SIGXFSZ, [](int) { grewTooLarge = 1; });
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_FALSE(copyFile(folder / "zero", folder / "copy"));
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &usual), 0);
  (void)std::signal(SIGXFSZ, before);
  EXPECT_EQ(grewTooLarge, 0);
  EXPECT_FALSE(pathExists(folder / "copy"));
}

TEST(LinuxFiles, nothingIsCopiedToWhatKeepsNothing) {
  const TemporaryFolder folder;
  writeContent(folder / "a", "x");
  fs::create_symlink("/dev/null", folder / "null");
  EXPECT_FALSE(copyFile(folder / "a", folder / "null"));
  EXPECT_TRUE(fs::is_symlink(folder / "null"));
}

}  // namespace
}  // namespace keltop::platform
