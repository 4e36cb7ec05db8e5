#pragma once

#include <cstdint>

namespace keltop::platform {

inline constexpr std::uint32_t kControlCtrlC = 0;
inline constexpr std::uint32_t kControlClosed = 2;

/// Takes the control type; true means handled, false that the default action follows.
using ConsoleControlHandler = bool (*)(std::uint32_t type) noexcept;

/// Adds the handler that runs, on a thread of the console system's own, for the console's control types. One handler
/// a process; false when the system refuses, and then it may be tried again.
///
/// Linux: SIGINT is type 0; SIGHUP, unless it was ignored at start (nohup), is type 2. Every other signal, SIGQUIT and
/// SIGTERM among them, keeps its action.
bool addConsoleControlHandler(ConsoleControlHandler handler) noexcept;

/// From now on a closed console waits for the end of main, for the seconds that the system grants. Without it the
/// system ends the process as soon as the handler has returned, whatever main is at. Linux: nothing to do; there a
/// handled SIGHUP ends nothing.
void waitForMainWhenClosed() noexcept;

}  // namespace keltop::platform
