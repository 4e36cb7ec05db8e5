#include "platform/SystemLocalTime.h"

#include <windows.h>

namespace keltop::platform {

LocalTime systemLocalTime() noexcept {
  SYSTEMTIME now = {};
  ::GetLocalTime(&now);
  return {.year = now.wYear,
          .month = now.wMonth,
          .dayOfWeek = now.wDayOfWeek,
          .day = now.wDay,
          .hour = now.wHour,
          .minute = now.wMinute,
          .second = now.wSecond,
          .milliseconds = now.wMilliseconds};
}

}  // namespace keltop::platform
