#pragma once

#include <cstdint>
#include <string_view>

#include "platform/KernelObjects.h"

namespace SEMAPHORE {

/// Owns a handle to a counting semaphore, unnamed or machine-wide. Users post and wait by its handle.
class Semaphore {
 public:
  /// What every semaphore is created with, whatever the caller asks for.
  static constexpr std::int32_t kInitialCount = 0;
  static constexpr std::int32_t kMaximumCount = 200;

  Semaphore() noexcept = default;
  virtual ~Semaphore();
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  /// Creates or opens the semaphore; both counts are ignored, on purpose. True when a handle is held. A second call on
  /// one object is not supported, on purpose: it closes the handle, keeps the closed one and returns true.
  bool create(std::int32_t initialCount, std::int32_t maximumCount, std::string_view name);

  [[nodiscard]] keltop::platform::ObjectHandle handle() const noexcept { return handle_; }

 private:
  keltop::platform::ObjectHandle handle_ = keltop::platform::ObjectHandle::none;
};

}  // namespace SEMAPHORE
