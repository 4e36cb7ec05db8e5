#include "platform/ListenPort.h"

namespace keltop::platform {

bool reuseListenAddress() noexcept {
  return true;
}

}  // namespace keltop::platform
