#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Settings.h"
#include "support/FakeClock.h"
#include "support/TemporaryFolder.h"
#include "support/TraceValues.h"

namespace keltop {

/// A data location of the test's own, with the trace folder in it, and a clock that stands still.
class TraceFolder : public testing::Test {
 protected:
  static constexpr const char* kLive = "LOG1067.ltt";
  static constexpr const char* kCopy = "LOG1067-20240115090507042.ltt";  // of a file that was opened at the start

  TraceFolder() : clock_(kTraceStart) {
    location = data_.path().string();
    platform::setDataLocationSource([] { return location; });
    std::filesystem::create_directory(traces());
  }
  ~TraceFolder() override { platform::setDataLocationSource(nullptr); }

  [[nodiscard]] std::filesystem::path traces() const { return data_.path() / "TRACELOGS"; }
  [[nodiscard]] std::filesystem::path archive() const { return traces() / "ARCHIVE"; }
  [[nodiscard]] std::string trace(std::string_view name) const { return (traces() / name).string(); }

  [[nodiscard]] static std::vector<std::string> filesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (!entry.is_directory()) {
        names.push_back(entry.path().filename().string());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  /// A file that was last written that many seconds ago.
  void makeFile(const std::filesystem::path& path, std::string_view content, int age = 0) const {
    writeContent(path, content);
    if (age > 0) {
      // Before one moment for all of them: on a busy machine a second passes between two files.
      std::filesystem::last_write_time(path, begin_ - std::chrono::seconds(age));
    }
  }

  TemporaryFolder data_;
  FakeClock clock_;

 private:
  static inline std::string location;
  const std::filesystem::file_time_type begin_ = std::filesystem::file_time_type::clock::now();
};

}  // namespace keltop
