#include "platform/linux/HandleCache.h"

namespace keltop::platform {

namespace {

thread_local bool cacheGone = false;

}  // namespace

HandleCache::~HandleCache() {
  cacheGone = true;
  for (const Entry& entry : entries_) {
    if (entry.object) {
      entry.object->abandon();
    }
  }
  for (const auto& mutex : owned_) {
    mutex->abandon();
  }
}

void HandleCache::remember(ObjectHandle handle, const std::shared_ptr<WaitableObject>& object, std::uint64_t closings) {
  if (closings != closings_) {
    forgetAll(closings);
  }
  Entry& entry = entries_[place(handle)];
  forget(entry);
  entry = {handle, object};
}

void HandleCache::forgetAll(std::uint64_t closings) {
  for (Entry& entry : entries_) {
    forget(entry);
  }
  closings_ = closings;
}

void HandleCache::forget(Entry& entry) {
  if (entry.object && entry.object->ownedByCaller()) {
    std::erase_if(owned_, [](const auto& mutex) { return !mutex->ownedByCaller(); });
    owned_.push_back(entry.object);
  }
  entry = {};
}

HandleCache* handleCache() {
  thread_local HandleCache cache;
  return cacheGone ? nullptr : &cache;
}

}  // namespace keltop::platform
