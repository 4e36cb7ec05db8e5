#include "platform/linux/OwnedMutexes.h"

#include <atomic>
#include <utility>
#include <vector>

#include "platform/linux/KernelObject.h"

namespace keltop::platform {

namespace {

/// Constant-initialised and trivially destroyed: still good after the list below has gone, when exit routines lock.
thread_local bool listGone = false;

class OwnedList {
 public:
  OwnedList() = default;
  OwnedList(const OwnedList&) = delete;
  OwnedList& operator=(const OwnedList&) = delete;
  ~OwnedList() {
    listGone = true;
    for (const auto& mutex : mutexes) {
      mutex->abandon();
    }
  }

  std::vector<std::shared_ptr<KernelObject>> mutexes;
};

OwnedList& ownedList() {
  thread_local OwnedList list;
  return list;
}

}  // namespace

std::uint64_t threadNumber() noexcept {
  static std::atomic<std::uint64_t> last = 0;
  thread_local std::uint64_t number = 0;
  if (number == 0) {
    number = ++last;
  }
  return number;
}

void rememberOwned(const std::shared_ptr<KernelObject>& mutex) {
  // A thread whose list has gone is ending with its process; the kernel then gives up what it owns.
  if (!listGone) {
    ownedList().mutexes.push_back(mutex);
  }
}

void forgetOwned(const KernelObject* mutex) noexcept {
  if (!listGone) {
    std::erase_if(ownedList().mutexes, [mutex](const auto& owned) { return owned.get() == mutex; });
  }
}

}  // namespace keltop::platform
