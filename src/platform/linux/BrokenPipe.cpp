#include "platform/linux/BrokenPipe.h"

#include <atomic>
#include <csignal>

namespace keltop::platform {

namespace {

/// What the process was started with; until main has begun nothing is changed.
std::atomic<bool> ignoredAtStart = false;

}  // namespace

void surviveBrokenPipes() noexcept {
  struct sigaction before = {};
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  if (::sigaction(SIGPIPE, &ignore, &before) == 0) {
    ignoredAtStart = before.sa_handler == SIG_IGN;
  }
}

void endByBrokenPipe() noexcept {
  if (ignoredAtStart) {
    return;
  }
  struct sigaction fatal = {};
  fatal.sa_handler = SIG_DFL;
  (void)::sigaction(SIGPIPE, &fatal, nullptr);
  // The network library blocks the signal in its threads.
  sigset_t pipe;
  (void)::sigemptyset(&pipe);
  (void)::sigaddset(&pipe, SIGPIPE);
  (void)::pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
  (void)::raise(SIGPIPE);
}

}  // namespace keltop::platform
