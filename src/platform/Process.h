#pragma once

namespace keltop::platform {

/// Fills standard descriptors that the parent left closed, so that no socket or file takes their number and receives
/// console text. Called first of all in main.
void secureStandardStreams() noexcept;

/// Ends the process at once with that exit code: no destructor and no exit routine runs, no thread is waited for.
[[noreturn]] void endProcess(int exitCode) noexcept;

}  // namespace keltop::platform
