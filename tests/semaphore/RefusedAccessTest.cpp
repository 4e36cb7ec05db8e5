// Runs in a program of its own in which the system refuses to build the access rule of named objects: the definition
// here takes the place of the platform's.

#include <gtest/gtest.h>

#include "platform/KernelObjects.h"
#include "platform/OpenAccess.h"
#include "semaphore/EventSemaphore.h"
#include "semaphore/Mutex.h"
#include "semaphore/MutexAutoLock.h"
#include "semaphore/Semaphore.h"
#include "support/DeniedName.h"
#include "support/UniqueName.h"

keltop::platform::OpenAccess::OpenAccess() noexcept = default;  // not ready

namespace SEMAPHORE {
namespace {

namespace platform = keltop::platform;
using keltop::uniqueName;
using platform::ObjectHandle;

/// Makes `error` the calling thread's last error, as a call before would have left it.
void leaveError(std::uint32_t error) {
  const std::string name = "Global\\" + uniqueName();
  if (error == platform::kErrorAccessDenied) {
    const keltop::DeniedName denied;
    EXPECT_EQ(platform::createMutex(nullptr, "Global\\" + denied.text()), ObjectHandle::none);
  } else if (error == platform::kErrorAlreadyExists) {
    const ObjectHandle first = platform::createEvent(nullptr, name);
    platform::closeObject(platform::createEvent(nullptr, name));
    platform::closeObject(first);
  } else {
    platform::closeObject(platform::createEvent(nullptr, name));
  }
  ASSERT_EQ(platform::lastError(), error);
}

TEST(RefusedAccess, noEventIsCreated) {
  EventSemaphore event;
  EXPECT_FALSE(event.create(uniqueName()));
  EXPECT_EQ(event.handle(), ObjectHandle::none);
}

TEST(RefusedAccess, noSemaphoreIsCreatedNotEvenAnUnnamedOne) {
  for (const std::string& name : {std::string(), uniqueName()}) {
    Semaphore semaphore;
    EXPECT_FALSE(semaphore.create(0, 0, name));
    EXPECT_EQ(semaphore.handle(), ObjectHandle::none);
  }
}

TEST(RefusedAccess, anUnnamedMutexNeedsNoRule) {
  const Mutex mutex;
  EXPECT_NE(mutex.handle(), ObjectHandle::none);
}

TEST(RefusedAccess, aMutexFollowsTheErrorThatStoodLast) {
  Mutex mutex;
  leaveError(platform::kNoError);
  EXPECT_TRUE(mutex.create(uniqueName(), false));
  EXPECT_EQ(mutex.handle(), ObjectHandle::none);
  EXPECT_EQ(mutex.lock(0), platform::kWaitAbandoned);
  leaveError(platform::kErrorAlreadyExists);
  EXPECT_FALSE(mutex.create(uniqueName(), false));
  leaveError(platform::kErrorAlreadyExists);
  EXPECT_TRUE(mutex.create(uniqueName(), true));
  for (const bool openExisting : {false, true}) {
    leaveError(platform::kErrorAccessDenied);
    EXPECT_FALSE(mutex.create(uniqueName(), openExisting));
    EXPECT_EQ(mutex.handle(), ObjectHandle::none);
  }
}

TEST(RefusedAccess, anAutomaticLockDoesNotWait) {
  const MutexAutoLock lock(uniqueName());
  EXPECT_EQ(lock.handle(), ObjectHandle::none);
}

}  // namespace
}  // namespace SEMAPHORE
