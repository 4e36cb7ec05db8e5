#pragma once

namespace keltop::platform {

/// Makes a write to a pipe or socket without a reader fail instead of ending the process.
void surviveBrokenPipes() noexcept;

/// Ends the process by SIGPIPE, as its reader's going would have done by itself, unless that signal was ignored when
/// the process started.
void endByBrokenPipe() noexcept;

}  // namespace keltop::platform
