#pragma once

#include <cstdint>

#include "platform/linux/Futex.h"
#include "platform/linux/WaitableObject.h"

namespace keltop::platform {

/// An event without a name.
class LocalEvent final : public WaitableObject {
 public:
  LocalEvent() noexcept : WaitableObject(ObjectType::event) {}

  [[nodiscard]] std::uint32_t wait(std::uint32_t milliseconds) override;
  [[nodiscard]] std::uint32_t setEvent() override;
  [[nodiscard]] bool mayBeKept() const noexcept override { return true; }

 private:
  FutexWord set_ = 0;
};

}  // namespace keltop::platform
