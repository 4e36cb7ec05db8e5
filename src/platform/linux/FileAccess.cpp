#include "platform/FileAccess.h"

#include <sys/stat.h>

namespace keltop::platform {

bool othersMayRead(const std::string& path) noexcept {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

}  // namespace keltop::platform
