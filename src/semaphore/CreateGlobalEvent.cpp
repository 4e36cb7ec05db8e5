#include "semaphore/CreateGlobalEvent.h"

#include "platform/OpenAccess.h"
#include "semaphore/GlobalName.h"

namespace SEMAPHORE {

keltop::platform::ObjectHandle createGlobalEvent(std::string_view name) {
  const keltop::platform::OpenAccess access;
  return access.ready() ? keltop::platform::createEvent(&access, globalName(name))
                        : keltop::platform::ObjectHandle::none;
}

}  // namespace SEMAPHORE
