#include "platform/KernelObjects.h"

#include <atomic>
#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/NoDestructor.h"
#include "platform/linux/HandleCache.h"
#include "platform/linux/LocalEvent.h"
#include "platform/linux/LocalMutex.h"
#include "platform/linux/LocalSemaphore.h"
#include "platform/linux/ObjectFolder.h"

namespace keltop::platform {

namespace {

thread_local std::uint32_t threadError = kNoError;

/// The open handles of this process. A number is never used twice, so a closed handle stays closed.
class HandleTable {
 public:
  ObjectHandle add(std::shared_ptr<WaitableObject> object) {
    const std::lock_guard<std::mutex> guard(guard_);
    objects_.emplace(++last_, std::move(object));
    return static_cast<ObjectHandle>(last_);
  }

  /// Null when the handle is not open. Good until the calling thread's next look-up.
  std::shared_ptr<WaitableObject> find(ObjectHandle handle) {
    HandleCache* const cache = handleCache();
    if (cache != nullptr) {
      if (WaitableObject* const known = cache->find(handle, closings_)) {
        return {std::shared_ptr<void>(), known};  // not counted: the cache holds it
      }
    }
    const std::lock_guard<std::mutex> guard(guard_);
    const auto entry = objects_.find(static_cast<std::uintptr_t>(handle));
    if (entry == objects_.end()) {
      return nullptr;
    }
    if (cache != nullptr && entry->second->mayBeKept()) {
      cache->remember(handle, entry->second, closings_);
    }
    return entry->second;
  }

  std::shared_ptr<WaitableObject> remove(ObjectHandle handle) {
    const std::lock_guard<std::mutex> guard(guard_);
    const auto node = objects_.extract(static_cast<std::uintptr_t>(handle));
    if (node.empty()) {
      return nullptr;
    }
    ++closings_;
    return node.mapped();
  }

 private:
  std::mutex guard_;
  std::uintptr_t last_ = 0;
  std::unordered_map<std::uintptr_t, std::shared_ptr<WaitableObject>> objects_;
  std::atomic<std::uint64_t> closings_ = 0;  ///< how many handles were closed; changed under the guard
};

HandleTable& handleTable() {
  static NoDestructor<HandleTable> instance;
  return instance.get();
}

/// Runs an operation of this interface, which must not throw: what it could not allocate is an error result.
template <typename Result, typename Operation>
Result guarded(Result failure, Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::exception&) {
    threadError = kErrorNotEnoughMemory;
    return failure;
  }
}

ObjectHandle addNamed(const NamedResult& found) {
  threadError = found.error;
  if (!found.object) {
    return ObjectHandle::none;
  }
  const auto uncount = [](NamedObject* object) { object->handleClosed(); };
  // Until the table has it, the object counts a handle that nobody could close.
  std::unique_ptr<NamedObject, decltype(uncount)> counted(found.object.get(), uncount);
  const ObjectHandle handle = handleTable().add(found.object);
  (void)counted.release();
  return handle;
}

std::shared_ptr<WaitableObject> makeLocalObject(const ObjectState& state) {
  switch (state.type) {
    case ObjectType::mutex:
      return std::make_shared<LocalMutex>();
    case ObjectType::semaphore:
      return std::make_shared<LocalSemaphore>(state.value, state.limit);
    default:
      return std::make_shared<LocalEvent>();
  }
}

ObjectHandle create(const ObjectState& state, const std::string& name) noexcept {
  return guarded(ObjectHandle::none, [&] {
    if (name.empty()) {
      threadError = kNoError;
      return handleTable().add(makeLocalObject(state));
    }
    return addNamed(createNamedObject(name, state));
  });
}

/// Applies an operation to a handle's object, when it is one of that type.
bool apply(ObjectHandle handle, ObjectType type, std::uint32_t (WaitableObject::*operation)()) noexcept {
  return guarded(false, [&] {
    const std::shared_ptr<WaitableObject> object = handleTable().find(handle);
    const std::uint32_t error = object && object->type() == type ? ((*object).*operation)() : kErrorInvalidHandle;
    if (error != kNoError) {
      threadError = error;
    }
    return error == kNoError;
  });
}

}  // namespace

ObjectHandle createEvent(const OpenAccess* /*access*/, const std::string& name) noexcept {
  return create({ObjectType::event, 0, 1}, name);
}

ObjectHandle createMutex(const OpenAccess* /*access*/, const std::string& name) noexcept {
  return create({ObjectType::mutex, 0, 1}, name);
}

ObjectHandle createSemaphore(const OpenAccess* /*access*/, std::int32_t initialCount, std::int32_t maximumCount,
                             const std::string& name) noexcept {
  if (maximumCount < 1 || initialCount < 0 || initialCount > maximumCount) {
    threadError = kErrorInvalidParameter;
    return ObjectHandle::none;
  }
  return create(
      {ObjectType::semaphore, static_cast<std::uint32_t>(initialCount), static_cast<std::uint32_t>(maximumCount)},
      name);
}

ObjectHandle openEvent(const std::string& name) noexcept {
  return guarded(ObjectHandle::none, [&] { return addNamed(openNamedObject(name, ObjectType::event)); });
}

bool setEvent(ObjectHandle event) noexcept {
  return apply(event, ObjectType::event, &WaitableObject::setEvent);
}

bool releaseMutex(ObjectHandle mutex) noexcept {
  return apply(mutex, ObjectType::mutex, &WaitableObject::releaseMutex);
}

bool releaseSemaphore(ObjectHandle semaphore) noexcept {
  return apply(semaphore, ObjectType::semaphore, &WaitableObject::releaseSemaphore);
}

std::uint32_t waitForObject(ObjectHandle object, std::uint32_t milliseconds) noexcept {
  return guarded(kWaitFailed, [&] {
    const std::shared_ptr<WaitableObject> found = handleTable().find(object);
    if (!found) {
      threadError = kErrorInvalidHandle;
      return kWaitFailed;
    }
    const std::uint32_t result = found->wait(milliseconds);
    if (result == kWaitFailed) {
      threadError = kErrorInvalidData;
    }
    return result;
  });
}

bool closeObject(ObjectHandle object) noexcept {
  return guarded(false, [&] {
    const std::shared_ptr<WaitableObject> closed = handleTable().remove(object);
    if (!closed) {
      threadError = kErrorInvalidHandle;
      return false;
    }
    closed->handleClosed();
    return true;
  });
}

std::uint32_t lastError() noexcept {
  return threadError;
}

}  // namespace keltop::platform
