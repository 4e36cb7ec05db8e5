#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "platform/KernelObjects.h"
#include "platform/linux/StateFile.h"

namespace keltop::platform {

/// When a wait ends; nothing means never.
using WaitDeadline = std::optional<std::chrono::steady_clock::time_point>;

[[nodiscard]] inline WaitDeadline deadlineIn(std::uint32_t milliseconds) noexcept {
  return milliseconds == kInfinite ? WaitDeadline()
                                   : std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

[[nodiscard]] inline bool hasPassed(WaitDeadline deadline) noexcept {
  return deadline && std::chrono::steady_clock::now() >= *deadline;
}

/// What a handle stands for: an event, a mutex or a semaphore, of this process alone or of the machine. The operations
/// are those of KernelObjects.h; each is called on an object of its own type only, but for wait.
class WaitableObject {
 public:
  explicit WaitableObject(ObjectType type) noexcept : type_(type) {}
  virtual ~WaitableObject() = default;
  WaitableObject(const WaitableObject&) = delete;
  WaitableObject& operator=(const WaitableObject&) = delete;

  [[nodiscard]] ObjectType type() const noexcept { return type_; }

  /// One of the wait codes.
  [[nodiscard]] virtual std::uint32_t wait(std::uint32_t milliseconds) = 0;

  /// These give 0 or an error number.
  [[nodiscard]] virtual std::uint32_t setEvent() { return kErrorInvalidHandle; }
  [[nodiscard]] virtual std::uint32_t releaseMutex() { return kErrorInvalidHandle; }
  [[nodiscard]] virtual std::uint32_t releaseSemaphore() { return kErrorInvalidHandle; }

  /// The calling thread ends: if it owns the mutex, the next waiter learns that it was abandoned.
  virtual void abandon() noexcept {}

  /// A handle to the object was closed.
  virtual void handleClosed() noexcept {}

  /// Whether threads may keep it beyond its last handle: nobody can tell, because it is this process's own memory.
  [[nodiscard]] virtual bool mayBeKept() const noexcept { return false; }

  /// Whether it must be kept as long as the calling thread lives, which owns it and so has to abandon it.
  [[nodiscard]] virtual bool ownedByCaller() const noexcept { return false; }

 private:
  const ObjectType type_;
};

}  // namespace keltop::platform
