#include "platform/Identity.h"

#include <unistd.h>

namespace keltop::platform {

// Asked for with every trace call; each is a system call that always gives the same, since this program never forks.

std::uint32_t currentProcessId() noexcept {
  static const auto id = static_cast<std::uint32_t>(::getpid());
  return id;
}

std::uint32_t currentThreadId() noexcept {
  thread_local const auto id = static_cast<std::uint32_t>(::gettid());
  return id;
}

}  // namespace keltop::platform
