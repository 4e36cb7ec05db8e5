#pragma once

#include <cstdint>

namespace keltop::platform {

/// The system's number of this process.
[[nodiscard]] std::uint32_t currentProcessId() noexcept;

/// The system's number of the calling thread.
[[nodiscard]] std::uint32_t currentThreadId() noexcept;

}  // namespace keltop::platform
