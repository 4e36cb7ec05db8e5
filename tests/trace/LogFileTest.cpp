#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Identity.h"
#include "semaphore/MutexAutoLock.h"
#include "support/OnWindows.h"
#include "support/Timing.h"
#include "support/UniqueName.h"
#include "trace/FormatTrace.h"
#include "trace/LogFile.h"
#include "trace/ThreadLogData.h"
#include "trace/TraceFolder.h"

namespace keltop {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

constexpr std::uintmax_t kFull = kFullTrace;

class LogFileTest : public TraceFolder {
 protected:
  [[nodiscard]] static std::string marker(const std::string& text, const std::string& name = "LOG1067") {
    return traceLine(name, makeRecord(1067, ThreadLogData::kMarker, text));
  }
  [[nodiscard]] static std::string opened() { return marker("File opened"); }
  [[nodiscard]] static std::string closed() { return marker("File closed"); }

  [[nodiscard]] std::string live() const { return contentOf(trace(kLive)); }

  /// Makes a file that has that size once it is opened, most of it a hole.
  void makeLive(std::uintmax_t sizeWhenOpened) const {
    writeContent(trace(kLive), "");
    fs::resize_file(trace(kLive), sizeWhenOpened - opened().size());
  }

  static platform::LocalTime at(std::uint16_t month, std::uint16_t day, std::uint16_t hour = 0) {
    return {.year = 2024, .month = month, .day = day, .hour = hour};
  }

