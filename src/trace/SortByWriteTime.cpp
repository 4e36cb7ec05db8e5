#include "trace/SortByWriteTime.h"

namespace QXUTIL {

std::multimap<std::string, File> sortByWriteTime(const FindFiles& found) {
  std::multimap<std::string, File> sorted;
  for (const File& file : found.files()) {
    sorted.emplace(std::to_string(file.written), file);
  }
  return sorted;
}

}  // namespace QXUTIL
