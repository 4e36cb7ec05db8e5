#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <initializer_list>

#include "platform/ConsoleControl.h"
#include "support/ResourceLimit.h"

namespace keltop::platform {
namespace {

bool refuse(std::uint32_t /*type*/) noexcept {
  return false;
}

bool endWithType(std::uint32_t type) noexcept {
  std::_Exit(static_cast<int>(type));
}

/// Each in a process of its own: what is installed stays for the process's life.
class ConsoleControlDeathTest : public testing::Test {
 protected:
  ConsoleControlDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  /// Never returns: the handler or the signal ends the process.
  [[noreturn]] static void receive(int signal, std::initializer_list<ConsoleControlHandler> handlers) {
    (void)std::signal(signal, SIG_DFL);
    for (const ConsoleControlHandler handler : handlers) {
      EXPECT_TRUE(addConsoleControlHandler(handler));
    }
    (void)::kill(::getpid(), signal);
    for (;;) {
      (void)::pause();
    }
  }
};

TEST_F(ConsoleControlDeathTest, theHandlerIsToldWhatHappened) {
  EXPECT_EXIT(receive(SIGINT, {endWithType}), testing::ExitedWithCode(kControlCtrlC), "");
  EXPECT_EXIT(receive(SIGHUP, {endWithType}), testing::ExitedWithCode(kControlClosed), "");
}

TEST_F(ConsoleControlDeathTest, whatTheHandlerRefusesEndsTheProcess) {
  EXPECT_EXIT(receive(SIGINT, {refuse}), testing::KilledBySignal(SIGINT), "");
  EXPECT_EXIT(receive(SIGHUP, {refuse}), testing::KilledBySignal(SIGHUP), "");
}

TEST_F(ConsoleControlDeathTest, theLastHandlerCounts) {
  EXPECT_EXIT(receive(SIGINT, {refuse, endWithType}), testing::ExitedWithCode(kControlCtrlC), "");
}

TEST_F(ConsoleControlDeathTest, afterAFailureItIsTriedAgain) {
  EXPECT_EXIT(
      {
        {
          const ResourceLimit noDescriptors(RLIMIT_NOFILE, kStandardStreamsOnly);
          if (addConsoleControlHandler(refuse)) {
            std::_Exit(1);
          }
        }
        receive(SIGHUP, {endWithType});
      },
      testing::ExitedWithCode(kControlClosed), "");
}

}  // namespace
}  // namespace keltop::platform
