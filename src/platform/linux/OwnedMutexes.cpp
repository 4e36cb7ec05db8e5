#include "platform/linux/OwnedMutexes.h"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/linux/KernelObject.h"

namespace keltop::platform {

namespace {

/// Guards every thread's list: whoever closes a mutex's last handle takes it off its owner's.
constinit std::mutex listGuard;

constinit thread_local OwnedPlace* firstOwned = nullptr;
constinit thread_local bool endNoticed = false;

std::shared_ptr<KernelObject> unlinked(OwnedPlace& place) noexcept {
  if (place.link != nullptr) {
    *place.link = place.next;
    if (place.next != nullptr) {
      place.next->link = place.link;
    }
    place.link = nullptr;
    place.next = nullptr;
  }
  return std::move(place.kept);
}

/// Runs when a thread ends that has owned a mutex, after its C++ thread-local objects have gone, which may still lock.
void abandonOwned(void* /*noticed*/) {
  endNoticed = false;
  for (;;) {
    std::shared_ptr<KernelObject> mutex;
    {
      const std::lock_guard<std::mutex> guard(listGuard);
      if (firstOwned == nullptr) {
        return;
      }
      mutex = unlinked(*firstOwned);
    }
    mutex->abandon();
  }
}

/// A key of the threads' own storage: unlike a C++ thread-local object with a destructor, setting one of the first
/// takes no memory.
std::optional<pthread_key_t> endKey() noexcept {
  static const std::optional<pthread_key_t> key = []() noexcept -> std::optional<pthread_key_t> {
    pthread_key_t made = 0;
    return ::pthread_key_create(&made, abandonOwned) == 0 ? std::optional(made) : std::nullopt;
  }();
  return key;
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

bool noticeThreadEnd() noexcept {
  if (!endNoticed) {
    const std::optional<pthread_key_t> key = endKey();
    endNoticed = key && ::pthread_setspecific(*key, &endNoticed) == 0;
  }
  return endNoticed;
}

void rememberOwned(OwnedPlace& place, std::shared_ptr<KernelObject> mutex) noexcept {
  const std::lock_guard<std::mutex> guard(listGuard);
  place.kept = std::move(mutex);
  place.next = firstOwned;
  place.link = &firstOwned;
  if (place.next != nullptr) {
    place.next->link = &place.next;
  }
  firstOwned = &place;
}

std::shared_ptr<KernelObject> forgetOwned(OwnedPlace& place) noexcept {
  const std::lock_guard<std::mutex> guard(listGuard);
  return unlinked(place);
}

}  // namespace keltop::platform
