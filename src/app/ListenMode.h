#pragma once

#include "product/SwitchMap.h"

namespace keltop {

/// Listens on the port that "P" names, for raw TCP where "RAW" is given and for HTTP otherwise, until the shutdown
/// event is set. Gives the exit code; ends the process itself where connections are still busy.
[[nodiscard]] int listen(const SwitchMap& switches);

}  // namespace keltop
