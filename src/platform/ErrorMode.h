#pragma once

#include <cstdint>

namespace keltop::platform {

/// No box for a critical error (1) and none for a fault (2).
inline constexpr std::uint32_t kErrorModeNoBoxes = 3;

/// Sets which message boxes the system may show for this process. Linux shows none; nothing to do there.
void setErrorMode(std::uint32_t mode) noexcept;

}  // namespace keltop::platform
