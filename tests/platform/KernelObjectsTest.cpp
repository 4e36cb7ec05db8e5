#include <gtest/gtest.h>

#include <chrono>
#include <thread>

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

}  // namespace
}  // namespace keltop::platform
