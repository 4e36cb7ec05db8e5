#pragma once

#include <condition_variable>

#include "platform/linux/KernelObject.h"

namespace keltop::platform {

/// An object without a name: the state lies in this process's memory.
class LocalObject : public KernelObject {
 public:
  explicit LocalObject(const ObjectState& state) noexcept : KernelObject(state.type), state_(state) {}

 protected:
  [[nodiscard]] std::optional<ObjectState> readState() override { return state_; }
  [[nodiscard]] bool writeValue(std::uint32_t value) override;
  [[nodiscard]] bool beginChange(std::chrono::milliseconds /*patience*/) override { return true; }
  void endChange() noexcept override {}
  [[nodiscard]] bool claim() override { return true; }
  void disclaim() noexcept override { changed_.notify_all(); }
  [[nodiscard]] std::unique_ptr<Watch> watch() override;

 private:
  class ConditionWatch;

  ObjectState state_;
  std::condition_variable changed_;
};

}  // namespace keltop::platform
