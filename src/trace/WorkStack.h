#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

#include "platform/KernelObjects.h"
#include "semaphore/Mutex.h"
#include "semaphore/ScopedLock.h"
#include "semaphore/Semaphore.h"

namespace QXUTIL {

/// A queue of at most 200 records from many threads to one. When it is full the oldest record makes room for the
/// newest. The hooks are for derived classes.
template <typename Record>
class WorkStack {
 public:
  static constexpr std::size_t kMostRecords = 200;

  WorkStack() { (void)waiting_.create(0, static_cast<std::int32_t>(kMostRecords), {}); }
  WorkStack(const WorkStack&) = delete;
  WorkStack& operator=(const WorkStack&) = delete;

  /// Adds a record at the back. Refused, silently, when the queue cannot be locked.
  virtual void push(Record record) {
    {
      const SEMAPHORE::ScopedLock lock(mutex_, keltop::platform::kInfinite);
      if (!lock.held()) {
        return;
      }
      records_.push_back(std::move(record));
      if (records_.size() > kMostRecords) {
        (void)removeFront();
      }
    }
    afterPush();
    keltop::platform::releaseSemaphore(waiting_.handle());
  }

  /// Moves the front record out, without taking a count; false when there is none.
  virtual bool take(Record& record) {
    const SEMAPHORE::ScopedLock lock(mutex_, keltop::platform::kInfinite);
    if (!lock.held() || records_.empty()) {
      return false;
    }
    record = removeFront();
    return true;
  }

  /// Removes every record and its count.
  virtual void clear() {
    const SEMAPHORE::ScopedLock lock(mutex_, keltop::platform::kInfinite);
    while (lock.held() && !records_.empty()) {
      (void)keltop::platform::waitForObject(waiting_.handle(), 0);
      (void)removeFront();
    }
  }

 protected:
  /// A record was added; not locked.
  virtual void afterPush() {}

  /// A record was removed, for whatever reason; locked.
  virtual void removed(Record& /*record*/) {}

 public:
  virtual ~WorkStack() { WorkStack::clear(); }

  /// Waits for a record at most that many milliseconds; `fallback` when none came.
  [[nodiscard]] Record pop(std::uint32_t milliseconds, Record fallback) {
    if (keltop::platform::waitForObject(waiting_.handle(), milliseconds) != keltop::platform::kWaitObject) {
      return fallback;
    }
    // A count can be left without its record: the overflow may take the record between the wait and the lock.
    Record record;
    return WorkStack::take(record) ? record : fallback;
  }

 private:
  Record removeFront() {
    Record record = std::move(records_.front());
    records_.pop_front();
    removed(record);
    return record;
  }

  std::deque<Record> records_;
  SEMAPHORE::Mutex mutex_;
  SEMAPHORE::Semaphore waiting_;  ///< counts the records
};

}  // namespace QXUTIL
