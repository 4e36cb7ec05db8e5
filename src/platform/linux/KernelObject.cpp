#include "platform/linux/KernelObject.h"

#include "platform/KernelObjects.h"
#include "platform/linux/OwnedMutexes.h"

namespace keltop::platform {

std::uint32_t KernelObject::wait(std::uint32_t milliseconds) {
  std::unique_lock<std::mutex> guard(guard_);
  std::uint32_t result = tryTake();
  if (result != kWaitTimeout || milliseconds == 0) {
    return result;
  }
  const WaitDeadline deadline = deadlineIn(milliseconds);
  const std::unique_ptr<Watch> changes = watch();
  for (;;) {
    // Looked at again with the watch in place, so that no change falls between the look and the wait.
    result = tryTake();
    if (result != kWaitTimeout || hasPassed(deadline)) {
      return result;
    }
    changes->wait(guard, deadline);
  }
}

std::uint32_t KernelObject::tryTake() {
  if (type() == ObjectType::mutex) {
    return tryOwn();
  }
  const bool counts = type() == ObjectType::semaphore;
  if (counts && !beginChange()) {
    return kWaitFailed;
  }
  const std::optional<ObjectState> state = readState();
  std::uint32_t result = !state ? kWaitFailed : state->value == 0 ? kWaitTimeout : kWaitObject;
  if (counts) {
    if (result == kWaitObject && !writeValue(state->value - 1)) {
      result = kWaitFailed;
    }
    endChange();
  }
  return result;
}

std::uint32_t KernelObject::tryOwn() {
  const std::uint64_t self = threadNumber();
  if (owner_ == self) {
    ++holds_;
    return kWaitObject;
  }
  if (owner_ != 0) {
    return kWaitTimeout;
  }
  const std::optional<ObjectState> before = readState();
  if (!before) {
    return kWaitFailed;
  }
  if (!claim()) {
    return kWaitTimeout;
  }
  // Read again: the last owner may have released, or died, just before the claim succeeded.
  const std::optional<ObjectState> state = readState();
  if (!state || !writeValue(1)) {
    disclaim();
    return kWaitFailed;
  }
  try {
    rememberOwned(shared_from_this());
  } catch (...) {
    disclaim();  // an owner that nobody knows would keep everybody out
    throw;
  }
  owner_ = self;
  holds_ = 1;
  return state->value == 0 ? kWaitObject : kWaitAbandoned;
}

std::uint32_t KernelObject::setEvent() {
  const std::lock_guard<std::mutex> guard(guard_);
  return readState() && writeValue(1) ? kNoError : kErrorInvalidData;
}

std::uint32_t KernelObject::releaseMutex() {
  std::shared_ptr<KernelObject> self;  // the owned list may hold the last reference; it must outlive the guard
  const std::lock_guard<std::mutex> guard(guard_);
  if (owner_ != threadNumber()) {
    return kErrorNotOwner;
  }
  if (--holds_ > 0) {
    return kNoError;
  }
  self = shared_from_this();
  const bool written = writeValue(0);
  forgetOwner();
  forgetOwned(this);
  return written ? kNoError : kErrorInvalidData;
}

std::uint32_t KernelObject::releaseSemaphore() {
  const std::lock_guard<std::mutex> guard(guard_);
  if (!beginChange()) {
    return kErrorBusy;
  }
  std::uint32_t error = kNoError;
  const std::optional<ObjectState> state = readState();
  if (state && state->value >= state->limit) {
    error = kErrorTooManyPosts;
  } else if (!state || !writeValue(state->value + 1)) {
    error = kErrorInvalidData;
  }
  endChange();
  return error;
}

void KernelObject::abandon() noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  if (owner_ == threadNumber()) {
    forgetOwner();  // the state still says held: that is how the next owner knows
  }
}

void KernelObject::forgetOwner() noexcept {
  owner_ = 0;
  holds_ = 0;
  disclaim();
}

}  // namespace keltop::platform
