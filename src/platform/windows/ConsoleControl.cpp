#include "platform/ConsoleControl.h"

#include <windows.h>

#include <atomic>

namespace keltop::platform {

namespace {

static_assert(kControlCtrlC == CTRL_C_EVENT && kControlClosed == CTRL_CLOSE_EVENT);

std::atomic<ConsoleControlHandler> installed = nullptr;
std::atomic<bool> mainEnds = false;
bool registered = false;

BOOL WINAPI serve(DWORD type) {
  if (!installed.load()(type)) {
    return FALSE;
  }
  if (type == CTRL_CLOSE_EVENT && mainEnds) {
    // The system ends the process as soon as this returns; held back, main can end it in good order.
    ::Sleep(INFINITE);
  }
  return TRUE;
}

}  // namespace

bool addConsoleControlHandler(ConsoleControlHandler handler) noexcept {
  installed = handler;
  registered = registered || ::SetConsoleCtrlHandler(serve, TRUE) != FALSE;
  return registered;
}

void waitForMainWhenClosed() noexcept {
  mainEnds = true;
}

}  // namespace keltop::platform
