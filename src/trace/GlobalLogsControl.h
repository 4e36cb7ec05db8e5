#pragma once

#include "trace/LogsControl.h"

namespace keltop {

/// The program's one controller, built during static initialisation, or earlier by whoever uses it earlier, and
/// destroyed at exit; null from then on, so that what traces even later is dropped. Throws std::system_error where its
/// thread cannot be started; the next call tries again.
[[nodiscard]] LogsControl* globalLogsControl();

}  // namespace keltop
