#pragma once

#include <string_view>

namespace keltop {

/// The version as traces and user agents show it: the components "8", "0" and "26".
inline constexpr std::string_view kTraceVersion = "8.0.26";

/// The four-part version of the program file, shown in the banner only.
inline constexpr std::string_view kFileVersion = "8.0.26.0";

/// The release's build date. Fixed, not the compiler's clock, so that two builds of one release are the same bytes.
inline constexpr std::string_view kBuildDate = "Jan 15 2024";

/// The maker's name as it stands in front of the version in every user agent.
inline constexpr std::string_view kAgentName = "Vantrel";

}  // namespace keltop
