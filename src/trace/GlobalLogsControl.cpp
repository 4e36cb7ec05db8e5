#include "trace/GlobalLogsControl.h"

#include <atomic>
#include <system_error>

namespace keltop {

namespace {

/// Constant-initialised and trivially destroyed: good at any time before and after the controller.
constinit std::atomic<bool> destroyed = false;

class GlobalController : public LogsControl {
 public:
  GlobalController() = default;
  ~GlobalController() override { destroyed = true; }
  GlobalController(const GlobalController&) = delete;
  GlobalController& operator=(const GlobalController&) = delete;
};

/// No thread to be had is for main to tell, which asks again.
const LogsControl* buildBeforeMain() noexcept {
  try {
    return globalLogsControl();
  } catch (const std::system_error&) {
    return nullptr;
  }
}

/// Its thread runs before main does.
[[maybe_unused]] const LogsControl* const builtAtStart = buildBeforeMain();

}  // namespace

LogsControl* globalLogsControl() {
  static GlobalController controller;
  return destroyed ? nullptr : &controller;
}

}  // namespace keltop
