#pragma once

#include <string_view>

namespace keltop {

inline constexpr std::string_view kTraceExtension = ".ltt";

/// The folder below the data location. The platform's separator goes in front of it.
inline constexpr std::string_view kTraceFolder = "TRACELOGS";
inline constexpr std::string_view kArchiveFolder = "ARCHIVE";

/// The process-wide host that trace lines are pushed to, and the port.
inline constexpr std::string_view kTraceHost = "127.0.0.1";
inline constexpr unsigned kTracePort = 10001;

/// Texts of the trace library that nothing in this program reads. The limits that the last two name are fixed here.
inline constexpr std::string_view kNoText = "None";
inline constexpr std::string_view kNoOtherText = "None";
inline constexpr std::string_view kDateForm = "%y%m%d";
inline constexpr std::string_view kTimeForm = "%H%M%S";
inline constexpr std::string_view kDateTimeForm = "%Y%m%d%H%M%S%s";
inline constexpr std::string_view kOtherHost = "127.0.0.2";
inline constexpr std::string_view kMostFilesSetting = "tracemaxfilesperday";
inline constexpr std::string_view kLargestFileSetting = "tracemaxfilesize";

}  // namespace keltop
