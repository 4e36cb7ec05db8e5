#include "platform/Process.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "platform/linux/BrokenPipe.h"

namespace keltop::platform {

namespace {

void fillStandardStreams() noexcept {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (::fcntl(stream, F_GETFD) < 0) {
      // Opened the wrong way round, so that using the stream is still the error that the parent asked for. The lowest
      // free number is this one, since those below it are open.
      (void)::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

/// A limit for the size of files is an error of the write that meets it, as a full disk is.
void surviveFileSizeLimits() noexcept {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  (void)::sigaction(SIGXFSZ, &ignore, nullptr);
}

}  // namespace

void prepareProcess() noexcept {
  fillStandardStreams();
  surviveBrokenPipes();
  surviveFileSizeLimits();
}

void endProcess(int exitCode) noexcept {
  ::_exit(exitCode);
}

}  // namespace keltop::platform
