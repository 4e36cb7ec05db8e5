#pragma once

#include <string>
#include <string_view>

namespace SEMAPHORE {

/// Named objects live in the machine-wide namespace.
inline constexpr std::string_view kGlobalPrefix = "Global\\";

/// The kernel's name of an object: callers never write the prefix themselves.
[[nodiscard]] inline std::string globalName(std::string_view name) {
  return std::string(kGlobalPrefix).append(name);
}

}  // namespace SEMAPHORE
