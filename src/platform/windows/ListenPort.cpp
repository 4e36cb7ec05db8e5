#include "platform/ListenPort.h"

namespace keltop::platform {

bool reuseListenAddress() noexcept {
  return false;
}

}  // namespace keltop::platform
