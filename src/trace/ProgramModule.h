#pragma once

#include <atomic>
#include <cstdint>

namespace keltop {

/// The module that this program's trace lines belong to.
inline constexpr std::uint32_t kKeltopModule = 1067;

/// The module that the running program has registered as its own; 0 until then.
inline constinit std::atomic<std::uint32_t> programModule = 0;

}  // namespace keltop
