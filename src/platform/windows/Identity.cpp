#include "platform/Identity.h"

#include <windows.h>

namespace keltop::platform {

std::uint32_t currentProcessId() noexcept {
  return ::GetCurrentProcessId();
}

std::uint32_t currentThreadId() noexcept {
  return ::GetCurrentThreadId();
}

}  // namespace keltop::platform
