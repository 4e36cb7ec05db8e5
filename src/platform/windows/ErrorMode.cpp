#include "platform/ErrorMode.h"

#include <windows.h>

namespace keltop::platform {

static_assert(kErrorModeNoBoxes == (SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX));

void setErrorMode(std::uint32_t mode) noexcept {
  ::SetErrorMode(mode);
}

}  // namespace keltop::platform
