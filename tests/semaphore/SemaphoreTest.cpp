#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "semaphore/Semaphore.h"
#include "support/ClosedHandle.h"
#include "support/Timing.h"
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

/// How many threads go on waiting when so many do, or do not in time.
std::ptrdiff_t waitingOnce(const std::vector<std::future<std::uint32_t>>& takers, std::ptrdiff_t expected) {
  const auto begin = std::chrono::steady_clock::now();
  std::ptrdiff_t waiting = keltop::waitingOf(takers);
  while (waiting > expected && std::chrono::steady_clock::now() - begin < std::chrono::seconds(10)) {
    waiting = keltop::waitingOf(takers);
  }
  return waiting;
}

TEST(Semaphore, everyPostWakesOneWaiter) {
  for (const std::string& name : {std::string(), uniqueName()}) {
    Semaphore semaphore;
    ASSERT_TRUE(semaphore.create(0, 0, name));
    std::vector<std::future<std::uint32_t>> takers(3);
    for (std::future<std::uint32_t>& taker : takers) {
      taker = std::async(std::launch::async,
                         [&semaphore] { return platform::waitForObject(semaphore.handle(), keltop::kLong); });
    }
    EXPECT_EQ(keltop::waitingOf(takers), 3);
    for (const std::ptrdiff_t left : {2, 1, 0}) {
      ASSERT_TRUE(platform::releaseSemaphore(semaphore.handle()));
      EXPECT_EQ(waitingOnce(takers, left), left);
    }
    for (std::future<std::uint32_t>& taker : takers) {
      EXPECT_EQ(taker.get(), platform::kWaitObject);
    }
    EXPECT_EQ(platform::waitForObject(semaphore.handle(), 0), platform::kWaitTimeout);
  }
}

TEST(Semaphore, noPostIsLostOrTakenTwice) {
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
