#include <gtest/gtest.h>

#include <memory>

#include "platform/KernelObjects.h"
#include "platform/linux/KernelObject.h"

namespace keltop::platform {
namespace {

/// An event that somebody sets just before the watch on it is in place, so that the watch never tells.
class SetTooEarly : public KernelObject {
 public:
  SetTooEarly() : KernelObject(ObjectType::event) {}
  [[nodiscard]] int waits() const noexcept { return waits_; }

 protected:
  std::optional<ObjectState> readState() override { return ObjectState{.type = type(), .value = value_}; }
  bool writeValue(std::uint32_t value) override {
    value_ = value;
    return true;
  }
  bool beginChange(std::chrono::milliseconds /*patience*/) override { return true; }
  void endChange() noexcept override {}
  bool claim() override { return true; }
  void disclaim() noexcept override {}
  std::unique_ptr<Watch> watch() override {
    value_ = 1;
    return std::make_unique<Deaf>(waits_);
  }

 private:
  class Deaf : public Watch {
   public:
    explicit Deaf(int& waits) noexcept : waits_(waits) {}
    void wait(std::unique_lock<std::mutex>& /*guard*/, WaitDeadline /*deadline*/) override { ++waits_; }

   private:
    int& waits_;
  };

  std::uint32_t value_ = 0;
  int waits_ = 0;
};

TEST(KernelObject, aChangeBetweenTheFirstLookAndTheWatchIsSeenWithoutWaiting) {
  for (const std::uint32_t milliseconds : {1U, kInfinite}) {
    const auto event = std::make_shared<SetTooEarly>();
    EXPECT_EQ(event->wait(milliseconds), kWaitObject);
    EXPECT_EQ(event->waits(), 0);
  }
}

}  // namespace
}  // namespace keltop::platform
