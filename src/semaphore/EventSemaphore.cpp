#include "semaphore/EventSemaphore.h"

#include "semaphore/CreateGlobalEvent.h"
#include "semaphore/GlobalName.h"

namespace SEMAPHORE {

namespace platform = keltop::platform;

EventSemaphore::~EventSemaphore() {
  close();
}

bool EventSemaphore::create(std::string_view name) {
  close();
  handle_ = createGlobalEvent(name);
  return handle_ != platform::ObjectHandle::none;
}

bool EventSemaphore::open(std::string_view name) {
  close();
  handle_ = platform::openEvent(globalName(name));
  return handle_ != platform::ObjectHandle::none;
}

void EventSemaphore::close() noexcept {
  if (handle_ != platform::ObjectHandle::none) {
    platform::closeObject(handle_);
    handle_ = platform::ObjectHandle::none;
  }
}

}  // namespace SEMAPHORE
