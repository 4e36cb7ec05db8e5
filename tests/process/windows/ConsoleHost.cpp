// Starts a program and tells it of console events, in the way of the console system: by a thread in the program that
// runs the console's control routine.
//
// ConsoleHost COMMAND-LINE; each number on standard input is a control type to tell. At the program's end, "ended N"
// with its exit code stands on standard error; standard output is the program's.

#include <windows.h>

#include <cstdint>
#include <iostream>
#include <string>
#include <thread>

namespace {

HANDLE start(std::string commandLine) {
  STARTUPINFOA info = {};
  info.cb = sizeof info;
  PROCESS_INFORMATION process = {};
  ::CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &info, &process);
  return process.hProcess;
}

void tellEvents(HANDLE program) {
  // By way of an object pointer: the system's type for every routine is none that a thread could start with.
  const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernelbase.dll"), "CtrlRoutine")));
  std::uintptr_t type = 0;
  while (std::cin >> type) {
    ::CreateRemoteThread(program, nullptr, 0, routine, reinterpret_cast<void*>(type), 0, nullptr);
  }
}

}  // namespace

int main(int count, char** arguments) {
  const HANDLE program = count == 2 ? start(arguments[1]) : nullptr;
  if (program == nullptr) {
    return 1;
  }
  std::thread(tellEvents, program).detach();
  ::WaitForSingleObject(program, INFINITE);
  DWORD code = 0;
  ::GetExitCodeProcess(program, &code);
  std::cerr << "ended " << code << std::endl;
  ::TerminateProcess(::GetCurrentProcess(), 0);
}
