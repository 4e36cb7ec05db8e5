#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keltop::fuzz {

/// How many bytes the character takes whose first one this is, as the payloads' writer counts them.
inline std::size_t bytesFrom(char first) {
  const auto byte = static_cast<unsigned char>(first);
  if (byte >= 0xC2 && byte <= 0xDF) {
    return 2;
  }
  if (byte >= 0xE0 && byte <= 0xEF) {
    return 3;
  }
  return byte >= 0xF0 && byte <= 0xF4 ? 4 : 1;
}

/// A text as the payloads have it: what follows a lead byte stays as it is, whatever it is.
inline std::string escapedXml(std::string_view text) {
  std::string escaped;
  std::size_t untested = 0;
  for (const char character : text) {
    if (untested > 0) {
      --untested;
      escaped += character;
      continue;
    }
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&apos;";
        break;
      default:
        escaped += character;
        untested = bytesFrom(character) - 1;
    }
  }
  return escaped;
}

}  // namespace keltop::fuzz
