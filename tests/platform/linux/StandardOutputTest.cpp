#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <thread>

#include "platform/StandardOutput.h"
#include "platform/linux/FileDescriptor.h"

namespace keltop::platform {
namespace {

/// Leads the process's standard output somewhere else for its life.
class LedAway {
 public:
  explicit LedAway(int descriptor) : before_((std::fflush(stdout), ::dup(STDOUT_FILENO))) {
    EXPECT_EQ(::dup2(descriptor, STDOUT_FILENO), STDOUT_FILENO);
  }
  ~LedAway() { (void)::dup2(before_.get(), STDOUT_FILENO); }
  LedAway(const LedAway&) = delete;
  LedAway& operator=(const LedAway&) = delete;

 private:
  FileDescriptor before_;
};

TEST(LinuxStandardOutput, isWrittenWholeAlsoWhereSomebodyMadeItNonBlocking) {
  std::array<int, 2> ends = {};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  ASSERT_EQ(::fcntl(readEnd.get(), F_SETFL, 0), 0);
  const std::string text(1'000'000, 'x');  // more than a pipe holds
  std::string got;
  std::thread reader([&] {
    std::array<char, 4096> piece;
    for (ssize_t count = 0; (count = ::read(readEnd.get(), piece.data(), piece.size())) > 0;) {
      got.append(piece.data(), static_cast<std::size_t>(count));
    }
  });
  bool written = false;
  {
    const LedAway away(writeEnd.get());
    written = writeStandardOutput(text);
  }
  writeEnd = FileDescriptor();
  reader.join();
  EXPECT_TRUE(written);
  EXPECT_EQ(got, text);
}

TEST(LinuxStandardOutput, thatTakesNothingIsAFailure) {
  const FileDescriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  bool written = true;
  {
    const LedAway away(full.get());
    written = writeStandardOutput("text");
  }
  EXPECT_FALSE(written);
}

}  // namespace
}  // namespace keltop::platform
