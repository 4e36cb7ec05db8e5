#include "app/ParseSwitches.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace keltop {

namespace {

constexpr std::string_view kSwitchCharacters = "-/~";

/// The switch character that takes the next argument as its value whatever that begins with.
constexpr char kForcingCharacter = '~';

/// ASCII only, whatever the locale: other bytes stay as they are.
char upperCase(char character) noexcept {
  return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

bool beginsSwitch(std::string_view argument) noexcept {
  return argument.starts_with('-') || argument.starts_with('/');
}

}  // namespace

std::uint32_t parseSwitches(std::int32_t count, const char* const* arguments, SwitchMap* switches) {
  if (switches == nullptr) {
    return 0;
  }
  for (std::int32_t i = 1; i < count; ++i) {
    std::string name = arguments[i];
    const std::size_t position = name.find_first_of(kSwitchCharacters);
    if (position == std::string::npos) {
      continue;
    }
    const bool forced = name[position] == kForcingCharacter;
    name.erase(position, 1);
    std::transform(name.begin(), name.end(), name.begin(), upperCase);
    const bool takesNext = i + 1 < count && (forced || !beginsSwitch(arguments[i + 1]));
    switches->emplace(std::move(name), takesNext ? arguments[++i] : "");
  }
  return static_cast<std::uint32_t>(switches->size());
}

}  // namespace keltop
