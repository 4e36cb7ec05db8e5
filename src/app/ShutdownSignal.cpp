#include "app/ShutdownSignal.h"

#include <atomic>

#include "platform/ConsoleControl.h"
#include "platform/KernelObjects.h"
#include "product/ShutdownEvent.h"
#include "semaphore/CreateGlobalEvent.h"

namespace keltop {

namespace {

/// Milliseconds that the shutdown event may come later than the end of the reader that got the same signal.
constexpr std::uint32_t kReaderLead = 200;

/// Never closed: the control handler may run until the process ends.
std::atomic<platform::ObjectHandle> shutdownEvent = platform::ObjectHandle::none;

}  // namespace

bool createShutdownEvent() {
  if (const platform::ObjectHandle created = SEMAPHORE::createGlobalEvent(kShutdownEventName);
      created != platform::ObjectHandle::none) {
    shutdownEvent = created;
  }
  return shutdownEvent.load() != platform::ObjectHandle::none;
}

bool handleConsoleControl(std::uint32_t type) noexcept {
  if (type != platform::kControlCtrlC && type != platform::kControlClosed) {
    return false;
  }
  if (const platform::ObjectHandle event = shutdownEvent; event != platform::ObjectHandle::none) {
    platform::setEvent(event);
  }
  return true;
}

bool endsWithItsReader() noexcept {
  const platform::ObjectHandle event = shutdownEvent;
  return event == platform::ObjectHandle::none || platform::waitForObject(event, kReaderLead) != platform::kWaitObject;
}

}  // namespace keltop
