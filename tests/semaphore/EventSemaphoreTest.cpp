#include <gtest/gtest.h>

#include <cstdint>
#include <future>
#include <type_traits>
#include <vector>

#include "semaphore/EventSemaphore.h"
#include "semaphore/GlobalName.h"
#include "support/ClosedHandle.h"
#include "support/Timing.h"
#include "support/UniqueName.h"

namespace SEMAPHORE {
namespace {

namespace platform = keltop::platform;
using keltop::uniqueName;
using platform::ObjectHandle;

static_assert(std::has_virtual_destructor_v<EventSemaphore> && !std::is_copy_constructible_v<EventSemaphore> &&
              !std::is_copy_assignable_v<EventSemaphore>);

std::uint32_t look(const EventSemaphore& event) {
  return platform::waitForObject(event.handle(), 0);
}

TEST(EventSemaphore, isMadeWithoutAHandle) {
  EXPECT_EQ(EventSemaphore().handle(), ObjectHandle::none);
}

TEST(EventSemaphore, createdEventIsNotSetAndStaysSetOnceItIs) {
  EventSemaphore event;
  ASSERT_TRUE(event.create(uniqueName()));
  EXPECT_EQ(look(event), platform::kWaitTimeout);
  EXPECT_TRUE(platform::setEvent(event.handle()));
  EXPECT_EQ(look(event), platform::kWaitObject);
  EXPECT_EQ(look(event), platform::kWaitObject);
}

TEST(EventSemaphore, creatingAnExistingEventOpensItAsItStands) {
  const std::string name = uniqueName();
  EventSemaphore first;
  EventSemaphore second;
  ASSERT_TRUE(first.create(name));
  ASSERT_TRUE(platform::setEvent(first.handle()));
  ASSERT_TRUE(second.create(name));
  EXPECT_EQ(look(second), platform::kWaitObject);
}

TEST(EventSemaphore, openNeedsAnEventThatExists) {
  const std::string name = uniqueName();
  EventSemaphore first;
  EventSemaphore second;
  EXPECT_FALSE(second.open(name));
  EXPECT_EQ(second.handle(), ObjectHandle::none);
  ASSERT_TRUE(first.create(name));
  ASSERT_TRUE(second.open(name));
  ASSERT_TRUE(platform::setEvent(second.handle()));
  EXPECT_EQ(look(first), platform::kWaitObject);
}

TEST(EventSemaphore, theNamePrefixIsTheMachineWideOne) {
  const std::string name = uniqueName();
  EventSemaphore event;
  ASSERT_TRUE(event.create(name));
  const ObjectHandle byKernelName = platform::openEvent("Global\\" + name);
  EXPECT_NE(byKernelName, ObjectHandle::none);
  platform::closeObject(byKernelName);
}

TEST(EventSemaphore, openClosesTheEarlierHandleEvenWhenItFails) {
  EXPECT_TRUE(keltop::showsClosed([] {
    const std::string name = uniqueName();
    EventSemaphore event;
    EXPECT_TRUE(event.create(name));
    const ObjectHandle earlier = event.handle();
    EXPECT_FALSE(event.open(uniqueName()));
    const std::uint32_t result = platform::waitForObject(earlier, 0);
    EXPECT_EQ(platform::openEvent(globalName(name)), ObjectHandle::none);
    return result;
  }));
}

/// The handle is closed before the event is looked for: with its last handle the event has gone.
TEST(EventSemaphore, openDoesNotFindTheEventThatOnlyItsOwnHandleKept) {
  const std::string name = uniqueName();
  EventSemaphore event;
  ASSERT_TRUE(event.create(name));
  EXPECT_FALSE(event.open(name));
  EXPECT_EQ(event.handle(), ObjectHandle::none);
}

TEST(EventSemaphore, createClosesTheEarlierHandle) {
  const std::string name = uniqueName();
  EventSemaphore event;
  ASSERT_TRUE(event.create(name));
  ASSERT_TRUE(event.create(uniqueName()));
  EXPECT_EQ(platform::openEvent(globalName(name)), ObjectHandle::none);
}

TEST(EventSemaphore, destructionClosesTheHandle) {
  const std::string name = uniqueName();
  {
    EventSemaphore event;
    ASSERT_TRUE(event.create(name));
  }
  EXPECT_EQ(platform::openEvent(globalName(name)), ObjectHandle::none);
  EXPECT_EQ(platform::lastError(), platform::kErrorFileNotFound);
}

TEST(EventSemaphore, anImpossibleNameGivesNoHandle) {
  EventSemaphore event;
  EXPECT_FALSE(event.create(keltop::impossibleName()));
  EXPECT_EQ(event.handle(), ObjectHandle::none);
  EXPECT_FALSE(event.open(keltop::impossibleName()));
  EXPECT_EQ(event.handle(), ObjectHandle::none);
}

TEST(EventSemaphore, settingWakesEveryWaitingThread) {
  EventSemaphore event;
  ASSERT_TRUE(event.create(uniqueName()));
  std::vector<std::future<std::uint32_t>> waiters(4);
  for (std::future<std::uint32_t>& waiter : waiters) {
    waiter =
        std::async(std::launch::async, [&event] { return platform::waitForObject(event.handle(), keltop::kLong); });
  }
  EXPECT_EQ(keltop::waitingOf(waiters), 4);
  EXPECT_TRUE(platform::setEvent(event.handle()));
  for (std::future<std::uint32_t>& waiter : waiters) {
    EXPECT_TRUE(keltop::ends(waiter));
    EXPECT_EQ(waiter.get(), platform::kWaitObject);
  }
}

}  // namespace
}  // namespace SEMAPHORE
