#include "platform/Process.h"

#include <windows.h>

#include <cstdlib>

extern "C" {
/// Read by the run-time library before main: arguments stay as they were typed, `*` is no list of files. Said here
/// because tool chains differ in what they say otherwise.
int _dowildcard = 0;  // NOLINT(bugprone-reserved-identifier): the library's name
}

namespace keltop::platform {

/// Nothing to do: the run-time library keeps the three numbers for the standard streams, open or not.
void prepareProcess() noexcept {}

void endProcess(int exitCode) noexcept {
  // Nothing is flushed: every text was written out at once, and a stream that another thread is stuck in would make
  // this wait. No library's exit routine runs either.
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
  std::_Exit(exitCode);  // not reached
}

}  // namespace keltop::platform
