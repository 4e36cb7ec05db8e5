#include "trace/GlobalLogsControl.h"

#include <atomic>

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

/// Its thread runs before main does.
[[maybe_unused]] const LogsControl* const builtAtStart = globalLogsControl();

}  // namespace

LogsControl* globalLogsControl() {
  static GlobalController controller;
  return destroyed ? nullptr : &controller;
}

}  // namespace keltop
