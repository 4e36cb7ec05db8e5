#pragma once

#include <cstdint>
#include <string_view>

#include "platform/KernelObjects.h"

namespace SEMAPHORE {

/// Owns a handle to a recursive mutex, unnamed or machine-wide.
/// The object itself is not guarded: it must not be created anew while another thread uses it.
class Mutex {
 public:
  /// Creates an unnamed mutex at once.
  Mutex();
  virtual ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Waits at most that many milliseconds (0xFFFFFFFF: for ever). 0: acquired; 258: the time ran out; 128: anything
  /// else. 128 covers an abandoned mutex, which the caller then owns, and no handle or a failed wait, where it
  /// does not.
  virtual std::uint32_t lock(std::uint32_t milliseconds);

  /// Gives up one hold of the calling thread; nothing is reported.
  virtual void unlock();

  /// Replaces the mutex. An empty name makes an unnamed one and is always true. With a name: false, and no handle,
  /// when the mutex exists and `openExisting` is false, or when access is denied.
  bool create(std::string_view name, bool openExisting);

  [[nodiscard]] keltop::platform::ObjectHandle handle() const noexcept { return handle_; }

 private:
  void close() noexcept;

  keltop::platform::ObjectHandle handle_ = keltop::platform::ObjectHandle::none;
};

}  // namespace SEMAPHORE
