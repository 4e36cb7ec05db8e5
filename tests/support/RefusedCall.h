#pragma once

#include <string_view>

namespace keltop {

/// Makes a routine of the system fail, in the calling thread only, as long as this object lives. One at a time. The
/// routines are those that RefusedCall.cpp defines; it takes their places in the whole program that it is linked to.
class RefusedCall {
 public:
  /// `times` is how many calls fail; negative means all of them.
  RefusedCall(std::string_view routine, int error, int times = -1) noexcept;
  ~RefusedCall();
  RefusedCall(const RefusedCall&) = delete;
  RefusedCall& operator=(const RefusedCall&) = delete;

  /// How many calls have failed.
  [[nodiscard]] int count() const noexcept;
};

}  // namespace keltop
