#pragma once

#include <string>

namespace keltop::platform {

/// The environment's text where there is one, else the key "DataLocation" in the `KEY=VALUE` lines of that file, else
/// the fallback. `environment` may be null. Of several lines with the key the first counts; blanks around key and
/// value do not.
[[nodiscard]] std::string dataLocationFrom(const char* environment, const std::string& settingsFile);

}  // namespace keltop::platform
