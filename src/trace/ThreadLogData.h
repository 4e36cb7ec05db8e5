#pragma once

#include <cstdint>
#include <string>

namespace keltop {

/// One trace record on its way to the writer. Module 0, the empty record's, ends a pass of the writer.
struct ThreadLogData {
  static constexpr std::uint32_t kOrdinary = 6;
  static constexpr std::uint32_t kMarker = 0xFFFFFFFF;

  std::uint32_t module = 0;
  std::uint32_t threadId = 0;
  std::uint32_t processId = 0;
  std::string timeStamp;
  std::uint32_t type = 0;
  std::string text;  ///< without a line end
};

/// A record of the calling thread, stamped with the time now.
[[nodiscard]] ThreadLogData makeRecord(std::uint32_t module, std::uint32_t type, std::string text);

}  // namespace keltop
