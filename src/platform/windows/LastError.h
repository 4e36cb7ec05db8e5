#pragma once

#include <windows.h>

namespace keltop::platform {

/// Keeps the system's error of the calling thread for lastError, at once after the call that set it: whatever runs
/// next, the end of a text's life even, may set another.
void keepLastError() noexcept;

}  // namespace keltop::platform
