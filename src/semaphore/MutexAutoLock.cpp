#include "semaphore/MutexAutoLock.h"

#include <string>

namespace SEMAPHORE {

MutexAutoLock::MutexAutoLock(std::string_view name, std::string_view suffix) {
  create(std::string(name).append(suffix), true);
  Mutex::lock(keltop::platform::kInfinite);  // at once, and without waiting, when there is no handle
}

MutexAutoLock::~MutexAutoLock() {
  Mutex::unlock();
}

}  // namespace SEMAPHORE
