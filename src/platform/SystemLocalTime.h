#pragma once

#include "platform/Clock.h"

namespace keltop::platform {

/// The system's own local time, for localTime only.
[[nodiscard]] LocalTime systemLocalTime() noexcept;

}  // namespace keltop::platform
