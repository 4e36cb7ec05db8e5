#pragma once

#include <string_view>

#include "semaphore/Mutex.h"

namespace SEMAPHORE {

/// Owns the machine-wide mutex "name + suffix" for a scope. When the mutex cannot be had, the scope runs unlocked.
class MutexAutoLock : public Mutex {
 public:
  /// Opens or creates the mutex and waits for it without a time limit.
  explicit MutexAutoLock(std::string_view name, std::string_view suffix = {});
  ~MutexAutoLock() override;
};

}  // namespace SEMAPHORE
