// Linked into what is built for measuring coverage, and only there: writes the counters before a process ends itself by
// a way that runs no exit routines. The linker leads the calls of these routines here (cmake/Coverage.cmake).
#include <unistd.h>

#include <csignal>

extern "C" {

void __gcov_dump();
void __gcov_reset();

[[noreturn]] void __real__exit(int status);
int __real_kill(pid_t process, int signal);
int __real_raise(int signal);

[[noreturn]] void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}

// What was written is forgotten when the process lives on, or it would be counted twice.
int __wrap_kill(pid_t process, int signal) {
  if (process != ::getpid()) {
    return __real_kill(process, signal);
  }
  __gcov_dump();
  const int result = __real_kill(process, signal);
  __gcov_reset();
  return result;
}

int __wrap_raise(int signal) {
  __gcov_dump();
  const int result = __real_raise(signal);
  __gcov_reset();
  return result;
}
}
