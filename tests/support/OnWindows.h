#pragma once

#include "platform/Settings.h"

namespace keltop {

/// For what cannot be the same on both systems: files that are open, links, times that Wine does not keep.
inline bool onWindows() noexcept {
  return platform::pathSeparator() == '\\';
}

}  // namespace keltop
