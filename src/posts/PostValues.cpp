#include "posts/PostValues.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>

#include "platform/Clock.h"
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

/// The library's own local time is off where a zone's summer time is not an hour, or is its standard time.
Poco::DateTime localNow() {
  const platform::LocalTime now = platform::localTime();
  return {now.year, now.month, now.day, now.hour, now.minute, now.second};
}

void setTime(PostValues& values) {
  // The digits are local already; saying UTC keeps the formatter from adding a zone.
  const Poco::DateTime now = localNow();
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
