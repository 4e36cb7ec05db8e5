#include "product/ParseNumber.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace keltop {

std::int32_t parseNumber(const std::string& text) noexcept {
  using Limits = std::numeric_limits<std::int32_t>;
  // A long has 32 bits on Windows and 64 on Linux; the widest conversion, clamped, is the same on both.
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

}  // namespace keltop
