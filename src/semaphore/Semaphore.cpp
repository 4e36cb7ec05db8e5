#include "semaphore/Semaphore.h"

#include <string>

#include "platform/OpenAccess.h"
#include "semaphore/GlobalName.h"

namespace SEMAPHORE {

namespace platform = keltop::platform;

Semaphore::~Semaphore() {
  if (handle_ != platform::ObjectHandle::none) {
    platform::closeObject(handle_);
  }
}

bool Semaphore::create(std::int32_t /*initialCount*/, std::int32_t /*maximumCount*/, std::string_view name) {
  if (handle_ != platform::ObjectHandle::none) {
    platform::closeObject(handle_);  // and kept, on purpose
    return true;
  }
  if (const platform::OpenAccess access; access.ready()) {
    handle_ = platform::createSemaphore(&access, kInitialCount, kMaximumCount,
                                        name.empty() ? std::string() : globalName(name));
  }
  return handle_ != platform::ObjectHandle::none;
}

}  // namespace SEMAPHORE
