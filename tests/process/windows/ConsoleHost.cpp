// Starts a program and tells it of console events, in the way of the console system: by a thread in the program that
// runs the console's control routine.
//
// ConsoleHost COMMAND-LINE; each number on standard input is a control type to tell. At the program's end, "ended N"
// with its exit code stands on standard error; standard output is the program's. Where the program cannot be started,
// or the system has no control routine, standard error says so, and this program ends with 1.

#include <windows.h>

#include <cstdint>
#include <iostream>
#include <string>
#include <thread>

namespace {

/// A handle that is closed with this object.
class Handle {
 public:
  explicit Handle(HANDLE handle) noexcept : handle_(handle) {}
  ~Handle() {
    if (handle_ != nullptr) {
      ::CloseHandle(handle_);
    }
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  [[nodiscard]] HANDLE get() const noexcept { return handle_; }

 private:
  HANDLE handle_;
};

/// The error stands behind the text.
void report(const char* what) {
  const DWORD error = ::GetLastError();
  std::cerr << what << ": error " << error << std::endl;
}

/// Null where it cannot be started.
HANDLE start(std::string commandLine) {
  STARTUPINFOA info = {};
  info.cb = sizeof info;
  PROCESS_INFORMATION process = {};
  if (!::CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &info, &process)) {
    report("the program cannot be started");
  }
  const Handle thread(process.hThread);
  return process.hProcess;
}

/// Null where there is none.
LPTHREAD_START_ROUTINE controlRoutine() {
  const auto routine = ::GetProcAddress(::GetModuleHandleA("kernelbase.dll"), "CtrlRoutine");
  if (routine == nullptr) {
    report("there is no control routine");
  }
  // By way of an object pointer: the system's type for every routine is none that a thread could start with.
  return reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<void*>(routine));
}

/// Milliseconds that the console system grants a program whose console is closed.
constexpr DWORD kClosePatience = 5000;

/// What the control routine gives when it has run to its end.
constexpr DWORD kRoutineDone = 1;

/// Once its routine has returned, or not in time, the console system ends the program. A routine that ended with its
/// program has left nothing to do.
void closeWhen(HANDLE program, HANDLE routine) {
  DWORD result = STILL_ACTIVE;
  ::WaitForSingleObject(routine, kClosePatience);
  ::GetExitCodeThread(routine, &result);
  if (result == kRoutineDone || result == STILL_ACTIVE) {
    ::TerminateProcess(program, static_cast<UINT>(STATUS_CONTROL_C_EXIT));
  }
}

void tellEvents(HANDLE program, LPTHREAD_START_ROUTINE routine) {
  std::uintptr_t type = 0;
  while (std::cin >> type) {
    const Handle told(::CreateRemoteThread(program, nullptr, 0, routine, reinterpret_cast<void*>(type), 0, nullptr));
    if (type == CTRL_CLOSE_EVENT) {
      closeWhen(program, told.get());
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  const LPTHREAD_START_ROUTINE routine = controlRoutine();
  const Handle program(count == 2 && routine != nullptr ? start(arguments[1]) : nullptr);
  if (program.get() == nullptr) {
    return 1;
  }
  std::thread(tellEvents, program.get(), routine).detach();
  ::WaitForSingleObject(program.get(), INFINITE);
  DWORD code = 0;
  ::GetExitCodeProcess(program.get(), &code);
  std::cerr << "ended " << code << std::endl;
  // Not by the end of main, which would wait for standard input: the other thread holds it while it reads.
  ::TerminateProcess(::GetCurrentProcess(), 0);
}
