#include "platform/linux/KernelObject.h"

#include <algorithm>

#include "platform/KernelObjects.h"

namespace keltop::platform {

namespace {

using std::chrono::milliseconds;

/// How long even a wait of no time waits for another process's change of the count, which takes an instant: shorter,
/// and a busy machine would make it fail.
constexpr milliseconds kShortestPatience(50);

milliseconds patienceUntil(WaitDeadline deadline) noexcept {
  if (!deadline) {
    return kLockPatience;
  }
  const auto left = std::chrono::ceil<milliseconds>(*deadline - std::chrono::steady_clock::now());
  return std::clamp(left, kShortestPatience, kLockPatience);
}

}  // namespace

std::uint32_t KernelObject::wait(std::uint32_t milliseconds) {
  const WaitDeadline deadline = deadlineIn(milliseconds);
  std::unique_lock<std::mutex> guard(guard_);
  std::uint32_t result = tryTake(deadline);
  if (result != kWaitTimeout || milliseconds == 0) {
    return result;
  }
  const std::unique_ptr<Watch> changes = watch();
  for (;;) {
    // Looked at again with the watch in place, so that no change falls between the look and the wait.
    result = tryTake(deadline);
    if (result != kWaitTimeout || hasPassed(deadline)) {
      return result;
    }
    changes->wait(guard, deadline);
  }
}

std::uint32_t KernelObject::tryTake(WaitDeadline deadline) {
  if (type() == ObjectType::mutex) {
    return tryOwn();
  }
  const std::optional<ObjectState> state = readState();
  if (!state) {
    return kWaitFailed;
  }
  if (state->value == 0) {
    return kWaitTimeout;
  }
  return type() == ObjectType::event ? kWaitObject : tryCount(deadline);
}

/// Takes one of a semaphore's count.
std::uint32_t KernelObject::tryCount(WaitDeadline deadline) {
  if (!beginChange(patienceUntil(deadline))) {
    return kWaitFailed;
  }
  const std::optional<ObjectState> state = readState();
  std::uint32_t result = !state ? kWaitFailed : state->value == 0 ? kWaitTimeout : kWaitObject;
  if (result == kWaitObject && !writeValue(state->value - 1)) {
    result = kWaitFailed;
  }
  endChange();
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
  // Before the claim: an owner whose end nobody notices would keep everybody out.
  if (!noticeThreadEnd()) {
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
  rememberOwned(owned_, shared_from_this());
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
  const bool written = writeValue(0);
  // cppcheck-suppress unreadVariable ; its lifetime is what counts
  self = forgetOwner();
  return written ? kNoError : kErrorInvalidData;
}

std::uint32_t KernelObject::releaseSemaphore() {
  const std::lock_guard<std::mutex> guard(guard_);
  if (!beginChange(kLockPatience)) {
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
    (void)forgetOwner();  // the state still says held: that is how the next owner knows
  }
}

std::shared_ptr<KernelObject> KernelObject::forgetOwner() noexcept {
  owner_ = 0;
  holds_ = 0;
  disclaim();
  return forgetOwned(owned_);
}

}  // namespace keltop::platform
