#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sendfile.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "trace/LogFile.h"
#include "trace/TraceFolder.h"

namespace {

/// What the calling thread asked of the disk, in order; of a file that was removed the name, too.
thread_local std::vector<std::string> calls;

}  // namespace

// These take the C library's places in the whole test program.
extern "C" {

int fsync(int file) {
  calls.emplace_back("commit");
  return static_cast<int>(::syscall(SYS_fsync, file));
}

int ftruncate(int file, off_t size) noexcept {
  if (size == 0) {
    calls.emplace_back("empty");
  }
  return static_cast<int>(::syscall(SYS_ftruncate, file, size));
}

ssize_t sendfile(int to, int from, off_t* offset, std::size_t count) noexcept {
  if (calls.empty() || calls.back() != "copy") {  // the last call only finds the end
    calls.emplace_back("copy");
  }
  return static_cast<ssize_t>(::syscall(SYS_sendfile, to, from, offset, count));
}

int unlink(const char* path) noexcept {
  if (const std::string_view name(path); name.ends_with(".ltt")) {  // the other ones are machine-wide objects' files
    calls.emplace_back("remove ").append(name.substr(name.rfind('/') + 1));
  }
  return static_cast<int>(::syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

/// Under another name here: where calls are checked, the C library's is defined in its header.
int openNoted(const char* path, int flags, ...) __asm__("open64");
int openNoted(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  // Those that do not follow links only look whether somebody writes the file.
  if (std::string_view(path).ends_with("/LOG1067.ltt") && (flags & O_NOFOLLOW) == 0) {
    calls.emplace_back((flags & O_ACCMODE) == O_RDONLY ? "probe" : "open");
  }
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int mkdir(const char* path, mode_t mode) noexcept {
  calls.emplace_back("folder");
  return static_cast<int>(::syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}
}

namespace keltop {
namespace {

using Calls = std::vector<std::string>;

class Commit : public TraceFolder {
 protected:
  Commit() { calls.clear(); }

  void write(int lines) {
    for (int i = 0; i < lines; ++i) {
      file_.write("line\r\n");
    }
  }

  void fill() {
    write(1);
    std::filesystem::resize_file(trace(kLive), kFullTrace);
    write(1);
    calls.clear();
  }

  static Calls taken() { return std::exchange(calls, {}); }
  static std::ptrdiff_t commits() { return std::count(calls.begin(), calls.end(), "commit"); }

  LogFile file_{1, 1067, "LOG1067"};
};

TEST_F(Commit, every100thLineIsForcedToTheDiskMarkersIncluded) {
  write(98);
  EXPECT_EQ(commits(), 0) << "99 with the opened marker";
  write(1);
  EXPECT_EQ(commits(), 1);
  write(99);
  EXPECT_EQ(commits(), 1);
  write(1);
  EXPECT_EQ(commits(), 2);
}

TEST_F(Commit, theClosedMarkerCountsToo) {
  write(98);
  file_.close();
  EXPECT_EQ(commits(), 1);
}

TEST_F(Commit, aFailedWriteLeavesTheCount) {
  write(98);
  std::filesystem::remove(trace("LOG1067.ltt"));
  write(1);  // lost, and so is the closed marker
  EXPECT_EQ(commits(), 0);
  file_.open();
  EXPECT_EQ(commits(), 1) << "the opened marker is the 100th";
}

TEST_F(Commit, aRotationRemovesForcesCopiesEmptiesAndThenDeletesTheOldest) {
  for (int i = 1; i <= 4; ++i) {
    makeFile(trace("LOG1067-" + std::to_string(i) + ".ltt"), "copy", 10 - i);
  }
  makeFile(trace(kCopy), "in the copy's place");
  fill();
  file_.checkSize();
  EXPECT_EQ(taken(), (Calls{std::string("remove ") + kCopy, "commit", "copy", "empty", "remove LOG1067-1.ltt",
                            "remove LOG1067-2.ltt", "probe", "open"}));
}

TEST_F(Commit, aDayChangeEmptiesTheFileBeforeItMovesTheCopiesOldestFirst) {
  makeFile(trace("LOG1067-1.ltt"), "copy", 8);
  makeFile(trace("LOG1067-2.ltt"), "copy", 9);
  fill();
  file_.changeDay();
  EXPECT_EQ(taken(),
            (Calls{std::string("remove ") + kCopy, "commit", "copy", "empty", "folder", "copy", "remove LOG1067-2.ltt",
                   "copy", "remove LOG1067-1.ltt", "copy", std::string("remove ") + kCopy, "probe", "open"}));
}

TEST_F(Commit, theFileIsProbedBeforeItIsOpened) {
  makeFile(trace(kLive), "");
  calls.clear();
  file_.open();
  EXPECT_EQ(taken(), (Calls{"probe", "open"}));
}

TEST_F(Commit, aCopyThatCouldNotBeMadeIsNotTriedAgainWithEveryPass) {
  std::filesystem::create_directory(trace(kCopy));
  fill();
  const auto before = std::chrono::steady_clock::now();
  for (int pass = 0; pass < 50; ++pass) {
    file_.checkSize();
  }
  const auto lasted = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - before);
  EXPECT_LE(commits(), 1 + lasted.count());
}

}  // namespace
}  // namespace keltop
