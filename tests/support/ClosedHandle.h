#pragma once

#include <cstdint>

#include "platform/KernelObjects.h"

namespace keltop {

/// Whether a handle is closed, by the result of waiting for it, which `wait` gives anew at each call for a handle of
/// its own. On Windows a closed handle's number goes to whatever some thread opens next, the trace's among them: one
/// such result tells nothing, but a handle that stays open never gives this one.
template <typename Wait>
bool showsClosed(Wait wait) {
  constexpr int kLooks = 20;
  for (int look = 0; look < kLooks; ++look) {
    const std::uint32_t result = wait();
    if (result == platform::kWaitFailed) {
      return true;
    }
  }
  return false;
}

}  // namespace keltop
