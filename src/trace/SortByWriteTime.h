#pragma once

#include <map>
#include <string>

#include "trace/FindFiles.h"

namespace QXUTIL {

/// The files of a search from the oldest to the newest, those of one second in the order they were found. The key is
/// the decimal text of the write time.
[[nodiscard]] std::multimap<std::string, File> sortByWriteTime(const FindFiles& found);

}  // namespace QXUTIL
