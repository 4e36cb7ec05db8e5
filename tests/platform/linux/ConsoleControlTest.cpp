#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "platform/ConsoleControl.h"

namespace keltop::platform {
namespace {

std::array<int, 2> handled = {-1, -1};

bool tell(std::uint32_t /*type*/) noexcept {
  return ::write(handled[1], "x", 1) == 1;
}

/// Whether the handler is refused while no descriptor is left, taken afterwards, and run then.
bool secondAttemptListens() {
  if (::pipe2(handled.data(), O_CLOEXEC) != 0) {
    return false;
  }
  rlimit limit = {};
  (void)::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none = {0, limit.rlim_max};
  (void)::setrlimit(RLIMIT_NOFILE, &none);
  const bool first = addConsoleControlHandler(tell);
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
  const bool second = addConsoleControlHandler(tell);
  (void)::kill(::getpid(), SIGINT);
  char told = 0;
  return !first && second && ::read(handled[0], &told, 1) == 1;
}

TEST(ConsoleControl, afterAFailureItIsTriedAgain) {
  EXPECT_EXIT(::_exit(secondAttemptListens() ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace keltop::platform
