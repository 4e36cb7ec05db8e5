#include "semaphore/Mutex.h"

#include "platform/OpenAccess.h"
#include "semaphore/GlobalName.h"

namespace SEMAPHORE {

namespace platform = keltop::platform;

Mutex::Mutex() {
  create({}, false);
}

Mutex::~Mutex() {
  close();
}

std::uint32_t Mutex::lock(std::uint32_t milliseconds) {
  if (handle_ == platform::ObjectHandle::none) {
    return platform::kWaitAbandoned;
  }
  const std::uint32_t result = platform::waitForObject(handle_, milliseconds);
  // A failed wait is told like an abandoned mutex: callers know three results only.
  return result == platform::kWaitObject || result == platform::kWaitTimeout ? result : platform::kWaitAbandoned;
}

void Mutex::unlock() {
  if (handle_ != platform::ObjectHandle::none) {
    platform::releaseMutex(handle_);
  }
}

bool Mutex::create(std::string_view name, bool openExisting) {
  close();
  if (name.empty()) {
    handle_ = platform::createMutex(nullptr, {});
    return true;
  }
  if (const platform::OpenAccess access; access.ready()) {
    handle_ = platform::createMutex(&access, globalName(name));
  }
  // Read even when nothing was created, on purpose: the result then follows whatever error stood last, and can be true
  // without a handle.
  const std::uint32_t error = platform::lastError();
  if ((!openExisting && error == platform::kErrorAlreadyExists) || error == platform::kErrorAccessDenied) {
    close();
    return false;
  }
  return true;
}

void Mutex::close() noexcept {
  if (handle_ != platform::ObjectHandle::none) {
    platform::closeObject(handle_);
    handle_ = platform::ObjectHandle::none;
  }
}

}  // namespace SEMAPHORE
