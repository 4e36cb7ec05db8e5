#pragma once

#include <cstdint>
#include <string_view>

namespace keltop {

/// Writes a line to the program's trace: the prefix, if any, and the text. Nothing when the text is empty. Any thread
/// may call, at any time; the call never waits for a disk and reports nothing. The two numbers are ignored.
void traceWrite(std::int32_t ignored1, std::int32_t ignored2, std::string_view text, std::string_view prefix = {});

}  // namespace keltop
