#pragma once

#include <string_view>

namespace keltop {

/// The machine-wide event that stops every listener, without the "Global\" prefix that named objects get.
inline constexpr std::string_view kShutdownEventName = "KELTOP_SHUTDOWN";

}  // namespace keltop
