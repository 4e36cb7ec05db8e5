#pragma once

#include <atomic>
#include <cstdint>

#include "platform/linux/Futex.h"
#include "platform/linux/WaitableObject.h"

namespace keltop::platform {

/// A semaphore without a name. Where nobody has to sleep or be woken, a wait and a post are one atomic operation each.
class LocalSemaphore final : public WaitableObject {
 public:
  LocalSemaphore(std::uint32_t count, std::uint32_t limit) noexcept
      : WaitableObject(ObjectType::semaphore), count_(count), limit_(limit) {}

  [[nodiscard]] std::uint32_t wait(std::uint32_t milliseconds) override;
  [[nodiscard]] std::uint32_t releaseSemaphore() override;
  [[nodiscard]] bool mayBeKept() const noexcept override { return true; }

 private:
  [[nodiscard]] bool tryTake() noexcept;

  FutexWord count_;
  std::atomic<std::uint32_t> sleepers_ = 0;
  const std::uint32_t limit_;
};

}  // namespace keltop::platform
