#pragma once

#include <string_view>

#include "platform/KernelObjects.h"

namespace SEMAPHORE {

/// Creates the machine-wide event of that name, manual-reset and not set, open to every account; an event that exists
/// is opened as it stands. None when that failed, or when the access rule could not be built. The caller owns the
/// handle.
[[nodiscard]] keltop::platform::ObjectHandle createGlobalEvent(std::string_view name);

}  // namespace SEMAPHORE
