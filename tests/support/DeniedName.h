#pragma once

#include <cstdint>
#include <string>

#include "support/UniqueName.h"

namespace keltop {

/// The name of a machine-wide object to which the system denies access as long as this lives.
class DeniedName {
 public:
  DeniedName();
  ~DeniedName();
  DeniedName(const DeniedName&) = delete;
  DeniedName& operator=(const DeniedName&) = delete;

  /// As the semaphore classes take it, without the global prefix.
  [[nodiscard]] const std::string& text() const noexcept { return text_; }

 private:
  std::string text_ = uniqueName();
  std::uintptr_t held_ = 0;  ///< the system's, where it has one
};

}  // namespace keltop
