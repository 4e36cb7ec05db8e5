#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace keltop {

/// The parsed command line: switch name (upper case, without its switch character) to value text.
/// Keys are in byte order; a repeated switch keeps every entry, in command-line order.
using SwitchMap = std::multimap<std::string, std::string, std::less<>>;

/// The value of the earliest entry of that name, or null when the switch was not given.
/// The text belongs to the map.
[[nodiscard]] inline const std::string* findSwitch(const SwitchMap& switches, std::string_view name) {
  // Not find(): of several equal keys the standard lets it return any.
  const auto first = switches.lower_bound(name);
  return first != switches.end() && first->first == name ? &first->second : nullptr;
}

}  // namespace keltop
