#include "platform/linux/DataLocation.h"

#include <fstream>
#include <string_view>

namespace keltop::platform {

namespace {

constexpr std::string_view kDataLocationKey = "DataLocation";
constexpr std::string_view kFallbackPrefix = "/var/lib";
constexpr std::string_view kFallbackFolder = "/vs";

std::string_view trimmed(std::string_view text) noexcept {
  static constexpr std::string_view kBlanks = " \t\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string readSetting(const std::string& path, std::string_view key) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::string_view text = line;
    const std::size_t equals = text.find('=');
    if (equals != std::string_view::npos && trimmed(text.substr(0, equals)) == key) {
      return std::string(trimmed(text.substr(equals + 1)));
    }
  }
  return {};
}

}  // namespace

std::string dataLocationFrom(const char* environment, const std::string& settingsFile) {
  if (environment != nullptr && *environment != '\0') {
    return environment;
  }
  std::string location = readSetting(settingsFile, kDataLocationKey);
  return location.empty() ? std::string(kFallbackPrefix).append(kFallbackFolder) : location;
}

}  // namespace keltop::platform