  LogFile file_{1, 1067, "LOG1067"};
};

TEST_F(LogFileTest, openingWritesTheMarkerAndTheFirstLineOpens) {
  EXPECT_FALSE(file_.isOpen());
  file_.write("line\r\n");
  EXPECT_TRUE(file_.isOpen());
  EXPECT_EQ(live(), opened() + "line\r\n");
  file_.close();
  EXPECT_FALSE(file_.isOpen());
  EXPECT_EQ(live(), opened() + "line\r\n" + closed());
  file_.close();
  EXPECT_EQ(live(), opened() + "line\r\n" + closed()) << "closing a closed file does nothing";
}

TEST_F(LogFileTest, theMarkerIsALineOfItsOwnType) {
  std::string id;
  appendNumber(id, platform::currentProcessId(), 4);
  id += ' ';
  appendNumber(id, platform::currentThreadId(), 4);
  file_.open();
  file_.close();
  EXPECT_EQ(live(), "LOG1067 " + id + " 2024/01/15-09:05:07:042 FFFFFFFF File opened\r\n" + "LOG1067 " + id +
                        " 2024/01/15-09:05:07:042 FFFFFFFF File closed\r\n");
}

TEST_F(LogFileTest, openingAnOpenFileClosesItFirst) {
  file_.open();
  file_.open();
  EXPECT_EQ(live(), opened() + closed() + opened());
}

TEST_F(LogFileTest, anExistingFileIsContinued) {
  makeFile(trace(kLive), "before\r\n");
  file_.write("line\r\n");
  EXPECT_EQ(live(), "before\r\n" + opened() + "line\r\n");
}

TEST_F(LogFileTest, anEmptyNameIsNotOpened) {
  LogFile nameless(1, 1067, "");
  nameless.write("line\r\n");
  EXPECT_FALSE(nameless.isOpen());
  EXPECT_TRUE(filesIn(traces()).empty());
}

TEST_F(LogFileTest, theEndOfTheObjectLeavesNoMarker) {
  {
    LogFile file(1, 1067, "LOG1067");
    file.write("line\r\n");
  }
  EXPECT_EQ(live(), opened() + "line\r\n");
}

TEST_F(LogFileTest, aMissingFolderThatAppearsTakesTheNextLine) {
  fs::remove(traces());
  file_.write("lost\r\n");
  EXPECT_FALSE(file_.isOpen());
  EXPECT_FALSE(fs::exists(traces())) << "the trace folder is the installation's";
  fs::create_directory(traces());
  file_.write("line\r\n");
  EXPECT_EQ(live(), opened() + "line\r\n");
}

TEST_F(LogFileTest, aFolderInItsPlaceIsWaitedOut) {
  fs::create_directory(trace(kLive));
  file_.write("lost\r\n");
  EXPECT_FALSE(file_.isOpen());
  fs::remove(trace(kLive));
  file_.write("line\r\n");
  EXPECT_EQ(live(), opened() + "line\r\n");
}

TEST_F(LogFileTest, aDanglingLinkInItsPlaceIsWaitedOut) {
  if (onWindows()) {
    GTEST_SKIP() << "a link needs a privilege there";
  }
  fs::create_symlink(traces() / "missing" / "file", trace(kLive));
  file_.write("lost\r\n");
  EXPECT_FALSE(file_.isOpen());
  fs::create_directory(traces() / "missing");
  file_.write("line\r\n");
  EXPECT_EQ(live(), opened() + "line\r\n");
}

TEST_F(LogFileTest, aFileDeletedWhileOpenLosesALineAndIsMadeAnew) {
  if (onWindows()) {
    GTEST_SKIP() << "a file that is open cannot be deleted there";
  }
  file_.write("one\r\n");
  fs::remove(trace(kLive));
  file_.write("lost\r\n");
  EXPECT_FALSE(file_.isOpen());
  file_.write("two\r\n");
  EXPECT_EQ(live(), opened() + "two\r\n");
}

TEST_F(LogFileTest, aFileReplacedByAFolderWhileOpenIsWaitedOut) {
  if (onWindows()) {
    GTEST_SKIP() << "a file that is open cannot be replaced there";
  }
  file_.write("one\r\n");
  fs::remove(trace(kLive));
  fs::create_directory(trace(kLive));
  file_.write("lost\r\n");
  file_.write("lost\r\n");
  EXPECT_FALSE(file_.isOpen());
  fs::remove(trace(kLive));
  file_.write("two\r\n");
  EXPECT_EQ(live(), opened() + "two\r\n");
}

TEST_F(LogFileTest, aFileBelow50000000BytesIsLeftAlone) {
  makeLive(kFull - 1);
  file_.open();
  ASSERT_EQ(fs::file_size(trace(kLive)), kFull - 1);
  file_.checkSize();
  EXPECT_EQ(filesIn(traces()), Names{kLive});
  EXPECT_EQ(fs::file_size(trace(kLive)), kFull - 1);
}

TEST_F(LogFileTest, aFileOf50000000BytesIsCopiedAndEmptied) {
  makeLive(kFull);
  file_.open();
  ASSERT_EQ(fs::file_size(trace(kLive)), kFull);
  const fs::file_time_type written = fs::last_write_time(trace(kLive));
  FakeClock::set(at(1, 15, 10));
  file_.checkSize();
  EXPECT_EQ(filesIn(traces()), (Names{kCopy, kLive}));
  EXPECT_EQ(fs::file_size(trace(kCopy)), kFull);
  EXPECT_EQ(fs::last_write_time(trace(kCopy)), written);
  EXPECT_EQ(live(), opened()) << "no closed marker, a new opened one";
  EXPECT_TRUE(file_.isOpen());
  makeFile(trace("keep"), "");
  file_.checkSize();
  EXPECT_EQ(filesIn(traces()), (Names{kCopy, kLive, "keep"})) << "not full any more";
}

TEST_F(LogFileTest, theNextCopyIsNamedAfterTheTimeOfTheReopening) {
  makeLive(kFull);
  file_.open();
  FakeClock::set(at(2, 3, 4));
  file_.checkSize();
  fs::resize_file(trace(kLive), kFull);
  file_.write("line\r\n");
  file_.checkSize();
  EXPECT_EQ(filesIn(traces()), (Names{kCopy, "LOG1067-20240203040000000.ltt", kLive}));
}

TEST_F(LogFileTest, anOlderCopyOfTheSameNameIsReplaced) {
  makeFile(trace(kCopy), "older");
  makeLive(kFull);
  file_.open();
  file_.checkSize();
  EXPECT_EQ(fs::file_size(trace(kCopy)), kFull);
}

TEST_F(LogFileTest, aCopyThatCannotBeMadeLeavesEveryFileAsItIs) {
  fs::create_directory(trace(kCopy));
  for (const char* name : {"LOG1067-1.ltt", "LOG1067-2.ltt", "LOG1067-3.ltt", "LOG1067-4.ltt", "LOG1067-5.ltt"}) {
    makeFile(trace(name), "copy", 60);
  }
  makeLive(kFull);
  file_.open();
  const Names before = filesIn(traces());
  file_.checkSize();
  EXPECT_EQ(filesIn(traces()), before) << "no copy is deleted for one that was not made";
  EXPECT_EQ(fs::file_size(trace(kLive)), kFull) << "no marker";
  EXPECT_TRUE(file_.isOpen());
}

TEST_F(LogFileTest, aDayChangeWhoseCopyCannotBeMadeLeavesTheLiveFileAsItIs) {
  fs::create_directory(trace(kCopy));
  makeFile(trace("LOG1067-1.ltt"), "one");
  file_.write("yesterday\r\n");
  const std::string yesterday = live();
  FakeClock::set(at(1, 16));
  file_.changeDay();
  EXPECT_EQ(live(), yesterday);
  EXPECT_TRUE(file_.isOpen());
  EXPECT_EQ(contentOf(archive() / "LOG1067-1.ltt"), "one") << "the copies of other days have their place all the same";
  file_.write("today\r\n");
  EXPECT_EQ(live(), yesterday + "today\r\n");
}

TEST_F(LogFileTest, aCopyThatCouldNotBeMadeIsTriedAgainAfterASecond) {
  fs::create_directory(trace(kCopy));
  makeLive(kFull);
  file_.open();
  const auto before = std::chrono::steady_clock::now();
  file_.checkSize();
  fs::remove(trace(kCopy));
  while (fs::file_size(trace(kLive)) == kFull && std::chrono::steady_clock::now() - before < std::chrono::seconds(60)) {
    file_.checkSize();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - before, almost(std::chrono::seconds(1)));
  EXPECT_EQ(filesIn(traces()), (Names{kCopy, kLive}));
  EXPECT_TRUE(live() == opened());
}

TEST_F(LogFileTest, aFileDeletedWhileOpenIsNotBroughtBackByADayChange) {
  if (onWindows()) {
    GTEST_SKIP() << "a file that is open cannot be deleted there";
  }
  file_.write("one\r\n");
  fs::remove(trace(kLive));
  FakeClock::set(at(1, 16));
  file_.changeDay();
  EXPECT_TRUE(filesIn(traces()).empty());
  EXPECT_TRUE(filesIn(archive()).empty());
}

/// The two ways in which a file is copied and emptied.
class LogFileMoved : public LogFileTest, public testing::WithParamInterface<void (LogFile::*)()> {};

TEST_P(LogFileMoved, theFileThatIsEmptiedIsTheOneThatWasCopied) {
  file_.write("kept\r\n");
  if (onWindows()) {
    std::error_code refused;
    fs::rename(trace(kLive), trace("moved"), refused);
    EXPECT_TRUE(refused) << "an open file keeps its name there";
    return;
  }
  fs::rename(trace(kLive), trace("moved"));
  fs::resize_file(trace("moved"), kFull);
  file_.write("line\r\n");
  const std::string moved = contentOf(trace("moved"));
  makeFile(trace(kLive), "somebody else's\r\n");
  (file_.*GetParam())();
  const fs::path copy = fs::exists(trace(kCopy)) ? fs::path(trace(kCopy)) : archive() / kCopy;
  EXPECT_TRUE(contentOf(copy) == moved) << "the copy is another file's";
  EXPECT_EQ(fs::file_size(trace("moved")), 0U);
  EXPECT_EQ(live(), "somebody else's\r\n" + opened()) << "the next line goes where the name leads";
}

INSTANTIATE_TEST_SUITE_P(Ways, LogFileMoved, testing::Values(&LogFile::checkSize, &LogFile::changeDay));

TEST_F(LogFileTest, withoutTheRotationFlagNothingIsRotatedOrArchived) {
  LogFile plain(0, 1067, "LOG1067");
  makeFile(trace("LOG1067-1.ltt"), "");
  makeLive(kFull);
  plain.open();
  plain.checkSize();
  plain.changeDay();
  EXPECT_EQ(filesIn(traces()), (Names{"LOG1067-1.ltt", kLive}));
  EXPECT_EQ(fs::file_size(trace(kLive)), kFull);
  EXPECT_FALSE(fs::exists(archive()));
}

TEST_F(LogFileTest, aClosedFileIsNeitherRotatedNorArchived) {
  makeLive(kFull);
  makeFile(trace("LOG1067-1.ltt"), "");
  file_.checkSize();
  file_.changeDay();
  EXPECT_EQ(filesIn(traces()), (Names{"LOG1067-1.ltt", kLive}));
}

/// Copies that are there before a rotation, by age in seconds; what is left of them.
struct PruneCase {
  std::vector<std::pair<const char*, int>> copies;
  Names left;
};

void PrintTo(const PruneCase& prune, std::ostream* out) {
  *out << prune.copies.size() << " copies";
  for (const auto& [name, age] : prune.copies) {
    *out << ' ' << name << ' ' << age << 's';
  }
}

class LogFilePrune : public LogFileTest, public testing::WithParamInterface<PruneCase> {};

TEST_P(LogFilePrune, theOldestGoUntilFourFilesAreLeft) {
  for (const auto& [name, age] : GetParam().copies) {
    makeFile(trace(name), "copy", age);
  }
  makeLive(kFull);
  file_.open();
  file_.checkSize();
  Names expected = GetParam().left;
  expected.emplace_back(kCopy);
  expected.emplace_back(kLive);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(filesIn(traces()), expected);
  EXPECT_EQ(live(), opened());
}

INSTANTIATE_TEST_SUITE_P(
    Copies, LogFilePrune,
    testing::Values(PruneCase{{}, {}}, PruneCase{{{"LOG1067-1.ltt", 9}}, {"LOG1067-1.ltt"}},
                    PruneCase{{{"LOG1067-1.ltt", 9}, {"LOG1067-2.ltt", 8}}, {"LOG1067-1.ltt", "LOG1067-2.ltt"}},
                    PruneCase{{{"LOG1067-1.ltt", 7}, {"LOG1067-2.ltt", 8}, {"LOG1067-3.ltt", 9}},
                              {"LOG1067-1.ltt", "LOG1067-2.ltt"}},
                    PruneCase{{{"LOG1067-1.ltt", 9}, {"LOG1067-2.ltt", 8}, {"LOG1067-3.ltt", 7}, {"LOG1067-4.ltt", 6}},
                              {"LOG1067-3.ltt", "LOG1067-4.ltt"}},
                    PruneCase{{{"LOG1067-1.ltt", 5},
                               {"LOG1067-2.ltt", 9},
                               {"LOG1067-3.ltt", 8},
                               {"LOG1067-4.ltt", 7},
                               {"LOG1067-5.ltt", 6}},
                              {"LOG1067-1.ltt", "LOG1067-5.ltt"}},
                    PruneCase{{{"LOG1067-1.ltt", 90},
                               {"LOG1067-2.ltt", 90},
                               {"LOG1067-3.ltt", 90},
                               {"LOG1067-4.ltt", 90},
                               {"LOG1067-5.ltt", 90},
                               {"LOG1067-6.ltt", 90}},
                              {"LOG1067-5.ltt", "LOG1067-6.ltt"}},
                    // A name that only begins alike counts and goes with the others.
                    PruneCase{
                        {{"LOG10670.ltt", 99}, {"LOG1067-1.ltt", 9}, {"LOG1067-2.ltt", 8}, {"LOG1067.ltt.ltt", 100}},
                        {"LOG1067-1.ltt", "LOG1067-2.ltt"}},
                    PruneCase{{{"LOG106.ltt", 99}, {"LOG106-1.ltt", 99}, {"LOG1067-1.ltt", 9}, {"LOG1067-2.ltt", 8}},
                              {"LOG106.ltt", "LOG106-1.ltt", "LOG1067-1.ltt", "LOG1067-2.ltt"}}));

TEST_F(LogFileTest, aLiveFileOfALongerNameThatIsInUseIsNeitherDeletedNorMoved) {
  LogFile longer(1, 10670, "LOG10670");
  longer.write("line\r\n");
  fs::last_write_time(trace("LOG10670.ltt"), fs::last_write_time(trace("LOG10670.ltt")) - std::chrono::hours(1));
  for (const char* name : {"LOG1067-1.ltt", "LOG1067-2.ltt", "LOG1067-3.ltt"}) {
    makeFile(trace(name), "copy", 60);
  }
  makeLive(kFull);
  file_.open();
  file_.checkSize();
  EXPECT_TRUE(fs::exists(trace("LOG10670.ltt")));
  file_.changeDay();
  EXPECT_EQ(filesIn(traces()), (Names{kLive, "LOG10670.ltt"}));
  longer.write("more\r\n");
  EXPECT_EQ(contentOf(trace("LOG10670.ltt")), marker("File opened", "LOG10670") + "line\r\nmore\r\n");
}

TEST_F(LogFileTest, aDayChangeMovesEveryCopyToTheArchive) {
  makeFile(trace("LOG1067-1.ltt"), "one", 9);
  makeFile(trace("LOG1067-2.ltt"), "two", 8);
  makeFile(trace("LOG1068.ltt"), "other", 8);
  const fs::file_time_type written = fs::last_write_time(trace("LOG1067-1.ltt"));
  file_.write("yesterday\r\n");
  const std::string yesterday = live();
  FakeClock::set(at(1, 16));
  file_.changeDay();
  EXPECT_EQ(filesIn(traces()), (Names{kLive, "LOG1068.ltt"}));
  EXPECT_EQ(filesIn(archive()), (Names{"LOG1067-1.ltt", "LOG1067-2.ltt", kCopy}));
  EXPECT_EQ(contentOf(archive() / "LOG1067-1.ltt"), "one");
  EXPECT_EQ(fs::last_write_time(archive() / "LOG1067-1.ltt"), written);
  EXPECT_EQ(contentOf(archive() / kCopy), yesterday);
  EXPECT_EQ(live(), opened()) << "with the new day's time";
}

TEST_F(LogFileTest, anArchiveThatIsThereIsUsedAndItsFilesReplaced) {
  fs::create_directory(archive());
  makeFile(archive() / "LOG1067-1.ltt", "older");
  makeFile(trace("LOG1067-1.ltt"), "newer");
  file_.write("line\r\n");
  file_.changeDay();
  EXPECT_EQ(contentOf(archive() / "LOG1067-1.ltt"), "newer");
}

TEST_F(LogFileTest, whatCannotBeArchivedStays) {
  makeFile(archive(), "a file in the folder's place");
  makeFile(trace("LOG1067-1.ltt"), "one");
  file_.write("line\r\n");
  file_.changeDay();
  EXPECT_EQ(filesIn(traces()), (Names{"ARCHIVE", "LOG1067-1.ltt", kCopy, kLive}));
  EXPECT_EQ(live(), opened());
}

TEST_F(LogFileTest, aRotationAndADayChangeWaitForTheirTurn) {
  for (void (LogFile::*const tend)() : {&LogFile::checkSize, &LogFile::changeDay}) {
    const std::string name = "LOG" + uniqueName();
    LogFile file(1, 1067, name);
    file.write("line\r\n");
    fs::resize_file(trace(name + ".ltt"), kFull);
    file.write("line\r\n");
    const Names before = filesIn(traces());
    auto turn = std::make_unique<SEMAPHORE::MutexAutoLock>(name);
    std::future<void> tending = std::async(std::launch::async, [&file, tend] { (file.*tend)(); });
    EXPECT_TRUE(waits(tending));
    EXPECT_EQ(filesIn(traces()), before) << "no copy has been begun";
    turn.reset();
    tending.get();
    EXPECT_LT(fs::file_size(trace(name + ".ltt")), kFull);
  }
}

TEST_F(LogFileTest, aRotationDoesNotTouchTheArchive) {
  fs::create_directory(archive());
  for (const char* name : {"LOG1067-1.ltt", "LOG1067-2.ltt", "LOG1067-3.ltt", "LOG1067-4.ltt", "LOG1067-5.ltt"}) {
    makeFile(archive() / name, "old", 1000);
  }
  makeLive(kFull);
  file_.open();
  file_.checkSize();
  EXPECT_EQ(filesIn(archive()).size(), 5U);
  EXPECT_EQ(filesIn(traces()), (Names{kCopy, kLive}));
}

}  // namespace
}  // namespace keltop
