#include "platform/KeyPress.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>

namespace keltop::platform {

void waitForKey() noexcept {
  termios before = {};
  const bool terminal = ::tcgetattr(STDIN_FILENO, &before) == 0;
  if (terminal) {
    termios single = before;
    // Every key counts here, also those that the terminal would act on, such as Ctrl-C and Ctrl-S; so none leaves the
    // terminal without its echo.
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
    single.c_iflag &= ~static_cast<tcflag_t>(IXON);
    single.c_cc[VMIN] = 1;
    single.c_cc[VTIME] = 0;
    (void)::tcsetattr(STDIN_FILENO, TCSANOW, &single);
  }
  char key = 0;
  while (::read(STDIN_FILENO, &key, 1) < 0 && errno == EINTR) {
  }
  if (terminal) {
    // Flushed: a key that sends several bytes must not leave its rest to the shell.
    (void)::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
  }
}

}  // namespace keltop::platform
