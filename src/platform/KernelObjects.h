#pragma once

#include <cstdint>
#include <string>

namespace keltop::platform {

class OpenAccess;

/// An open handle to an event, a mutex or a semaphore. Handles are looked up, never dereferenced: every call on one
/// that is closed, or never was, fails cleanly with kErrorInvalidHandle.
enum class ObjectHandle : std::uintptr_t { none = 0 };

/// Results of waitForObject.
inline constexpr std::uint32_t kWaitObject = 0;
inline constexpr std::uint32_t kWaitAbandoned = 128;
inline constexpr std::uint32_t kWaitTimeout = 258;
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFFU;

/// A time-out that never comes.
inline constexpr std::uint32_t kInfinite = 0xFFFFFFFFU;

/// What lastError may say, by the numbers that Windows gives.
inline constexpr std::uint32_t kNoError = 0;
inline constexpr std::uint32_t kErrorFileNotFound = 2;
inline constexpr std::uint32_t kErrorAccessDenied = 5;
inline constexpr std::uint32_t kErrorInvalidHandle = 6;
inline constexpr std::uint32_t kErrorNotEnoughMemory = 8;
inline constexpr std::uint32_t kErrorInvalidData = 13;
inline constexpr std::uint32_t kErrorBusy = 170;
inline constexpr std::uint32_t kErrorInvalidParameter = 87;
inline constexpr std::uint32_t kErrorAlreadyExists = 183;
inline constexpr std::uint32_t kErrorFilenameTooLong = 206;
inline constexpr std::uint32_t kErrorNotOwner = 288;
inline constexpr std::uint32_t kErrorTooManyPosts = 298;

/// The three create operations: an empty name makes an object of this process's own; a kernel name ("Global\...")
/// opens the object of that name and type if it exists anywhere on the machine, keeping its state. `access` may be
/// null for the system's default. Result: a handle, or none; lastError then says why, and after a success whether
/// the object existed (kErrorAlreadyExists) or not (kNoError).
///
/// An object lives exactly as long as some handle to it is open in some process; a process that is killed has closed
/// its handles. Any thread may call any of these; none throws.
[[nodiscard]] ObjectHandle createEvent(const OpenAccess* access, const std::string& name) noexcept;
[[nodiscard]] ObjectHandle createMutex(const OpenAccess* access, const std::string& name) noexcept;
[[nodiscard]] ObjectHandle createSemaphore(const OpenAccess* access, std::int32_t initialCount,
                                           std::int32_t maximumCount, const std::string& name) noexcept;

/// Opens the event of that name; none when there is no such object.
[[nodiscard]] ObjectHandle openEvent(const std::string& name) noexcept;

/// Sets the event, a manual-reset one: it wakes every waiter and stays set. False when it cannot be written, or
/// the handle is no event's; lastError says why, as for the next two.
bool setEvent(ObjectHandle event) noexcept;

/// Gives up one of the calling thread's holds on the mutex; only its owner can.
bool releaseMutex(ObjectHandle mutex) noexcept;

/// Adds one to the semaphore's count; refused when that would pass its maximum.
bool releaseSemaphore(ObjectHandle semaphore) noexcept;

/// Waits until the object is signalled, at most that many milliseconds. A mutex becomes, or stays, the calling
/// thread's: kWaitAbandoned when its last owner ended without releasing it.
[[nodiscard]] std::uint32_t waitForObject(ObjectHandle object, std::uint32_t milliseconds) noexcept;

/// False when the handle is not open. Who waits by it goes on waiting.
bool closeObject(ObjectHandle object) noexcept;

/// The calling thread's error of the last call above that sets one.
[[nodiscard]] std::uint32_t lastError() noexcept;

}  // namespace keltop::platform
