#include "posts/PostValues.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Timestamp.h>

#include "product/ParseNumber.h"

namespace keltop {

namespace {

void setValue(PostValues& values, const ValueSwitch& valueSwitch, const std::string& text) {
  if (const auto* member = std::get_if<std::string PostValues::*>(&valueSwitch.value)) {
    values.*(*member) = text;
  } else {
    values.*(std::get<std::int32_t PostValues::*>(valueSwitch.value)) = parseNumber(text);
  }
}

void setTime(PostValues& values) {
  // The time stamp holds local time as if it were UTC; saying so keeps the formatter from adding a zone.
  const Poco::Timestamp now = Poco::LocalDateTime().timestamp();
  values.date = Poco::DateTimeFormatter::format(now, "%Y%m%d", Poco::DateTimeFormatter::UTC);
  values.time = Poco::DateTimeFormatter::format(now, "%H:%M:%S", Poco::DateTimeFormatter::UTC);
}

}  // namespace

PostValues gatherValues(const SwitchMap& switches, std::span<const ValueSwitch> valueSwitches) {
  PostValues values;
  for (const ValueSwitch& valueSwitch : valueSwitches) {
    const std::string* text = findSwitch(switches, valueSwitch.name);
    if (text != nullptr && !text->empty()) {
      setValue(values, valueSwitch, *text);
    }
  }
  setTime(values);
  return values;
}

}  // namespace keltop
