#pragma once

#include <span>
#include <string_view>

namespace keltop::view {

/// A file of the page, as it stands in `src/view/page`; the build puts them all into the program.
struct PageFile {
  std::string_view name;
  std::string_view content;
};

[[nodiscard]] std::span<const PageFile> pageFiles() noexcept;

}  // namespace keltop::view
