#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "product/SwitchMap.h"

namespace keltop {

/// What a test post tells, with what it tells when nothing is asked for.
struct PostValues {
  std::string room = "7101";
  std::string firstName = "Orvin";
  std::string lastName = "Talbeck";
  std::int32_t userId = 1000;
  std::int32_t statusCode = 1;
  std::int32_t itemId = 100;
  std::int32_t quantity = 1;
  std::int32_t categoryId = 10;
  std::string date;  ///< local, such as 20240115
  std::string time;  ///< local, such as 14:05:09, of the same instant
};

/// A switch and the value that it sets.
struct ValueSwitch {
  std::string_view name;
  std::variant<std::string PostValues::*, std::int32_t PostValues::*> value;
};

/// The values of a post sent now. A switch without a value changes nothing.
[[nodiscard]] PostValues gatherValues(const SwitchMap& switches, std::span<const ValueSwitch> valueSwitches);

}  // namespace keltop
