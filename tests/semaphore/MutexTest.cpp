#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <type_traits>
#include <vector>

#include "semaphore/Mutex.h"
#include "support/ClosedHandle.h"
#include "support/DeniedName.h"
#include "support/Timing.h"
#include "support/UniqueName.h"

namespace SEMAPHORE {
namespace {

namespace platform = keltop::platform;
using keltop::uniqueName;
using platform::ObjectHandle;

static_assert(std::has_virtual_destructor_v<Mutex> && !std::is_copy_constructible_v<Mutex> &&
              !std::is_copy_assignable_v<Mutex>);

constexpr std::uint32_t kAcquired = 0;
constexpr std::uint32_t kTimeUp = 258;
constexpr std::uint32_t kOther = 128;

/// Locks in another thread, which releases again when it got the mutex, and gives the result.
std::uint32_t lockElsewhere(Mutex& mutex, std::uint32_t milliseconds = 0) {
  std::uint32_t result = 0;
  std::thread([&] {
    result = mutex.lock(milliseconds);
    mutex.unlock();
  }).join();
  return result;
}

TEST(Mutex, isMadeAsAnUnnamedOneThatIsFree) {
  Mutex mutex;
  EXPECT_NE(mutex.handle(), ObjectHandle::none);
  EXPECT_EQ(lockElsewhere(mutex), kAcquired);
}

TEST(Mutex, keepsOtherThreadsOutUntilEveryHoldIsReleased) {
  Mutex mutex;
  EXPECT_EQ(mutex.lock(0), kAcquired);
  EXPECT_EQ(mutex.lock(0xFFFFFFFFU), kAcquired);
  EXPECT_EQ(lockElsewhere(mutex, 20), kTimeUp);
  mutex.unlock();
  EXPECT_EQ(lockElsewhere(mutex), kTimeUp);
  mutex.unlock();
  EXPECT_EQ(lockElsewhere(mutex), kAcquired);
}

TEST(Mutex, isRefusedWhereAccessIsDenied) {
  const keltop::DeniedName denied;
  for (const bool openExisting : {false, true}) {
    Mutex mutex;
    EXPECT_FALSE(mutex.create(denied.text(), openExisting));
    EXPECT_EQ(mutex.handle(), ObjectHandle::none);
    EXPECT_EQ(mutex.lock(0), kOther);
  }
}

/// What counts is the error of this creation, and one that succeeds has none.
TEST(Mutex, isCreatedWhateverErrorStoodBefore) {
  for (const bool openExisting : {false, true}) {
    {
      const keltop::DeniedName denied;
      Mutex refused;
      EXPECT_FALSE(refused.create(denied.text(), openExisting));
    }
    ASSERT_EQ(platform::lastError(), platform::kErrorAccessDenied);
    Mutex mutex;
    EXPECT_TRUE(mutex.create(uniqueName(), openExisting));
    EXPECT_NE(mutex.handle(), ObjectHandle::none);
    EXPECT_EQ(lockElsewhere(mutex), kAcquired);
  }
}

TEST(Mutex, onlyTheOwnerCanRelease) {
  Mutex mutex;
  ASSERT_EQ(mutex.lock(0), kAcquired);
  std::thread([&] { mutex.unlock(); }).join();
  EXPECT_EQ(lockElsewhere(mutex), kTimeUp);
}

TEST(Mutex, releasedMutexGoesToTheWaitingThread) {
  Mutex mutex;
  ASSERT_EQ(mutex.lock(0), kAcquired);
  std::future<std::uint32_t> waiter =
      std::async(std::launch::async, [&mutex] { return lockElsewhere(mutex, keltop::kLong); });
  EXPECT_TRUE(keltop::waits(waiter));
  mutex.unlock();
  EXPECT_TRUE(keltop::ends(waiter));
  EXPECT_EQ(waiter.get(), kAcquired);
}

TEST(Mutex, anOwnerThatEndsAbandonsItToTheNextWhoThenOwnsIt) {
  for (const std::string& name : {std::string(), uniqueName()}) {
    Mutex mutex;
    ASSERT_TRUE(mutex.create(name, true));
    std::thread([&] { EXPECT_EQ(mutex.lock(0), kAcquired); }).join();
    EXPECT_EQ(mutex.lock(1000), kOther);
    EXPECT_EQ(lockElsewhere(mutex), kTimeUp);
    mutex.unlock();
    EXPECT_EQ(lockElsewhere(mutex), kAcquired);
  }
}

TEST(Mutex, aNameThatExistsIsRefusedUnlessItMayBeOpened) {
  const std::string name = uniqueName();
  Mutex first;
  ASSERT_TRUE(first.create(name, false));
  Mutex second;
  EXPECT_FALSE(second.create(name, false));
  EXPECT_EQ(second.handle(), ObjectHandle::none);
  EXPECT_TRUE(second.create(name, true));
  EXPECT_EQ(first.lock(0), kAcquired);
  EXPECT_EQ(lockElsewhere(second), kTimeUp);
  EXPECT_EQ(second.lock(0), kAcquired);  // the same thread, by another handle
}

TEST(Mutex, creationAnewReplacesTheHandle) {
  const std::string name = uniqueName();
  Mutex mutex;
  ASSERT_TRUE(mutex.create(name, false));
  EXPECT_TRUE(mutex.create({}, false));
  EXPECT_NE(mutex.handle(), ObjectHandle::none);
  Mutex other;
  EXPECT_TRUE(other.create(name, false));  // nobody holds the name any more
}

TEST(Mutex, withoutAHandleLockingGives128AndUnlockingNothing) {
  const std::string name = uniqueName();
  Mutex holder;
  ASSERT_TRUE(holder.create(name, false));
  Mutex mutex;
  ASSERT_FALSE(mutex.create(name, false));
  EXPECT_EQ(mutex.lock(0), kOther);
  EXPECT_EQ(mutex.lock(0xFFFFFFFFU), kOther);
  mutex.unlock();
}

TEST(Mutex, aFailedWaitGives128) {
  EXPECT_TRUE(keltop::showsClosed([] {
    Mutex mutex;
    EXPECT_TRUE(platform::closeObject(mutex.handle()));
    return mutex.lock(0) == kOther ? platform::kWaitFailed : platform::kWaitObject;
  }));
}

TEST(Mutex, aFailureThatIsNeitherDeniedNorExistingIsTrueWithoutAHandle) {
  Mutex mutex;
  EXPECT_TRUE(mutex.create(keltop::impossibleName(), false));
  EXPECT_EQ(mutex.handle(), ObjectHandle::none);
  EXPECT_EQ(mutex.lock(0), kOther);
}

TEST(Mutex, excludesThreads) {
  for (const std::string& name : {std::string(), uniqueName()}) {
    Mutex mutex;
    ASSERT_TRUE(mutex.create(name, true));
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int round = 0; round < 500; ++round) {
          ASSERT_EQ(mutex.lock(platform::kInfinite), kAcquired);
          ++counter;
          mutex.unlock();
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(counter, 2000);
  }
}

}  // namespace
}  // namespace SEMAPHORE
