#include "platform/KernelObjects.h"

#include <windows.h>

#include "platform/OpenAccess.h"
#include "platform/windows/LastError.h"

namespace keltop::platform {

namespace {

static_assert(kWaitObject == WAIT_OBJECT_0 && kWaitAbandoned == WAIT_ABANDONED && kWaitTimeout == WAIT_TIMEOUT &&
              kWaitFailed == WAIT_FAILED && kInfinite == INFINITE);
static_assert(kNoError == ERROR_SUCCESS && kErrorFileNotFound == ERROR_FILE_NOT_FOUND &&
              kErrorAccessDenied == ERROR_ACCESS_DENIED && kErrorInvalidHandle == ERROR_INVALID_HANDLE &&
              kErrorNotEnoughMemory == ERROR_NOT_ENOUGH_MEMORY && kErrorInvalidData == ERROR_INVALID_DATA &&
              kErrorBusy == ERROR_BUSY && kErrorInvalidParameter == ERROR_INVALID_PARAMETER &&
              kErrorAlreadyExists == ERROR_ALREADY_EXISTS && kErrorFilenameTooLong == ERROR_FILENAME_EXCED_RANGE &&
              kErrorNotOwner == ERROR_NOT_OWNER && kErrorTooManyPosts == ERROR_TOO_MANY_POSTS);
static_assert(EVENT_ALL_ACCESS == 0x1F0003);

HANDLE systemHandle(ObjectHandle object) noexcept {
  return reinterpret_cast<HANDLE>(object);
}

/// The error of the latest call below, or of an access rule that could not be built.
thread_local std::uint32_t threadError = kNoError;

/// The handle that a call gave. It sets an error also when it succeeds: whether the object existed.
ObjectHandle obtained(HANDLE handle) noexcept {
  keepLastError();
  return static_cast<ObjectHandle>(reinterpret_cast<std::uintptr_t>(handle));
}

/// The system takes the attributes without const and only reads them.
SECURITY_ATTRIBUTES* attributesOf(const OpenAccess* access) noexcept {
  return access == nullptr ? nullptr : static_cast<SECURITY_ATTRIBUTES*>(const_cast<void*>(access->attributes()));
}

/// The outcome of a call that sets an error only when it fails.
bool done(BOOL outcome) noexcept {
  if (outcome == FALSE) {
    keepLastError();
  }
  return outcome != FALSE;
}

const char* nameOf(const std::string& name) noexcept {
  return name.empty() ? nullptr : name.c_str();
}

}  // namespace

ObjectHandle createEvent(const OpenAccess* access, const std::string& name) noexcept {
  return obtained(::CreateEventA(attributesOf(access), TRUE, FALSE, nameOf(name)));
}

ObjectHandle createMutex(const OpenAccess* access, const std::string& name) noexcept {
  return obtained(::CreateMutexA(attributesOf(access), FALSE, nameOf(name)));
}

ObjectHandle createSemaphore(const OpenAccess* access, std::int32_t initialCount, std::int32_t maximumCount,
                             const std::string& name) noexcept {
  return obtained(::CreateSemaphoreA(attributesOf(access), initialCount, maximumCount, nameOf(name)));
}

ObjectHandle openEvent(const std::string& name) noexcept {
  return obtained(::OpenEventA(EVENT_ALL_ACCESS, FALSE, name.c_str()));
}

bool setEvent(ObjectHandle event) noexcept {
  return done(::SetEvent(systemHandle(event)));
}

bool releaseMutex(ObjectHandle mutex) noexcept {
  return done(::ReleaseMutex(systemHandle(mutex)));
}

bool releaseSemaphore(ObjectHandle semaphore) noexcept {
  return done(::ReleaseSemaphore(systemHandle(semaphore), 1, nullptr));
}

std::uint32_t waitForObject(ObjectHandle object, std::uint32_t milliseconds) noexcept {
  const DWORD result = ::WaitForSingleObject(systemHandle(object), milliseconds);
  (void)done(result == WAIT_FAILED ? FALSE : TRUE);
  return result;
}

bool closeObject(ObjectHandle object) noexcept {
  return done(::CloseHandle(systemHandle(object)));
}

void keepLastError() noexcept {
  const DWORD error = ::GetLastError();
  threadError = error;
}

std::uint32_t lastError() noexcept {
  return threadError;
}

}  // namespace keltop::platform
