#pragma once

#include <atomic>
#include <cstdint>

#include "platform/linux/Futex.h"
#include "platform/linux/WaitableObject.h"

namespace keltop::platform {

/// A mutex without a name. Where nobody else wants it, taking it and giving it up are one atomic operation each.
class LocalMutex final : public WaitableObject {
 public:
  LocalMutex() noexcept : WaitableObject(ObjectType::mutex) {}

  [[nodiscard]] std::uint32_t wait(std::uint32_t milliseconds) override;
  [[nodiscard]] std::uint32_t releaseMutex() override;
  void abandon() noexcept override;
  [[nodiscard]] bool mayBeKept() const noexcept override { return true; }
  [[nodiscard]] bool ownedByCaller() const noexcept override;

 private:
  static constexpr std::uint32_t kFree = 0;
  static constexpr std::uint32_t kHeld = 1;
  static constexpr std::uint32_t kWanted = 2;  ///< held, and somebody may sleep

  [[nodiscard]] bool tryTake() noexcept;
  [[nodiscard]] bool take(WaitDeadline deadline) noexcept;
  void giveUp() noexcept;

  FutexWord word_ = kFree;
  std::atomic<std::uint64_t> owner_ = 0;  ///< the owning thread's number, 0 for none; written by the owner only
  std::uint32_t holds_ = 0;               ///< how often the owner holds it; this and the next belong to the owner
  bool abandoned_ = false;                ///< its last owner ended
};

}  // namespace keltop::platform
