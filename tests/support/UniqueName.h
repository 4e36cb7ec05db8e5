#pragma once

#include <atomic>
#include <string>

#include "platform/Identity.h"

namespace keltop {

/// A name for a machine-wide object that no other test uses, in this process or another.
inline std::string uniqueName() {
  static std::atomic<unsigned> last = 0;
  return "test." + std::to_string(platform::currentProcessId()) + "." + std::to_string(++last);
}

/// A name that is too long for the system, on every platform.
inline std::string impossibleName() {
  return std::string(40'000, 'x');
}

}  // namespace keltop
