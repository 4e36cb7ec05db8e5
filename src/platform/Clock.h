#pragma once

#include <cstdint>

namespace keltop::platform {

/// Local wall-clock time, field by field as Windows' SYSTEMTIME has it.
struct LocalTime {
  std::uint16_t year = 0;
  std::uint16_t month = 0;      ///< 1 to 12
  std::uint16_t dayOfWeek = 0;  ///< 0 is Sunday
  std::uint16_t day = 0;
  std::uint16_t hour = 0;
  std::uint16_t minute = 0;
  std::uint16_t second = 0;
  std::uint16_t milliseconds = 0;

  friend bool operator==(const LocalTime&, const LocalTime&) = default;
};

using LocalTimeSource = LocalTime (*)() noexcept;

/// The time now, or what the source set below says. Any thread may call.
[[nodiscard]] LocalTime localTime() noexcept;

/// Replaces the clock for the whole process, so that a test need not wait for midnight; null brings the system's back.
void setLocalTimeSource(LocalTimeSource source) noexcept;

}  // namespace keltop::platform
