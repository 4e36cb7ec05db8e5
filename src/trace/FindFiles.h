#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "trace/File.h"

namespace QXUTIL {

/// The files that one search found, in the order it found them.
class FindFiles {
 public:
  FindFiles() = default;
  virtual ~FindFiles() = default;
  FindFiles(const FindFiles&) = delete;
  FindFiles& operator=(const FindFiles&) = delete;

  virtual void clear() noexcept;

  /// Always true.
  virtual bool add(File file);

  /// Replaces the entries by the folder's files, not its folders, whose names match the pattern; gives their number.
  std::size_t search(const std::string& folder, const std::string& pattern);

  [[nodiscard]] const std::vector<File>& files() const noexcept { return files_; }

 private:
  std::vector<File> files_;
};

}  // namespace QXUTIL
