#pragma once

#include "trace/LogsControl.h"

namespace keltop {

/// The program's one controller, built during static initialisation, or earlier by whoever uses it earlier, and
/// destroyed at exit; null from then on, so that what traces even later is dropped.
[[nodiscard]] LogsControl* globalLogsControl();

}  // namespace keltop
