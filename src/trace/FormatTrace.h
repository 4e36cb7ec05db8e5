#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Clock.h"

namespace keltop {

struct ThreadLogData;

/// Appends the number, in front of it as many fill characters as the width asks for.
void appendNumber(std::string& text, std::uint32_t number, std::size_t width, char fill = '0');

/// "2024/01/15-09:05:07:042".
[[nodiscard]] std::string timeStamp(const platform::LocalTime& time);

/// "20240115090507042", as a copied file's name has it.
[[nodiscard]] std::string compactTimeStamp(const platform::LocalTime& time);

/// One line of a trace file, its line end included.
[[nodiscard]] std::string traceLine(std::string_view fileName, const ThreadLogData& record);

/// The message in which a trace line is pushed on.
[[nodiscard]] std::string pushMessage(std::uint32_t module, std::string_view line);

}  // namespace keltop
