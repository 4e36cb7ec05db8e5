#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/KernelObjects.h"
#include "platform/linux/WaitableObject.h"

namespace keltop::platform {

/// What one thread has looked up lately, so that it need not lock the table of all handles for each operation. It holds
/// the objects, and so is where the mutexes are found that the thread owns when it ends.
class HandleCache {
 public:
  HandleCache() = default;
  /// Abandons the mutexes that the thread owns.
  ~HandleCache();
  HandleCache(const HandleCache&) = delete;
  HandleCache& operator=(const HandleCache&) = delete;

  /// The handle's object, or null. `closings` counts the handles that the process has closed: what was found before
  /// the last closing is forgotten. Throws when there is no memory to keep an owned mutex.
  [[nodiscard]] WaitableObject* find(ObjectHandle handle, std::uint64_t closings) {
    if (closings != closings_) {
      forgetAll(closings);
    }
    const Entry& entry = entries_[place(handle)];
    return entry.handle == handle ? entry.object.get() : nullptr;
  }

  /// Keeps an object that the table gave for the handle after that many closings.
  void remember(ObjectHandle handle, const std::shared_ptr<WaitableObject>& object, std::uint64_t closings);

 private:
  struct Entry {
    ObjectHandle handle = ObjectHandle::none;
    std::shared_ptr<WaitableObject> object;
  };
  static constexpr std::size_t kEntries = 8;

  [[nodiscard]] static std::size_t place(ObjectHandle handle) noexcept {
    return static_cast<std::size_t>(handle) % kEntries;
  }
  void forgetAll(std::uint64_t closings);
  void forget(Entry& entry);

  std::array<Entry, kEntries> entries_;
  std::vector<std::shared_ptr<WaitableObject>> owned_;  ///< mutexes that the thread owned when they were forgotten
  std::uint64_t closings_ = 0;
};

/// The calling thread's; null once that has gone, when the exit routines of a process still use objects. What the
/// thread takes from then on is given up with the process.
[[nodiscard]] HandleCache* handleCache();

}  // namespace keltop::platform
