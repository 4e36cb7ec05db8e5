#include "platform/linux/NameMatch.h"

#include <cstddef>

namespace keltop::platform {

bool nameMatches(std::string_view name, std::string_view pattern) noexcept {
  std::size_t n = 0;
  std::size_t p = 0;
  std::size_t star = std::string_view::npos;  // the last "*" met, which takes one character more at each failure
  std::size_t taken = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      taken = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      n = ++taken;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

}  // namespace keltop::platform
