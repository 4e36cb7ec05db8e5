#include "platform/StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace keltop::platform {

namespace {

/// The network library blocks SIGPIPE in its threads, where a reader that has gone would pass unnoticed for ever.
void endByBrokenPipe() noexcept {
  struct sigaction action = {};
  if (::sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
    sigset_t pipe;
    (void)::sigemptyset(&pipe);
    (void)::sigaddset(&pipe, SIGPIPE);
    (void)::pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    (void)::raise(SIGPIPE);
  }
}

bool writeAll(int descriptor, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      // Somebody who shares the terminal or the pipe made it non-blocking.
      pollfd writable = {descriptor, POLLOUT, 0};
      (void)::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool writeStandardOutput(std::string_view text) noexcept {
  if (writeAll(STDOUT_FILENO, text)) {
    return true;
  }
  if (errno == EPIPE) {
    endByBrokenPipe();
  }
  return false;
}

void writeStandardError(std::string_view text) noexcept {
  (void)writeAll(STDERR_FILENO, text);
}

}  // namespace keltop::platform
