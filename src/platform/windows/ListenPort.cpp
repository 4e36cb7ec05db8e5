#include "platform/ListenPort.h"

#include <winsock2.h>

namespace keltop::platform {

void prepareListenSocket(std::uintptr_t socket) noexcept {
  const BOOL exclusive = TRUE;
  (void)::setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive),
                     sizeof exclusive);
}

}  // namespace keltop::platform
