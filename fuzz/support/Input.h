#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace keltop::fuzz {

/// Takes what a target needs from the fuzzer's bytes, in order: single bytes, and texts that end with a zero byte.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  [[nodiscard]] bool atEnd() const noexcept { return rest_.empty(); }

  /// 0 where there is none left.
  std::uint8_t byte() noexcept {
    if (rest_.empty()) {
      return 0;
    }
    const auto first = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return first;
  }

  /// Up to the next zero byte, which is taken too, or to the end.
  std::string text() {
    const std::string_view found = rest_.substr(0, rest_.find('\0'));
    rest_.remove_prefix(found.size() < rest_.size() ? found.size() + 1 : found.size());
    return std::string(found);
  }

  /// At most that many bytes.
  std::string bytes(std::size_t count) {
    const std::string_view found = rest_.substr(0, count);
    rest_.remove_prefix(found.size());
    return std::string(found);
  }

  std::string rest() { return bytes(rest_.size()); }

 private:
  std::string_view rest_;
};

}  // namespace keltop::fuzz
