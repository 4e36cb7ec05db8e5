#pragma once

#include <string_view>

#include "platform/KernelObjects.h"

namespace SEMAPHORE {

/// Owns a handle to a machine-wide, manual-reset event. Users set it and wait on it by its handle.
/// The object itself is not guarded: it must not be created or opened anew while another thread uses it.
class EventSemaphore {
 public:
  EventSemaphore() noexcept = default;
  virtual ~EventSemaphore();
  EventSemaphore(const EventSemaphore&) = delete;
  EventSemaphore& operator=(const EventSemaphore&) = delete;

  /// Creates the event, or opens the one that exists without changing its state. True when a handle was obtained.
  bool create(std::string_view name);

  /// Opens the event that exists. True when a handle was obtained; either way the earlier handle is closed.
  bool open(std::string_view name);

  /// Closes the handle, if there is one.
  void close() noexcept;

  [[nodiscard]] keltop::platform::ObjectHandle handle() const noexcept { return handle_; }

 private:
  keltop::platform::ObjectHandle handle_ = keltop::platform::ObjectHandle::none;
};

}  // namespace SEMAPHORE
