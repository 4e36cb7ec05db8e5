#pragma once

#include <string_view>

namespace keltop::platform {

/// Whether the name matches the pattern: "*" stands for any characters or none, "?" for exactly one.
[[nodiscard]] bool nameMatches(std::string_view name, std::string_view pattern) noexcept;

}  // namespace keltop::platform
