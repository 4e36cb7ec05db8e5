#include "platform/ConsoleControl.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>
#include <thread>

#include "platform/linux/FileDescriptor.h"

namespace keltop::platform {

namespace {

std::atomic<ConsoleControlHandler> installed = nullptr;

/// One eventfd for each control type, written by the signal handler: the only thing it may safely do.
int interrupted = -1;
int hungUp = -1;

void notice(int signal) {
  const int saved = errno;
  const std::uint64_t one = 1;
  // Full means that the thread has plenty to do already.
  [[maybe_unused]] const ssize_t written = ::write(signal == SIGINT ? interrupted : hungUp, &one, sizeof one);
  errno = saved;
}

/// The thread that Windows' console system would have made: it runs the handler for each signal of one kind.
void serve(int notices, int signal, std::uint32_t type) {
  std::uint64_t count = 0;
  for (;;) {
    if (::read(notices, &count, sizeof count) != static_cast<ssize_t>(sizeof count)) {
      if (errno != EINTR) {
        return;
      }
    } else if (!installed.load()(type)) {
      (void)::signal(signal, SIG_DFL);
      (void)::kill(::getpid(), signal);
    }
  }
}

bool ignored(int signal) noexcept {
  struct sigaction action = {};
  return ::sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_IGN;
}

/// Once for each signal: `notices` tells whether it has been done.
bool listenTo(int signal, int& notices, std::uint32_t type) {
  if (notices >= 0) {
    return true;
  }
  FileDescriptor made(::eventfd(0, EFD_CLOEXEC));
  if (!made.valid()) {
    return false;
  }
  std::thread(serve, made.get(), signal, type).detach();
  notices = made.release();
  struct sigaction action = {};
  action.sa_handler = notice;
  action.sa_flags = SA_RESTART;
  return ::sigaction(signal, &action, nullptr) == 0;
}

}  // namespace

bool addConsoleControlHandler(ConsoleControlHandler handler) noexcept {
  installed = handler;
  try {
    const bool listening = listenTo(SIGINT, interrupted, kControlCtrlC);
    return listening && (ignored(SIGHUP) || listenTo(SIGHUP, hungUp, kControlClosed));
  } catch (const std::system_error&) {
    return false;
  }
}

void waitForMainWhenClosed() noexcept {}

}  // namespace keltop::platform
