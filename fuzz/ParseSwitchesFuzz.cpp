// The switch parser against a second one, written from the rules alone and with nothing in common with the first.
//
// Input: a byte of choices, a byte for the argument count, then the arguments, each ended by a zero byte.

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "app/ParseSwitches.h"
#include "support/Check.h"
#include "support/Input.h"

namespace keltop::fuzz {

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

constexpr std::uint8_t kNoMap = 1;
constexpr std::uint8_t kFilledBefore = 2;
constexpr std::uint8_t kOwnCount = 4;

bool isSwitchCharacter(char character) {
  return character == '-' || character == '/' || character == '~';
}

/// The name that an argument gives once its switch character is out.
std::string nameWithout(const std::string& argument, std::size_t position) {
  std::string name;
  for (std::size_t i = 0; i < argument.size(); ++i) {
    if (i != position) {
      const char character = argument[i];
      name += character >= 'a' && character <= 'z' ? "ABCDEFGHIJKLMNOPQRSTUVWXYZ"[character - 'a'] : character;
    }
  }
  return name;
}

/// The entries in the order of the command line.
Entries modelEntries(const std::vector<std::string>& arguments, std::int32_t count) {
  Entries entries;
  std::int32_t i = 1;
  while (i < count) {
    const std::string& argument = arguments[static_cast<std::size_t>(i)];
    std::size_t position = 0;
    while (position < argument.size() && !isSwitchCharacter(argument[position])) {
      ++position;
    }
    if (position == argument.size()) {
      ++i;
      continue;
    }
    const std::string name = nameWithout(argument, position);
    if (i >= count - 1) {
      entries.emplace_back(name, "");
      break;
    }
    const std::string& next = arguments[static_cast<std::size_t>(i) + 1];
    if (argument[position] != '~' && !next.empty() && (next[0] == '-' || next[0] == '/')) {
      entries.emplace_back(name, "");
      i += 1;
    } else {
      entries.emplace_back(name, next);
      i += 2;
    }
  }
  return entries;
}

bool keyBefore(const Entries::value_type& a, const Entries::value_type& b) {
  return std::lexicographical_compare(
      a.first.begin(), a.first.end(), b.first.begin(), b.first.end(),
      [](char x, char y) { return static_cast<unsigned char>(x) < static_cast<unsigned char>(y); });
}

void checkLookUps(const SwitchMap& switches, const Entries& inOrderOfTyping) {
  for (const auto& [name, ignored] : inOrderOfTyping) {
    const auto first = std::find_if(inOrderOfTyping.begin(), inOrderOfTyping.end(),
                                    [&wanted = name](const auto& entry) { return entry.first == wanted; });
    const std::string* found = findSwitch(switches, name);
    check(found != nullptr, "a switch that was given is not found");
    checkEqual("the value of the earliest entry", first->second, *found);
    const std::string other = name + '\xFF';
    const bool given = std::any_of(inOrderOfTyping.begin(), inOrderOfTyping.end(),
                                   [&other](const auto& entry) { return entry.first == other; });
    check((findSwitch(switches, other) != nullptr) == given, "a switch that was not given is found");
  }
}

void checkMap(const SwitchMap& switches, Entries expected) {
  checkLookUps(switches, expected);
  std::stable_sort(expected.begin(), expected.end(), keyBefore);
  checkSame("the number of entries", expected.size(), switches.size());
  auto entry = switches.begin();
  for (const auto& [name, value] : expected) {
    checkEqual("a name", name, entry->first);
    checkEqual("the value of " + shown(name), value, entry->second);
    ++entry;
  }
}

std::int32_t chooseCount(std::uint8_t choices, std::uint8_t number, std::size_t arguments) {
  const auto all = static_cast<std::int32_t>(arguments);
  return (choices & kOwnCount) == 0 ? all : std::min<std::int32_t>(all, static_cast<std::int8_t>(number));
}

void run(Input input) {
  const std::uint8_t choices = input.byte();
  const std::uint8_t number = input.byte();
  std::vector<std::string> arguments = {"-never=looked/at"};
  while (!input.atEnd()) {
    arguments.push_back(input.text());
  }
  std::vector<const char*> vector;
  for (const std::string& argument : arguments) {
    vector.push_back(argument.c_str());
  }
  const std::int32_t count = chooseCount(choices, number, arguments.size());
  if ((choices & kNoMap) != 0) {
    checkSame("the result without a map", 0U, parseSwitches(count, vector.data(), nullptr));
    return;
  }
  Entries expected;
  if ((choices & kFilledBefore) != 0) {
    expected = {{"URL", "before"}, {"P", "before"}, {"", "before"}};
  }
  SwitchMap switches(expected.begin(), expected.end());
  const std::uint32_t result = parseSwitches(count, vector.data(), &switches);
  for (auto& entry : modelEntries(arguments, count)) {
    expected.push_back(std::move(entry));
  }
  checkSame("the result", static_cast<std::uint32_t>(expected.size()), result);
  checkMap(switches, std::move(expected));
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
