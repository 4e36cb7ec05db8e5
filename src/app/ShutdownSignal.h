#pragma once

#include <cstdint>

namespace keltop {

/// Creates the machine-wide shutdown event, or opens the one that another instance created, and keeps it for the rest
/// of the process. True when the process has it.
bool createShutdownEvent();

/// The console control handler: Ctrl-C and the closing of the console set the shutdown event and count as handled,
/// even when there is no event; other types are left to their default action.
bool handleConsoleControl(std::uint32_t type) noexcept;

}  // namespace keltop
