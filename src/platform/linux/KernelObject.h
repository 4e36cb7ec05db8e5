#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/linux/OwnedMutexes.h"
#include "platform/linux/StateFile.h"
#include "platform/linux/WaitableObject.h"

namespace keltop::platform {

/// An event, mutex or semaphore whose state others may change, too: the rules of the operations. Where the state lies
/// and how a change is noticed is the derived class's.
class KernelObject : public WaitableObject, public std::enable_shared_from_this<KernelObject> {
 public:
  using WaitableObject::WaitableObject;

  [[nodiscard]] std::uint32_t wait(std::uint32_t milliseconds) override;
  [[nodiscard]] std::uint32_t setEvent() override;
  [[nodiscard]] std::uint32_t releaseMutex() override;
  [[nodiscard]] std::uint32_t releaseSemaphore() override;
  void abandon() noexcept override;

 protected:
  /// Waits for a change of the object during one wait call; made before the last look that finds it unsignalled.
  class Watch {
   public:
    virtual ~Watch() = default;
    /// Returns when something may have changed or the deadline has passed. `guard` is released meanwhile.
    virtual void wait(std::unique_lock<std::mutex>& guard, WaitDeadline deadline) = 0;
  };

  /// All of these are called with the guard held.
  [[nodiscard]] virtual std::optional<ObjectState> readState() = 0;
  /// Writes the value and wakes the waiters.
  [[nodiscard]] virtual bool writeValue(std::uint32_t value) = 0;
  /// Begins a change that depends on the state's present value; false when that cannot be had in time.
  [[nodiscard]] virtual bool beginChange(std::chrono::milliseconds patience) = 0;
  virtual void endChange() noexcept = 0;
  /// A mutex without an owner in this process: asks for it against other processes, and gives it up.
  [[nodiscard]] virtual bool claim() = 0;
  virtual void disclaim() noexcept = 0;
  [[nodiscard]] virtual std::unique_ptr<Watch> watch() = 0;

  /// Nobody owns the mutex any more; its state stays as it is. Gives what the owner kept it alive by, to be let go
  /// after the guard.
  std::shared_ptr<KernelObject> forgetOwner() noexcept;

  std::mutex guard_;

 private:
  [[nodiscard]] std::uint32_t tryTake(WaitDeadline deadline);
  [[nodiscard]] std::uint32_t tryCount(WaitDeadline deadline);
  [[nodiscard]] std::uint32_t tryOwn();

  std::uint64_t owner_ = 0;  ///< the owning thread's number, 0 for none
  std::uint32_t holds_ = 0;  ///< how often the owner holds the mutex
  OwnedPlace owned_;         ///< in the owner's list
};

}  // namespace keltop::platform
