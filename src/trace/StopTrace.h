#pragma once

namespace keltop {

/// Ends the program's trace: what was traced before is written. May run more than once and at exit.
void stopTrace();

}  // namespace keltop
