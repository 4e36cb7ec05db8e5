#include <gtest/gtest.h>

#include <thread>
#include <type_traits>

#include "semaphore/Semaphore.h"
#include "support/ClosedHandle.h"
#include "support/UniqueName.h"

namespace SEMAPHORE {
namespace {

namespace platform = keltop::platform;
using keltop::uniqueName;
using platform::ObjectHandle;

static_assert(std::has_virtual_destructor_v<Semaphore> && !std::is_copy_constructible_v<Semaphore> &&
              !std::is_copy_assignable_v<Semaphore>);

TEST(Semaphore, countsFromZeroToTwoHundredWhateverIsAskedFor) {
  for (const std::string& name : {std::string(), uniqueName()}) {
    Semaphore semaphore;
    ASSERT_TRUE(semaphore.create(7, 9, name));
    EXPECT_EQ(platform::waitForObject(semaphore.handle(), 0), platform::kWaitTimeout);
    for (int i = 0; i < 200; ++i) {
      ASSERT_TRUE(platform::releaseSemaphore(semaphore.handle())) << i;
    }
    EXPECT_FALSE(platform::releaseSemaphore(semaphore.handle()));
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(platform::waitForObject(semaphore.handle(), 0), platform::kWaitObject) << i;
    }
    EXPECT_EQ(platform::waitForObject(semaphore.handle(), 10), platform::kWaitTimeout);
  }
}

TEST(Semaphore, aNameIsSharedAndNoNameIsNot) {
  const std::string name = uniqueName();
  Semaphore first;
  Semaphore second;
  Semaphore unnamed;
  ASSERT_TRUE(first.create(0, 0, name));
  ASSERT_TRUE(second.create(0, 0, name));
  ASSERT_TRUE(unnamed.create(0, 0, {}));
  ASSERT_TRUE(platform::releaseSemaphore(first.handle()));
  EXPECT_EQ(platform::waitForObject(unnamed.handle(), 0), platform::kWaitTimeout);
  EXPECT_EQ(platform::waitForObject(second.handle(), 0), platform::kWaitObject);
}

TEST(Semaphore, aSecondCreateIsTrueAndKeepsAClosedHandle) {
  EXPECT_TRUE(keltop::showsClosed([] {
    Semaphore semaphore;
    EXPECT_TRUE(semaphore.create(0, 0, {}));
    const ObjectHandle handle = semaphore.handle();
    EXPECT_TRUE(semaphore.create(0, 0, {}));
    EXPECT_EQ(semaphore.handle(), handle);
    return platform::waitForObject(handle, 0);
  }));
}

TEST(Semaphore, anImpossibleNameGivesNoHandle) {
  Semaphore semaphore;
  EXPECT_FALSE(semaphore.create(0, 0, keltop::impossibleName()));
  EXPECT_EQ(semaphore.handle(), ObjectHandle::none);
}

TEST(Semaphore, destructionClosesTheHandle) {
  EXPECT_TRUE(keltop::showsClosed([] {
    ObjectHandle handle = ObjectHandle::none;
    {
      Semaphore semaphore;
      EXPECT_TRUE(semaphore.create(0, 0, {}));
      handle = semaphore.handle();
    }
    return platform::waitForObject(handle, 0);
  }));
}

TEST(Semaphore, everyPostWakesOneWaiter) {
  for (const std::string& name : {std::string(), uniqueName()}) {
    Semaphore semaphore;
    ASSERT_TRUE(semaphore.create(0, 0, name));
    std::thread taker([&] {
      for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(platform::waitForObject(semaphore.handle(), platform::kInfinite), platform::kWaitObject);
      }
    });
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(platform::releaseSemaphore(semaphore.handle()));
    }
    taker.join();
    EXPECT_EQ(platform::waitForObject(semaphore.handle(), 0), platform::kWaitTimeout);
  }
}

}  // namespace
}  // namespace SEMAPHORE
