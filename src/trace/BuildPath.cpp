#include "trace/BuildPath.h"

#include "platform/Settings.h"

namespace keltop {

std::string buildPath(std::string_view folder, std::string_view name, std::string_view part3, std::string_view part4) {
  const char separator = platform::pathSeparator();
  std::string path = platform::dataLocation();
  for (const std::string_view part : {folder, name, part3, part4}) {
    if (!part.empty() && !part.starts_with(separator)) {
      path += separator;
    }
    path += part;
  }
  return path;
}

}  // namespace keltop
