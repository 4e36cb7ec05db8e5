#include <gtest/gtest.h>

#include <ctime>
#include <thread>

#include "platform/KernelObjects.h"

namespace keltop::platform {
namespace {

/// Milliseconds of processor time that the calling thread has had.
long processorTime() {
  timespec time = {};
  (void)::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
}

TEST(LocalObjects, waitingCostsNoProcessorTime) {
  const ObjectHandle mutex = createMutex(nullptr, {});
  ASSERT_EQ(waitForObject(mutex, 0), kWaitObject);
  const ObjectHandle semaphore = createSemaphore(nullptr, 0, 1, {});
  const ObjectHandle event = createEvent(nullptr, {});
  for (const ObjectHandle object : {mutex, semaphore, event}) {
    std::thread([object] {
      const long before = processorTime();
      EXPECT_EQ(waitForObject(object, 500), kWaitTimeout);
      EXPECT_LT(processorTime() - before, 10);
    }).join();
    EXPECT_TRUE(closeObject(object));
  }
}

}  // namespace
}  // namespace keltop::platform
