#include "trace/ModuleFileName.h"

#include <algorithm>
#include <cstddef>

#include "trace/FormatTrace.h"

namespace keltop {

namespace {

constexpr std::uint32_t kFirstNonLine = 1000;
constexpr std::size_t kLineWidth = 3;
constexpr std::string_view kLinePrefix = "LINE";
constexpr std::string_view kOtherPrefix = "LOG";

/// Modules that are named by their place in a range, which begins with 1.
struct NamedRange {
  std::uint32_t first;
  std::uint32_t last;
  std::string_view prefix;
};

/// The first row that fits counts. It hides the second, on purpose: 1200 to 1299 are HOSTEL101 to HOSTEL200.
constexpr std::array<NamedRange, 2> kNamedRanges = {{{1100, 1299, "HOSTEL"}, {1200, 1299, "PMS"}}};

std::string lineFileName(std::uint32_t module, std::string_view name) {
  std::string fileName(name.empty() ? kLinePrefix : name);
  if (!name.empty()) {
    fileName += '-';
  }
  appendNumber(fileName, module, kLineWidth);
  return fileName;
}

std::string numberedFileName(std::uint32_t module) {
  const auto* const range = std::find_if(kNamedRanges.begin(), kNamedRanges.end(), [module](const NamedRange& row) {
    return module >= row.first && module <= row.last;
  });
  if (range == kNamedRanges.end()) {
    return std::string(kOtherPrefix) + std::to_string(module);
  }
  return std::string(range->prefix) + std::to_string(module - range->first + 1);
}

}  // namespace

std::string_view ModuleName::shortName() const noexcept {
  const auto* const end = std::find(texts.begin(), texts.end(), '\0');
  return {texts.data(), static_cast<std::size_t>(end - texts.begin())};
}

std::span<const ModuleName> moduleNames() noexcept {
  return {};
}

std::string moduleFileName(std::uint32_t module, std::string_view name, std::span<const ModuleName> table) {
  if (module < kFirstNonLine) {
    return lineFileName(module, name);
  }
  if (!name.empty()) {
    return std::string(name);
  }
  const auto row =
      std::find_if(table.begin(), table.end(), [module](const auto& entry) { return entry.module == module; });
  return row != table.end() ? std::string(row->shortName()) : numberedFileName(module);
}

}  // namespace keltop
