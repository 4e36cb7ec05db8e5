#pragma once

#include <cstdint>

namespace keltop {

/// Creates the machine-wide shutdown event, or opens the one that another instance created, and keeps it for the rest
/// of the process. True when the process has it.
bool createShutdownEvent();

/// The console control handler: Ctrl-C and the closing of the console set the shutdown event and count as handled,
/// even when there is no event; other types are left to their default action.
bool handleConsoleControl(std::uint32_t type) noexcept;

/// Whether the process ends now that the reader of its output has gone: yes, as every filter does, unless the shutdown
/// event is set. It is given a moment to become so: Ctrl-C reaches every process of a pipeline, and the reader may be
/// faster.
bool endsWithItsReader() noexcept;

}  // namespace keltop
