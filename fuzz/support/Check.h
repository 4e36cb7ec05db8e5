#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace keltop::fuzz {

/// The text as it can be read in a report, not all of it where it is long.
inline std::string shown(std::string_view text) {
  constexpr std::size_t kLongest = 4000;
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string readable;
  for (const char character : text.substr(0, kLongest)) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte < 0x7F) {
      readable += character;
    } else {
      readable += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
  }
  return readable + (text.size() > kLongest ? "..." : "");
}

[[noreturn]] inline void fail(std::string_view what) {
  (void)std::fprintf(stderr, "finding: %s\n", std::string(what).c_str());
  std::abort();
}

inline void check(bool holds, std::string_view what) {
  if (!holds) {
    fail(what);
  }
}

inline void checkEqual(std::string_view what, std::string_view expected, std::string_view actual) {
  if (expected != actual) {
    const auto differ = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    fail(std::string(what)
             .append(" differs at byte ")
             .append(std::to_string(differ.first - expected.begin()))
             .append("\nexpected: ")
             .append(shown(expected))
             .append("\nactual:   ")
             .append(shown(actual)));
  }
}

/// For numbers and what can be written as one.
template <typename Number>
void checkSame(std::string_view what, Number expected, Number actual) {
  checkEqual(what, std::to_string(expected), std::to_string(actual));
}

}  // namespace keltop::fuzz
