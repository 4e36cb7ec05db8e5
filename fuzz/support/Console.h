#pragma once

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "support/Check.h"

namespace keltop::fuzz {

/// Standard output of the whole process, kept in memory: what the code under test prints is read instead of shown.
class Console {
 public:
  Console() {
    const int file = ::memfd_create("console", MFD_CLOEXEC);
    check(file >= 0 && ::dup2(file, STDOUT_FILENO) == STDOUT_FILENO && ::close(file) == 0, "no console in memory");
  }

  /// What was printed since the last time.
  std::string take() {
    const off_t size = ::lseek(STDOUT_FILENO, 0, SEEK_END);
    check(size >= 0, "standard output is gone");
    std::string text(static_cast<std::size_t>(size), '\0');
    check(::pread(STDOUT_FILENO, text.data(), text.size(), 0) == size, "standard output cannot be read");
    check(::ftruncate(STDOUT_FILENO, 0) == 0 && ::lseek(STDOUT_FILENO, 0, SEEK_SET) == 0, "it cannot be emptied");
    return text;
  }
};

}  // namespace keltop::fuzz
