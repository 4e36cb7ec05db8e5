#include "platform/SystemLocalTime.h"

#include <ctime>

#include "platform/linux/LocalTimeAt.h"

namespace keltop::platform {

LocalTime systemLocalTime() noexcept {
  timespec now = {};
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  return localTimeAt(now);
}

}  // namespace keltop::platform
