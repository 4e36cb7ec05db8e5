#include "platform/StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>

#include "platform/linux/BrokenPipe.h"

namespace keltop::platform {

namespace {

/// Milliseconds between two looks at an output that takes nothing, while something else is waited for.
constexpr std::uint32_t kOutputLook = 20;

std::atomic<bool> mayWait = true;
std::atomic<ReaderGone> readerGone = nullptr;

bool takesMore(int descriptor, int milliseconds) noexcept {
  pollfd writable = {descriptor, POLLOUT, 0};
  return ::poll(&writable, 1, milliseconds) > 0;
}

bool writeAll(int descriptor, std::string_view text) noexcept {
  while (!text.empty()) {
    std::size_t piece = text.size();
    if (!mayWait) {
      if (!takesMore(descriptor, 0)) {
        return false;
      }
      piece = std::min<std::size_t>(piece, PIPE_BUF);  // as much as a pipe that takes anything takes at once
    }
    const ssize_t written = ::write(descriptor, text.data(), piece);
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN && mayWait) {
      // Somebody who shares the terminal or the pipe made it non-blocking.
      (void)takesMore(descriptor, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool writeStandardOutput(std::string_view text) noexcept {
  errno = 0;
  if (writeAll(STDOUT_FILENO, text)) {
    return true;
  }
  if (const ReaderGone ends = readerGone; errno == EPIPE && ends != nullptr && ends()) {
    endByBrokenPipe();
  }
  return false;
}

void setReaderGone(ReaderGone routine) noexcept {
  readerGone = routine;
}

bool waitForOutput(ObjectHandle unless) noexcept {
  while (!takesMore(STDOUT_FILENO, 0)) {
    if (waitForObject(unless, kOutputLook) != kWaitTimeout) {
      return false;
    }
  }
  return true;
}

void stopWaitingForOutput() noexcept {
  mayWait = false;
}

}  // namespace keltop::platform
