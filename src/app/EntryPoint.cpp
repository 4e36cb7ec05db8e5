#include "app/EntryPoint.h"

#include <Poco/Net/Net.h>

#include <cstdint>
#include <cstdlib>
#include <system_error>

#include "app/HelpTexts.h"
#include "app/ListenMode.h"
#include "app/ParseSwitches.h"
#include "app/ShutdownSignal.h"
#include "platform/ConsoleControl.h"
#include "platform/ErrorMode.h"
#include "platform/KeyPress.h"
#include "platform/Process.h"
#include "platform/StandardOutput.h"
#include "posts/PostISI.h"
#include "posts/PostRSI.h"
#include "product/ConsoleStream.h"
#include "product/SwitchMap.h"
#include "product/Version.h"
#include "trace/GlobalLogsControl.h"
#include "trace/ProgramModule.h"
#include "trace/StopTrace.h"
#include "trace/WriteStartBanner.h"

namespace keltop {

namespace {

constexpr std::uint8_t kRotate = 1;

/// Throws the standard library's error where the trace can have no thread.
void startTrace() {
  LogsControl* const control = globalLogsControl();
  if (control == nullptr) {
    return;
  }
  (void)control->registerModule(kRotate, kKeltopModule, {});
  if (programModule == 0) {
    programModule = kKeltopModule;
    (void)std::atexit(stopTrace);
  }
  control->setEcho(true);
  writeStartBanner(kTraceVersion);
}

void greet() {
  ConsoleStream console;
  printBanner(console);
  printShortOptions(console);
}

int help(bool waitForKey) {
  ConsoleStream console;
  printExpandedHelp(console);
  if (waitForKey) {
    console << "\r\npress any key" << std::flush;
    platform::waitForKey();
  }
  return 0;
}

int dispatch(const SwitchMap& switches) {
  if (switches.empty() || findSwitch(switches, "H") != nullptr || findSwitch(switches, "?") != nullptr) {
    platform::setReaderGone(endsWithItsReader);
    return help(switches.empty());
  }
  platform::addConsoleControlHandler(handleConsoleControl);
  createShutdownEvent();
  if (findSwitch(switches, "RSI") != nullptr) {
    PostRSI(switches);
    return 0;
  }
  if (findSwitch(switches, "ISI") != nullptr) {
    PostISI(switches);
    return 0;
  }
  platform::setReaderGone(endsWithItsReader);  // not for a post, which is sent whoever reads
  platform::waitForMainWhenClosed();           // which a listener's soon does
  return listen(switches);
}

}  // namespace

int run(int count, const char* const* arguments) {
  platform::prepareProcess();
  Poco::Net::initializeNetwork();
  try {
    startTrace();
  } catch (const std::system_error& error) {
    ConsoleStream() << "Error: No thread can be started: " << error.code().message() << '\n';
    return 1;
  }
  greet();
  platform::setErrorMode(platform::kErrorModeNoBoxes);
  SwitchMap switches;
  parseSwitches(count, arguments, &switches);
  return dispatch(switches);
}

}  // namespace keltop
