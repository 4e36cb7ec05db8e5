#include "platform/Identity.h"

#include <unistd.h>

namespace keltop::platform {

std::uint32_t currentProcessId() noexcept {
  return static_cast<std::uint32_t>(::getpid());
}

std::uint32_t currentThreadId() noexcept {
  return static_cast<std::uint32_t>(::gettid());
}

}  // namespace keltop::platform
