#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "trace/LogFile.h"
#include "trace/TraceFolder.h"

namespace {

std::atomic<int> commits = 0;

}  // namespace

/// Takes the C library's place in the whole test program.
extern "C" int fsync(int file) {
  ++commits;
  return static_cast<int>(::syscall(SYS_fsync, file));
}

namespace keltop {
namespace {

class Commit : public TraceFolder {
 protected:
  void write(int lines) {
    for (int i = 0; i < lines; ++i) {
      file_.write("line\r\n");
    }
  }

  int before_ = commits;
  LogFile file_{1, 1067, "LOG1067"};
};

TEST_F(Commit, every100thLineIsForcedToTheDiskMarkersIncluded) {
  write(98);
  EXPECT_EQ(commits - before_, 0) << "99 with the opened marker";
  write(1);
  EXPECT_EQ(commits - before_, 1);
  write(99);
  EXPECT_EQ(commits - before_, 1);
  write(1);
  EXPECT_EQ(commits - before_, 2);
}

TEST_F(Commit, theClosedMarkerCountsToo) {
  write(98);
  file_.close();
  EXPECT_EQ(commits - before_, 1);
}

TEST_F(Commit, aFailedWriteLeavesTheCount) {
  write(98);
  std::filesystem::remove(trace("LOG1067.ltt"));
  write(1);  // lost, and so is the closed marker
  EXPECT_EQ(commits - before_, 0);
  file_.open();
  EXPECT_EQ(commits - before_, 1) << "the opened marker is the 100th";
}

TEST_F(Commit, aRotationForcesTheFileToTheDiskFirst) {
  write(1);
  std::filesystem::resize_file(trace(kLive), kFullTrace);
  write(1);
  file_.checkSize();
  EXPECT_EQ(commits - before_, 1);
  file_.changeDay();
  EXPECT_EQ(commits - before_, 2);
}

}  // namespace
}  // namespace keltop
