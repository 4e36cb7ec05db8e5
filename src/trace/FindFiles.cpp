#include "trace/FindFiles.h"

#include <utility>

#include "platform/Files.h"
#include "platform/Settings.h"

namespace QXUTIL {

void FindFiles::clear() noexcept {
  files_.clear();
}

bool FindFiles::add(File file) {
  files_.push_back(std::move(file));
  return true;
}

std::size_t FindFiles::search(const std::string& folder, const std::string& pattern) {
  clear();
  for (keltop::platform::FoundFile& found : keltop::platform::findFiles(folder, pattern)) {
    File file;
    file.folder = folder;
    file.path = folder + keltop::platform::pathSeparator() + found.name;
    file.name = std::move(found.name);
    file.created = found.created;
    file.accessed = found.accessed;
    file.written = found.written;
    file.size = found.size;
    (void)add(std::move(file));
  }
  return files_.size();
}

}  // namespace QXUTIL
