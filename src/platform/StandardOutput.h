#pragma once

#include <string_view>

#include "platform/KernelObjects.h"

namespace keltop::platform {

/// Writes `text` to standard output at once, whole or not at all from the caller's point of view: false means that
/// some of it was lost (closed output, full disk). The next call tries anew. Any thread may call; texts of two calls
/// may follow each other in any order.
///
/// When the reader of a pipe has gone, the text is dropped, unless the routine below says otherwise. Windows: the
/// run-time library's text mode writes "\n" as "\r\n".
[[nodiscard]] bool writeStandardOutput(std::string_view text) noexcept;

/// Says, on the thread that writes, whether the process ends now that the reader of its output has gone.
using ReaderGone = bool (*)() noexcept;

/// Sets the routine that is asked for each text that finds no reader; null, as at the start, stands for one that always
/// says no. Linux: the process ends by SIGPIPE, as every filter does, unless that signal was ignored at start. Windows
/// never asks: a program there outlives its reader.
void setReaderGone(ReaderGone routine) noexcept;

/// Waits until standard output takes a text without making its writer wait: true. False when that event was set, or
/// cannot be waited for, before. Windows does not tell and gives true at once.
[[nodiscard]] bool waitForOutput(ObjectHandle unless) noexcept;

/// From now on no write to standard output waits for its reader: what it does not take at once is dropped. For the end
/// of the program, which a reader that has stopped reading must not hold up. Nothing to do on Windows.
void stopWaitingForOutput() noexcept;

}  // namespace keltop::platform
