#pragma once

namespace keltop::platform {

/// Waits for one key on standard input, without echo and, where it is a terminal, without waiting for a line.
/// The end of the input counts as a key. The terminal is left as it was found.
void waitForKey() noexcept;

}  // namespace keltop::platform
