#include "platform/ListenPort.h"

#include <sys/socket.h>

namespace keltop::platform {

void prepareListenSocket(std::uintptr_t socket) noexcept {
  const int reuse = 1;
  (void)::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
}

}  // namespace keltop::platform
