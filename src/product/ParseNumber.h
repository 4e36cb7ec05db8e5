#pragma once

#include <cstdint>
#include <string>

namespace keltop {

/// C's `atol` as it is where a long has 32 bits: leading white space, an optional sign, digits up to the first other
/// character; 0 without digits. Beyond the range it gives the nearest limit.
[[nodiscard]] std::int32_t parseNumber(const std::string& text) noexcept;

}  // namespace keltop
