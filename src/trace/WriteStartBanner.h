#pragma once

#include <string_view>

namespace keltop {

/// Traces that the program has started: its build date and the version given.
void writeStartBanner(std::string_view version);

}  // namespace keltop
