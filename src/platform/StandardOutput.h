#pragma once

#include <string_view>

namespace keltop::platform {

/// Writes `text` to standard output at once, whole or not at all from the caller's point of view: false means that
/// some of it was lost (closed output, full disk). The next call tries anew. Any thread may call; texts of two calls
/// may follow each other in any order.
///
/// Linux: when the reader of a pipe has gone, the process ends by SIGPIPE as every filter does, whichever thread
/// writes, unless that signal was ignored at start; then the text is dropped. Windows: the text is dropped; the
/// run-time library's text mode writes "\n" as "\r\n".
[[nodiscard]] bool writeStandardOutput(std::string_view text) noexcept;

/// From now on no write to standard output waits for its reader: what it does not take at once is dropped. For the end
/// of the program, which a reader that has stopped reading must not hold up. Nothing to do on Windows.
void stopWaitingForOutput() noexcept;

}  // namespace keltop::platform
