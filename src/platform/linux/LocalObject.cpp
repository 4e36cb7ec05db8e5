#include "platform/linux/LocalObject.h"

namespace keltop::platform {

class LocalObject::ConditionWatch : public KernelObject::Watch {
 public:
  explicit ConditionWatch(std::condition_variable& changed) noexcept : changed_(changed) {}

  void wait(std::unique_lock<std::mutex>& guard, WaitDeadline deadline) override {
    if (deadline) {
      changed_.wait_until(guard, *deadline);
    } else {
      changed_.wait(guard);
    }
  }

 private:
  std::condition_variable& changed_;
};

bool LocalObject::writeValue(std::uint32_t value) {
  state_.value = value;
  changed_.notify_all();
  return true;
}

std::unique_ptr<KernelObject::Watch> LocalObject::watch() {
  return std::make_unique<ConditionWatch>(changed_);
}

}  // namespace keltop::platform
