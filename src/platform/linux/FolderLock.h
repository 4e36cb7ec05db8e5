#pragma once

#include <string>

#include "platform/linux/FileDescriptor.h"

namespace keltop::platform {

/// Holds back all others who look for a name in a folder, or give one, for a scope: between the look and the giving
/// nobody else comes. Without it both go on: a folder that cannot be read, or a holder that keeps it longer than two
/// seconds, must stop nobody.
class FolderLock {
 public:
  explicit FolderLock(const std::string& folder) noexcept;

 private:
  FileDescriptor folder_;  ///< the lock goes with it
};

}  // namespace keltop::platform
