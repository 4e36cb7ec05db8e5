#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "semaphore/MutexAutoLock.h"
#include "support/UniqueName.h"

namespace SEMAPHORE {
namespace {

namespace platform = keltop::platform;
using keltop::uniqueName;

std::uint32_t tryLock(const std::string& name) {
  std::uint32_t result = 0;
  std::thread([&] {
    Mutex mutex;
    mutex.create(name, true);
    result = mutex.lock(0);
    mutex.unlock();
  }).join();
  return result;
}

TEST(MutexAutoLock, ownsTheMutexOfNameAndSuffixForItsLife) {
  const std::string name = uniqueName();
  Mutex other;  // keeps the object in being, so that closing it is not enough
  other.create(name + "-x", true);
  {
    const MutexAutoLock lock(name, "-x");
    EXPECT_EQ(tryLock(name + "-x"), platform::kWaitTimeout);
    EXPECT_EQ(tryLock(name), platform::kWaitObject);
  }
  EXPECT_EQ(tryLock(name + "-x"), platform::kWaitObject);
}

TEST(MutexAutoLock, withoutASuffixTheNameIsAll) {
  const std::string name = uniqueName();
  const MutexAutoLock lock(name);
  EXPECT_EQ(tryLock(name), platform::kWaitTimeout);
}

TEST(MutexAutoLock, theSecondOneWaitsForTheFirst) {
  const std::string name = uniqueName();
  auto first = std::make_unique<MutexAutoLock>(name, "");
  std::promise<void> beginning;
  std::promise<void> owning;
  std::thread second([&] {
    beginning.set_value();
    const MutexAutoLock lock(name, "");
    owning.set_value();
  });
  beginning.get_future().wait();
  std::future<void> owned = owning.get_future();
  EXPECT_EQ(owned.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  first.reset();
  owned.wait();
  second.join();
}

TEST(MutexAutoLock, locksAndUnlocksByHandToo) {
  const std::string name = uniqueName();
  MutexAutoLock lock(name);
  Mutex& base = lock;
  base.unlock();
  EXPECT_EQ(tryLock(name), platform::kWaitObject);
  EXPECT_EQ(base.lock(0), platform::kWaitObject);
}

TEST(MutexAutoLock, withoutAHandleItDoesNotWait) {
  const MutexAutoLock lock(keltop::impossibleName());
  EXPECT_EQ(lock.handle(), platform::ObjectHandle::none);
}

}  // namespace
}  // namespace SEMAPHORE
