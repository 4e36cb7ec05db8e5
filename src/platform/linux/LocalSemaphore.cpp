#include "platform/linux/LocalSemaphore.h"

namespace keltop::platform {

// The order of all operations here is the sequentially consistent one: either the poster sees the sleeper, or the
// sleeper sees the post.

std::uint32_t LocalSemaphore::wait(std::uint32_t milliseconds) {
  if (tryTake()) {
    return kWaitObject;
  }
  if (milliseconds == 0) {
    return kWaitTimeout;
  }
  const WaitDeadline deadline = deadlineIn(milliseconds);
  ++sleepers_;
  bool taken = tryTake();
  while (!taken && !hasPassed(deadline)) {
    sleepWhile(count_, 0, deadline);
    taken = tryTake();
  }
  --sleepers_;
  return taken ? kWaitObject : kWaitTimeout;
}

std::uint32_t LocalSemaphore::releaseSemaphore() {
  std::uint32_t count = count_;
  do {
    if (count >= limit_) {
      return kErrorTooManyPosts;
    }
  } while (!count_.compare_exchange_weak(count, count + 1));
  if (sleepers_ != 0) {
    wakeSleepers(count_, 1);
  }
  return kNoError;
}

bool LocalSemaphore::tryTake() noexcept {
  std::uint32_t count = count_;
  while (count != 0) {
    if (count_.compare_exchange_weak(count, count - 1)) {
      return true;
    }
  }
  return false;
}

}  // namespace keltop::platform
