#pragma once

#include <cstdint>

#include "platform/Clock.h"

namespace keltop {

/// The time at which the tests of the traces begin: "2024/01/15-09:05:07:042", a Monday.
inline constexpr platform::LocalTime kTraceStart = {
    .year = 2024, .month = 1, .dayOfWeek = 1, .day = 15, .hour = 9, .minute = 5, .second = 7, .milliseconds = 42};

/// The bytes with which a trace file is full.
inline constexpr std::int64_t kFullTrace = 50'000'000;

}  // namespace keltop
