#pragma once

#include <cstdint>

#include "product/SwitchMap.h"

namespace keltop {

/// Adds the switches of a command line to the map: "-", "/" or "~" anywhere in an argument makes it a switch; the next
/// argument is its value unless that begins with "-" or "/" (after "~", whatever it begins with). Arguments that are
/// neither are dropped. `arguments[0]` is never looked at.
///
/// Gives the number of entries in the map, those from before included; 0 without a map.
std::uint32_t parseSwitches(std::int32_t count, const char* const* arguments, SwitchMap* switches);

}  // namespace keltop
