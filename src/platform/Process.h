#pragma once

namespace keltop::platform {

/// Makes the process fit to serve, first of all in main. Standard streams that the parent left closed are filled, so
/// that no socket or file takes their number and receives console text. Linux: writing to a socket whose peer has gone
/// becomes an error of that write, where the system would end the process.
void prepareProcess() noexcept;

/// Ends the process at once with that exit code: no destructor and no exit routine runs, no thread is waited for.
[[noreturn]] void endProcess(int exitCode) noexcept;

}  // namespace keltop::platform
