#pragma once

#include <gtest/gtest.h>

#include <string>

namespace keltop {

/// Keeps standard output from its making to its end, whichever way the scope is left. One at a time.
class CapturedOutput {
 public:
  CapturedOutput() { testing::internal::CaptureStdout(); }
  ~CapturedOutput() {
    if (!taken_) {
      (void)testing::internal::GetCapturedStdout();
    }
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  /// What was printed until now; ends the capture.
  [[nodiscard]] std::string take() {
    taken_ = true;
    return testing::internal::GetCapturedStdout();
  }

 private:
  bool taken_ = false;
};

/// What is printed meanwhile.
template <typename Print>
[[nodiscard]] std::string outputOf(Print print) {
  CapturedOutput output;
  print();
  return output.take();
}

}  // namespace keltop
