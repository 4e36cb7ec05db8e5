#include "platform/KernelObjects.h"

#include <windows.h>

#include "platform/OpenAccess.h"

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

ObjectHandle objectHandle(HANDLE handle) noexcept {
  return static_cast<ObjectHandle>(reinterpret_cast<std::uintptr_t>(handle));
}

/// The system takes the attributes without const and only reads them.
SECURITY_ATTRIBUTES* attributesOf(const OpenAccess* access) noexcept {
  return access == nullptr ? nullptr : static_cast<SECURITY_ATTRIBUTES*>(const_cast<void*>(access->attributes()));
}

const char* nameOf(const std::string& name) noexcept {
  return name.empty() ? nullptr : name.c_str();
}

}  // namespace

ObjectHandle createEvent(const OpenAccess* access, const std::string& name) noexcept {
  return objectHandle(::CreateEventA(attributesOf(access), TRUE, FALSE, nameOf(name)));
}

ObjectHandle createMutex(const OpenAccess* access, const std::string& name) noexcept {
  return objectHandle(::CreateMutexA(attributesOf(access), FALSE, nameOf(name)));
}

ObjectHandle createSemaphore(const OpenAccess* access, std::int32_t initialCount, std::int32_t maximumCount,
                             const std::string& name) noexcept {
  return objectHandle(::CreateSemaphoreA(attributesOf(access), initialCount, maximumCount, nameOf(name)));
}

ObjectHandle openEvent(const std::string& name) noexcept {
  return objectHandle(::OpenEventA(EVENT_ALL_ACCESS, FALSE, name.c_str()));
}

bool setEvent(ObjectHandle event) noexcept {
  return ::SetEvent(systemHandle(event)) != FALSE;
}

bool releaseMutex(ObjectHandle mutex) noexcept {
  return ::ReleaseMutex(systemHandle(mutex)) != FALSE;
}

bool releaseSemaphore(ObjectHandle semaphore) noexcept {
  return ::ReleaseSemaphore(systemHandle(semaphore), 1, nullptr) != FALSE;
}

std::uint32_t waitForObject(ObjectHandle object, std::uint32_t milliseconds) noexcept {
  return ::WaitForSingleObject(systemHandle(object), milliseconds);
}

bool closeObject(ObjectHandle object) noexcept {
  return ::CloseHandle(systemHandle(object)) != FALSE;
}

std::uint32_t lastError() noexcept {
  return ::GetLastError();
}

}  // namespace keltop::platform
