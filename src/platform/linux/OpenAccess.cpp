#include "platform/OpenAccess.h"

namespace keltop::platform {

OpenAccess::OpenAccess() noexcept : ready_(true) {}

}  // namespace keltop::platform
