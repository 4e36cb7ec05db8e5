#include "platform/KeyPress.h"

#include <conio.h>

namespace keltop::platform {

void waitForKey() noexcept {
  (void)::_getch();
}

}  // namespace keltop::platform
