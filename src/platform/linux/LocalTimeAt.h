#pragma once

#include <ctime>

#include "platform/Clock.h"

namespace keltop::platform {

/// The local wall-clock time of that instant. Each thread looks the calendar up once a second: offsets from universal
/// time change at the beginning of a second, in every zone.
[[nodiscard]] LocalTime localTimeAt(const timespec& instant) noexcept;

}  // namespace keltop::platform
