#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/Files.h"
#include "support/OnWindows.h"
#include "support/TemporaryFolder.h"
#include "support/Timing.h"

namespace keltop::platform {
namespace {

namespace fs = std::filesystem;

class Files : public testing::Test {
 protected:
  [[nodiscard]] FileHandle open(const std::string& name) const { return openSharedAppend(folder_ / name); }

  [[nodiscard]] std::vector<std::string> find(const std::string& pattern) const {
    std::vector<std::string> names;
    for (const FoundFile& file : findFiles(folder_.path().string(), pattern)) {
      names.push_back(file.name);
    }
    return names;
  }

  TemporaryFolder folder_;
};

TEST_F(Files, openingMakesAMissingFileAndKeepsAnExistingOne) {
  const FileHandle first = open("a");
  ASSERT_NE(first, kNoFile);
  EXPECT_TRUE(appendToFile(first, "one"));
  const FileHandle second = open("a");
  EXPECT_TRUE(appendToFile(second, "two"));
  EXPECT_TRUE(appendToFile(first, "three"));
  EXPECT_TRUE(closeFile(first));
  EXPECT_TRUE(closeFile(second));
  EXPECT_EQ(contentOf(folder_ / "a"), "onetwothree");
}

TEST_F(Files, openingFailsWhereNoFileCanBe) {
  EXPECT_EQ(open("missing/a"), kNoFile);
  fs::create_directory(folder_ / "folder");
  EXPECT_EQ(open("folder"), kNoFile);
}

TEST_F(Files, theProbeOpensOnlyWhatIsThereAndLeavesIt) {
  EXPECT_FALSE(probeFile(folder_ / "a"));
  EXPECT_FALSE(pathExists(folder_ / "a"));
  writeContent(folder_ / "a", "text");
  EXPECT_TRUE(probeFile(folder_ / "a"));
  EXPECT_EQ(contentOf(folder_ / "a"), "text");
}

TEST_F(Files, thePositionIsTheEndOfTheLastWrite) {
  writeContent(folder_ / "a", "0123456789");
  const FileHandle file = open("a");
  EXPECT_TRUE(appendToFile(file, "abc"));
  EXPECT_EQ(tellFile(file), 13);
  EXPECT_TRUE(truncateFile(file, 0));
  EXPECT_EQ(tellFile(file), 0) << "emptied: not beyond the end";
  EXPECT_TRUE(appendToFile(file, "x"));
  EXPECT_EQ(contentOf(folder_ / "a"), "x");
  EXPECT_TRUE(commitFile(file));
  closeFile(file);
}

TEST_F(Files, operationsOnNoFileFail) {
  EXPECT_FALSE(appendToFile(kNoFile, "x"));
  EXPECT_FALSE(commitFile(kNoFile));
  EXPECT_FALSE(closeFile(kNoFile));
  EXPECT_FALSE(truncateFile(kNoFile, 0));
  EXPECT_EQ(tellFile(kNoFile), -1);
}

TEST_F(Files, nothingWrittenBesideACopyAndItsTruncationIsLost) {
  constexpr int kTexts = 20'000;
  constexpr int kMoves = 3;
  const FileHandle writer = open("a");
  const FileHandle mover = open("a");
  std::atomic<int> moves = 0;
  std::atomic<bool> done = false;
  std::uintmax_t written = 0;
  std::thread writing([&] {
    while (written < kTexts || (moves < kMoves && written < 1000 * kTexts)) {
      EXPECT_TRUE(appendToFile(writer, "x"));
      ++written;
    }
    done = true;
  });
  std::uintmax_t moved = 0;
  while (!done) {
    const AppendGate gate(mover);
    EXPECT_TRUE(copyFile(folder_ / "a", folder_ / "b"));
    EXPECT_TRUE(truncateFile(mover, 0));
    const std::uintmax_t size = fs::file_size(folder_ / "b");
    moved += size;
    moves += size > 0 ? 1 : 0;
  }
  writing.join();
  EXPECT_GE(moves, kMoves) << "the two ran one after the other";
  EXPECT_EQ(moved + fs::file_size(folder_ / "a"), written);
  closeFile(writer);
  closeFile(mover);
}

TEST_F(Files, whoHoldsTheGateKeepsOthersFromAppending) {
  const FileHandle holder = open("a");
  const FileHandle other = open("a");
  std::future<bool> appended;
  {
    const AppendGate gate(holder);
    appended = std::async(std::launch::async, [other] { return appendToFile(other, "line"); });
    EXPECT_TRUE(waits(appended));
    EXPECT_EQ(fs::file_size(folder_ / "a"), 0U);
  }
  EXPECT_TRUE(appended.get());
  EXPECT_EQ(contentOf(folder_ / "a"), "line");
  EXPECT_TRUE(closeFile(holder));
  EXPECT_TRUE(closeFile(other));
}

TEST_F(Files, aCopyReplacesAndKeepsTheWriteTime) {
  writeContent(folder_ / "a", "content");
  writeContent(folder_ / "b", "longer than before");
  const auto written = fs::last_write_time(folder_ / "a") - std::chrono::hours(1000);
  fs::last_write_time(folder_ / "a", written);
  ASSERT_TRUE(copyFile(folder_ / "a", folder_ / "b"));
  EXPECT_EQ(contentOf(folder_ / "b"), "content");
  EXPECT_EQ(fs::last_write_time(folder_ / "b"), written);
  EXPECT_EQ(contentOf(folder_ / "a"), "content");
}

TEST_F(Files, aCopyThatCannotBeMadeLeavesNothing) {
  EXPECT_FALSE(copyFile(folder_ / "missing", folder_ / "b"));
  EXPECT_FALSE(pathExists(folder_ / "b"));
  writeContent(folder_ / "a", "content");
  EXPECT_FALSE(copyFile(folder_ / "a", folder_ / "missing/b"));
  fs::create_directory(folder_ / "folder");
  EXPECT_FALSE(copyFile(folder_ / "folder", folder_ / "b"));
  EXPECT_FALSE(pathExists(folder_ / "b"));
}

TEST_F(Files, onlyFilesThatNobodyAppendsToAreRemoved) {
  fs::create_directory(folder_ / "folder");
  EXPECT_FALSE(removeFile(folder_ / "folder"));
  EXPECT_FALSE(removeFile(folder_ / "missing"));
  const FileHandle file = open("a");
  EXPECT_FALSE(removeFile(folder_ / "a"));
  EXPECT_TRUE(pathExists(folder_ / "a"));
  closeFile(file);
  EXPECT_TRUE(removeFile(folder_ / "a"));
  EXPECT_FALSE(pathExists(folder_ / "a"));
}

TEST_F(Files, oneFolderLevelIsMade) {
  EXPECT_FALSE(makeFolder(folder_ / "a/b"));
  EXPECT_TRUE(makeFolder(folder_ / "a"));
  EXPECT_FALSE(makeFolder(folder_ / "a"));
  EXPECT_TRUE(fs::is_directory(folder_ / "a"));
}

TEST_F(Files, aSearchFindsMatchingFilesAndNoFolders) {
  for (const char* name : {"LOG1067.ltt", "LOG1067-2.ltt", "LOG106.ltt", "XLOG1067.ltt", "LOG1067.ltx"}) {
    writeContent(folder_ / name, "12345");
  }
  fs::create_directory(folder_ / "LOG1067-folder.ltt");
  EXPECT_EQ(find("LOG1067*.ltt"), (std::vector<std::string>{"LOG1067-2.ltt", "LOG1067.ltt"}));
  EXPECT_EQ(find("LOG106*.ltt"), (std::vector<std::string>{"LOG106.ltt", "LOG1067-2.ltt", "LOG1067.ltt"}));
  EXPECT_EQ(find("?LOG1067.ltt"), std::vector<std::string>{"XLOG1067.ltt"});
  EXPECT_EQ(find("none*"), std::vector<std::string>{});
  EXPECT_TRUE(findFiles(folder_ / "missing", "*").empty());
}

TEST_F(Files, aSearchTellsTimesAndSize) {
  writeContent(folder_ / "a", "12345");
  const auto now =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
  fs::last_write_time(folder_ / "a", fs::last_write_time(folder_ / "a") - std::chrono::seconds(86400));
  const std::vector<FoundFile> found = findFiles(folder_.path().string(), "a");
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].size, 5U);
  EXPECT_NEAR(static_cast<double>(found[0].written), static_cast<double>(now - 86400), 30);
  if (!onWindows()) {  // Wine 8.0 and 10.0 tell the time of writing instead
    EXPECT_NEAR(static_cast<double>(found[0].created), static_cast<double>(now), 30);
  }
  EXPECT_NEAR(static_cast<double>(found[0].accessed), static_cast<double>(now), 30);
}

}  // namespace
}  // namespace keltop::platform
