#include "platform/KeyPress.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>

namespace keltop::platform {

namespace {

/// The signals that end a program by default and that somebody may send to one that waits for a key.
constexpr std::array kEnding = {SIGTERM, SIGINT, SIGHUP, SIGQUIT};

/// The terminal as it was found; only for the handler below, set before it is and constant while it is.
termios found = {};

/// Puts the terminal right before the signal does what it does by default.
void restoreAndEnd(int signal) {
  (void)::tcsetattr(STDIN_FILENO, TCSANOW, &found);
  (void)::signal(signal, SIG_DFL);
  (void)::raise(signal);
}

/// Leads the ending signals through the handler for a scope, those excepted that do not end this process anyway.
class TerminalGuard {
 public:
  TerminalGuard() noexcept {
    struct sigaction restoring = {};
    restoring.sa_handler = restoreAndEnd;
    // Blocked: in the background the terminal would stop the process for setting it.
    (void)::sigaddset(&restoring.sa_mask, SIGTTOU);
    for (std::size_t i = 0; i < kEnding.size(); ++i) {
      changed_[i] = ::sigaction(kEnding[i], nullptr, &before_[i]) == 0 && before_[i].sa_handler == SIG_DFL &&
                    ::sigaction(kEnding[i], &restoring, nullptr) == 0;
    }
  }
  ~TerminalGuard() {
    for (std::size_t i = 0; i < kEnding.size(); ++i) {
      if (changed_[i]) {
        (void)::sigaction(kEnding[i], &before_[i], nullptr);
      }
    }
  }
  TerminalGuard(const TerminalGuard&) = delete;
  TerminalGuard& operator=(const TerminalGuard&) = delete;

 private:
  std::array<struct sigaction, kEnding.size()> before_ = {};
  std::array<bool, kEnding.size()> changed_ = {};
};

/// One byte, or the end of the input.
void readKey() noexcept {
  char key = 0;
  while (::read(STDIN_FILENO, &key, 1) < 0) {
    if (errno == EAGAIN) {
      // Whoever had the input before left it so that reading does not wait.
      pollfd readable = {STDIN_FILENO, POLLIN, 0};
      (void)::poll(&readable, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

void readKeyFromTerminal() noexcept {
  const TerminalGuard guard;
  termios single = found;
  // Every key counts here, also those that the terminal would act on, such as Ctrl-C and Ctrl-S; so none leaves the
  // terminal without its echo.
  single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
  single.c_iflag &= ~static_cast<tcflag_t>(IXON);
  single.c_cc[VMIN] = 1;
  single.c_cc[VTIME] = 0;
  (void)::tcsetattr(STDIN_FILENO, TCSANOW, &single);
  readKey();
  // Flushed: a key that sends several bytes must not leave its rest to the shell.
  (void)::tcsetattr(STDIN_FILENO, TCSAFLUSH, &found);
}

}  // namespace

void waitForKey() noexcept {
  if (::tcgetattr(STDIN_FILENO, &found) == 0) {
    readKeyFromTerminal();
  } else {
    readKey();
  }
}

}  // namespace keltop::platform
