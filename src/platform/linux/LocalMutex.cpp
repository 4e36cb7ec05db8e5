#include "platform/linux/LocalMutex.h"

#include "platform/linux/OwnedMutexes.h"

namespace keltop::platform {

std::uint32_t LocalMutex::wait(std::uint32_t milliseconds) {
  if (ownedByCaller()) {
    ++holds_;
    return kWaitObject;
  }
  if (!tryTake() && (milliseconds == 0 || !take(deadlineIn(milliseconds)))) {
    return kWaitTimeout;
  }
  owner_.store(threadNumber(), std::memory_order_relaxed);
  holds_ = 1;
  if (!abandoned_) {
    return kWaitObject;
  }
  abandoned_ = false;
  return kWaitAbandoned;
}

std::uint32_t LocalMutex::releaseMutex() {
  if (!ownedByCaller()) {
    return kErrorNotOwner;
  }
  if (--holds_ == 0) {
    giveUp();
  }
  return kNoError;
}

void LocalMutex::abandon() noexcept {
  if (ownedByCaller()) {
    abandoned_ = true;
    giveUp();
  }
}

bool LocalMutex::ownedByCaller() const noexcept {
  // Only the caller itself can have made it, or unmake it, the owner.
  return owner_.load(std::memory_order_relaxed) == threadNumber();
}

bool LocalMutex::tryTake() noexcept {
  std::uint32_t free = kFree;
  return word_.compare_exchange_strong(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
}

bool LocalMutex::take(WaitDeadline deadline) noexcept {
  // Whoever has slept takes it as wanted: others may sleep, too.
  while (word_.exchange(kWanted, std::memory_order_acquire) != kFree) {
    if (hasPassed(deadline)) {
      return false;
    }
    sleepWhile(word_, kWanted, deadline);
  }
  return true;
}

void LocalMutex::giveUp() noexcept {
  owner_.store(0, std::memory_order_relaxed);
  if (word_.exchange(kFree, std::memory_order_release) == kWanted) {
    wakeSleepers(word_, 1);
  }
}

}  // namespace keltop::platform
