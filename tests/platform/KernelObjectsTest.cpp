#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/Files.h"
#include "platform/KernelObjects.h"
#include "support/ClosedHandle.h"
#include "support/OnWindows.h"
#include "support/Timing.h"
#include "support/UniqueName.h"

namespace keltop::platform {
namespace {

std::string kernelName() {
  return "Global\\" + uniqueName();
}

TEST(KernelObjects, theLastErrorIsThatOfTheCallWhateverRanSince) {
  const std::string name = kernelName();
  const ObjectHandle first = createEvent(nullptr, name);
  const ObjectHandle second = createEvent(nullptr, name);
  EXPECT_FALSE(pathExists("no such file"));  // of which the system keeps an error, too
  EXPECT_EQ(lastError(), kErrorAlreadyExists);
  EXPECT_TRUE(closeObject(first));
  EXPECT_TRUE(closeObject(second));
}

TEST(KernelObjects, unnamedObjectsAreDistinct) {
  const ObjectHandle first = createEvent(nullptr, {});
  const ObjectHandle second = createEvent(nullptr, {});
  EXPECT_EQ(lastError(), kNoError);
  EXPECT_TRUE(setEvent(first));
  EXPECT_EQ(waitForObject(first, 0), kWaitObject);
  EXPECT_EQ(waitForObject(second, 0), kWaitTimeout);
  EXPECT_TRUE(closeObject(first));
  EXPECT_TRUE(closeObject(second));
}

TEST(KernelObjects, aClosedHandleFailsCleanlyEverywhere) {
  EXPECT_TRUE(showsClosed([] {
    const ObjectHandle event = createEvent(nullptr, {});
    EXPECT_TRUE(closeObject(event));
    return waitForObject(event, 0);
  }));
  // Windows gives a closed handle's number to whatever some thread opens next; it has none as high as this one.
  ObjectHandle closed = ObjectHandle{0x7FFF'FF00};
  if (!onWindows()) {
    closed = createEvent(nullptr, {});
    ASSERT_TRUE(closeObject(closed));
  }
  EXPECT_FALSE(setEvent(closed));
  EXPECT_EQ(lastError(), kErrorInvalidHandle);
  EXPECT_FALSE(releaseMutex(closed));
  EXPECT_FALSE(releaseSemaphore(closed));
  EXPECT_EQ(waitForObject(closed, kInfinite), kWaitFailed);
  EXPECT_FALSE(closeObject(closed));
  EXPECT_FALSE(closeObject(ObjectHandle::none));
}

TEST(KernelObjects, anOperationOfAnotherKindIsRefused) {
  const ObjectHandle event = createEvent(nullptr, {});
  const ObjectHandle mutex = createMutex(nullptr, {});
  const ObjectHandle semaphore = createSemaphore(nullptr, 0, 1, {});
  EXPECT_FALSE(setEvent(mutex));
  EXPECT_FALSE(releaseMutex(semaphore));
  EXPECT_FALSE(releaseSemaphore(event));
  EXPECT_EQ(lastError(), kErrorInvalidHandle);
  for (const ObjectHandle handle : {event, mutex, semaphore}) {
    EXPECT_TRUE(closeObject(handle));
  }
}

TEST(KernelObjects, aSemaphoreNeedsSensibleCounts) {
  EXPECT_EQ(createSemaphore(nullptr, -1, 1, {}), ObjectHandle::none);
  EXPECT_EQ(createSemaphore(nullptr, 2, 1, {}), ObjectHandle::none);
  EXPECT_EQ(createSemaphore(nullptr, 0, 0, {}), ObjectHandle::none);
  EXPECT_EQ(lastError(), kErrorInvalidParameter);
}

TEST(KernelObjects, aTimedWaitTakesItsTime) {
  for (const std::string& name : {std::string(), kernelName()}) {
    const ObjectHandle event = createEvent(nullptr, name);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(waitForObject(event, 30), kWaitTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, almost(std::chrono::milliseconds(30)));
    EXPECT_TRUE(closeObject(event));
  }
}

TEST(KernelObjects, aMutexOwnedWhenItsLastHandleClosesIsForgotten) {
  const std::string name = kernelName();
  const ObjectHandle first = createMutex(nullptr, name);
  ASSERT_EQ(waitForObject(first, 0), kWaitObject);
  ASSERT_TRUE(closeObject(first));
  const ObjectHandle second = createMutex(nullptr, name);
  EXPECT_EQ(lastError(), kNoError);
  std::thread([&] { EXPECT_EQ(waitForObject(second, 0), kWaitObject); }).join();
  EXPECT_EQ(waitForObject(second, 0), kWaitAbandoned);
  EXPECT_TRUE(closeObject(second));
}

/// What another thread is told; it ends with what it has taken.
std::uint32_t otherThreadsWait(ObjectHandle object) {
  std::uint32_t result = kWaitFailed;
  std::thread([&] { result = waitForObject(object, 0); }).join();
  return result;
}

/// The same rules for objects of this process and of the machine.
class BothKindsOfObjects : public testing::TestWithParam<const char*> {
 protected:
  [[nodiscard]] static std::string name() {
    return std::string_view(GetParam()) == "named" ? kernelName() : std::string();
  }
};

TEST_P(BothKindsOfObjects, aMutexIsGivenUpByTheLastOfItsOwnersReleasesAndByNobodyElse) {
  const ObjectHandle mutex = createMutex(nullptr, name());
  EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
  EXPECT_EQ(waitForObject(mutex, kInfinite), kWaitObject);
  std::thread([&] {
    EXPECT_FALSE(releaseMutex(mutex));
    EXPECT_EQ(lastError(), kErrorNotOwner);
    EXPECT_EQ(waitForObject(mutex, 1), kWaitTimeout);
  }).join();
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_EQ(otherThreadsWait(mutex), kWaitTimeout);
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_FALSE(releaseMutex(mutex));
  EXPECT_EQ(otherThreadsWait(mutex), kWaitObject);
  EXPECT_TRUE(closeObject(mutex));
}

TEST_P(BothKindsOfObjects, anAbandonedMutexIsToldOnceAndOwned) {
  const ObjectHandle mutex = createMutex(nullptr, name());
  std::thread([&] {
    EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
    EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
  }).join();
  EXPECT_EQ(waitForObject(mutex, 0), kWaitAbandoned);
  EXPECT_EQ(otherThreadsWait(mutex), kWaitTimeout);
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_FALSE(releaseMutex(mutex));
  EXPECT_TRUE(closeObject(mutex));
}

TEST_P(BothKindsOfObjects, aWaiterGetsTheMutexThatItsOwnerReleasesOrAbandons) {
  const ObjectHandle mutex = createMutex(nullptr, name());
  for (const bool releases : {true, false}) {
    std::promise<void> end;
    std::promise<void> owned;
    std::thread owner([&] {
      EXPECT_NE(waitForObject(mutex, 0), kWaitTimeout);
      owned.set_value();
      end.get_future().wait();
      if (releases) {
        EXPECT_TRUE(releaseMutex(mutex));
      }
    });
    owned.get_future().wait();
    std::vector<std::future<std::uint32_t>> waiters(3);
    for (auto& waiter : waiters) {
      waiter = std::async(std::launch::async, [mutex] {
        const std::uint32_t result = waitForObject(mutex, kInfinite);
        EXPECT_TRUE(releaseMutex(mutex));
        return result;
      });
    }
    EXPECT_EQ(waitingOf(waiters), 3);
    end.set_value();
    owner.join();
    int told = 0;
    for (auto& waiter : waiters) {
      EXPECT_TRUE(ends(waiter));
      told += waiter.get() == kWaitAbandoned ? 1 : 0;
    }
    EXPECT_EQ(told, releases ? 0 : 1);
  }
  EXPECT_TRUE(closeObject(mutex));
}

TEST_P(BothKindsOfObjects, aThreadAbandonsEveryMutexThatItOwnsWhateverItUsedSince) {
  constexpr int kMutexes = 30;
  std::vector<ObjectHandle> mutexes;
  for (int i = 0; i < kMutexes; ++i) {
    mutexes.push_back(createMutex(nullptr, name()));
  }
  std::thread([&] {
    for (const ObjectHandle mutex : mutexes) {
      EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
    }
    EXPECT_TRUE(releaseMutex(mutexes[3]));
    const ObjectHandle another = createEvent(nullptr, {});
    EXPECT_TRUE(closeObject(another));
    EXPECT_TRUE(releaseMutex(mutexes[4]));
    EXPECT_FALSE(releaseMutex(mutexes[4]));
  }).join();
  for (int i = 0; i < kMutexes; ++i) {
    const ObjectHandle mutex = mutexes[static_cast<std::size_t>(i)];
    EXPECT_EQ(waitForObject(mutex, 0), i == 3 || i == 4 ? kWaitObject : kWaitAbandoned) << i;
    EXPECT_TRUE(releaseMutex(mutex));
    EXPECT_TRUE(closeObject(mutex));
  }
}

TEST_P(BothKindsOfObjects, aMutexStaysItsOwnersWhenOtherHandlesAreClosed) {
  const ObjectHandle mutex = createMutex(nullptr, name());
  EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
  const ObjectHandle another = createMutex(nullptr, {});
  EXPECT_EQ(waitForObject(another, 0), kWaitObject);
  EXPECT_TRUE(closeObject(another));
  EXPECT_EQ(otherThreadsWait(mutex), kWaitTimeout);
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_EQ(otherThreadsWait(mutex), kWaitObject);
  EXPECT_TRUE(closeObject(mutex));
}

TEST_P(BothKindsOfObjects, aHandleThatAnotherThreadClosesIsClosedForAll) {
  if (onWindows()) {
    GTEST_SKIP() << "a closed handle's number is given to what is opened next there";
  }
  const ObjectHandle semaphore = createSemaphore(nullptr, 0, 5, name());
  EXPECT_TRUE(releaseSemaphore(semaphore));
  std::thread([&] { EXPECT_TRUE(closeObject(semaphore)); }).join();
  EXPECT_FALSE(releaseSemaphore(semaphore));
  EXPECT_EQ(lastError(), kErrorInvalidHandle);
  EXPECT_EQ(waitForObject(semaphore, 0), kWaitFailed);
}

TEST_P(BothKindsOfObjects, aSemaphoreCountsUpToItsMaximum) {
  const ObjectHandle semaphore = createSemaphore(nullptr, 1, 3, name());
  EXPECT_TRUE(releaseSemaphore(semaphore));
  EXPECT_TRUE(releaseSemaphore(semaphore));
  EXPECT_FALSE(releaseSemaphore(semaphore));
  EXPECT_EQ(lastError(), kErrorTooManyPosts);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(waitForObject(semaphore, kInfinite), kWaitObject);
  }
  EXPECT_EQ(waitForObject(semaphore, 0), kWaitTimeout);
  EXPECT_TRUE(closeObject(semaphore));
}

TEST_P(BothKindsOfObjects, waitsOfMutexAndSemaphoreTakeTheirTime) {
  const ObjectHandle semaphore = createSemaphore(nullptr, 0, 1, name());
  const ObjectHandle mutex = createMutex(nullptr, name());
  EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
  std::thread([&] {
    for (const ObjectHandle object : {semaphore, mutex}) {
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(waitForObject(object, 30), kWaitTimeout);
      EXPECT_GE(std::chrono::steady_clock::now() - begin, almost(std::chrono::milliseconds(30)));
    }
  }).join();
  EXPECT_TRUE(closeObject(mutex));
  EXPECT_TRUE(closeObject(semaphore));
}

INSTANTIATE_TEST_SUITE_P(Kinds, BothKindsOfObjects, testing::Values("unnamed", "named"));

}  // namespace
}  // namespace keltop::platform
