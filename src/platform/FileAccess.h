#pragma once

#include <string>

namespace keltop::platform {

/// Whether accounts other than the file's owner, the system's and the administrators' may read the file, as far as the
/// file itself says: the folders above it may still keep them out. False where the file cannot be looked at.
///
/// Linux: its group, or everybody. Windows: every account, every one that has logged on, or every user of the machine.
[[nodiscard]] bool othersMayRead(const std::string& path) noexcept;

}  // namespace keltop::platform
