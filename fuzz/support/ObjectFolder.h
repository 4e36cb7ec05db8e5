#pragma once

#include <cstdlib>

#include "support/Check.h"
#include "support/TemporaryFolder.h"

namespace keltop::fuzz {

/// The folder of the process's own in which its machine-wide objects lie from now on.
inline const TemporaryFolder& objectFolder() {
  static const TemporaryFolder folder;
  static const bool used = ::setenv("KELTOP_OBJECT_DIR", folder.path().c_str(), 1) == 0;
  check(used, "no folder of its own");
  return folder;
}

}  // namespace keltop::fuzz
