#include "platform/linux/LocalEvent.h"

#include <limits>

namespace keltop::platform {

std::uint32_t LocalEvent::wait(std::uint32_t milliseconds) {
  if (set_ != 0) {
    return kWaitObject;
  }
  const WaitDeadline deadline = deadlineIn(milliseconds);
  while (set_ == 0) {
    if (hasPassed(deadline)) {
      return kWaitTimeout;
    }
    sleepWhile(set_, 0, deadline);
  }
  return kWaitObject;
}

std::uint32_t LocalEvent::setEvent() {
  set_ = 1;
  wakeSleepers(set_, std::numeric_limits<int>::max());
  return kNoError;
}

}  // namespace keltop::platform
