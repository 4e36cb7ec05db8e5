#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/Timing.h"
#include "trace/WorkStack.h"

namespace QXUTIL {
namespace {

class Recorder : public WorkStack<int> {
 public:
  std::atomic<int> pushes = 0;
  std::vector<int> removals;

 protected:
  void afterPush() override { ++pushes; }
  void removed(int& record) override { removals.push_back(record); }
};

TEST(WorkStack, recordsLeaveInTheOrderTheyCame) {
  WorkStack<std::string> queue;
  queue.push("one");
  queue.push("two");
  EXPECT_EQ(queue.pop(keltop::kLong, "none"), "one");
  EXPECT_EQ(queue.pop(0, "none"), "two");
  EXPECT_EQ(queue.pop(0, "none"), "none");
}

TEST(WorkStack, popWaitsItsTimeAndGivesTheFallback) {
  WorkStack<int> queue;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(queue.pop(20, -7), -7);
  EXPECT_GE(std::chrono::steady_clock::now() - before, keltop::almost(std::chrono::milliseconds(20)));
}

TEST(WorkStack, aPushWakesAWaitingPop) {
  WorkStack<int> queue;
  std::future<int> popped = std::async(std::launch::async, [&queue] { return queue.pop(keltop::kLong, 0); });
  EXPECT_TRUE(keltop::waits(popped));
  queue.push(5);
  EXPECT_TRUE(keltop::ends(popped));
  EXPECT_EQ(popped.get(), 5);
}

TEST(WorkStack, the201stRecordPushesTheOldestOut) {
  Recorder queue;
  for (int i = 1; i <= 201; ++i) {
    queue.push(i);
  }
  EXPECT_EQ(queue.pushes, 201);
  EXPECT_EQ(queue.removals, std::vector<int>{1});
  for (int i = 2; i <= 201; ++i) {
    EXPECT_EQ(queue.pop(0, 0), i);
  }
  EXPECT_EQ(queue.pop(0, 0), 0);
}

TEST(WorkStack, everyRecordPassesTheHookOnItsWayOut) {
  Recorder queue;
  for (int i = 1; i <= 4; ++i) {
    queue.push(i);
  }
  int taken = 0;
  EXPECT_TRUE(queue.take(taken));
  EXPECT_EQ(taken, 1);
  EXPECT_EQ(queue.pop(0, 0), 2);
  EXPECT_EQ(queue.removals, (std::vector<int>{1, 2}));
  queue.clear();
  EXPECT_EQ(queue.removals, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_FALSE(queue.take(taken));
}

/// Looks at the queue from inside its hooks.
class Observer : public WorkStack<int> {
 public:
  int countAfterPush = 0;  ///< what a pop finds in the hook
  bool freeAfterPush = false;
  bool freeAtRemoval = true;

 protected:
  void afterPush() override {
    countAfterPush = pop(0, -1);
    afterPush_ = othersTake();
    freeAfterPush = keltop::ends(afterPush_);
  }
  void removed(int& /*record*/) override {
    if (!looked_) {
      looked_ = true;  // the other thread comes here, too
      atRemoval_ = othersTake();
      freeAtRemoval = !keltop::waits(atRemoval_);
    }
  }

 private:
  /// Another thread's look at the queue, for which it needs the lock.
  std::future<void> othersTake() {
    return std::async(std::launch::async, [this] {
      int ignored = 0;
      (void)take(ignored);
    });
  }

  bool looked_ = false;
  std::future<void> afterPush_;  // both end when the lock is free
  std::future<void> atRemoval_;
};

TEST(WorkStack, aPushUnlocksThenCallsTheHookThenCounts) {
  Observer queue;
  queue.push(1);
  EXPECT_EQ(queue.countAfterPush, -1) << "the record was counted before the hook";
  EXPECT_TRUE(queue.freeAfterPush) << "the hook ran under the lock";
  EXPECT_EQ(queue.pop(0, -1), -1) << "taken by the hook";
  queue.push(2);
  EXPECT_EQ(queue.pop(0, -1), -1);
}

TEST(WorkStack, aRecordPassesTheHookUnderTheLock) {
  Observer queue;
  queue.push(1);
  EXPECT_FALSE(queue.freeAtRemoval);
}

TEST(WorkStack, takeLeavesTheCountAndAPopOnItAloneGivesTheFallback) {
  WorkStack<int> queue;
  queue.push(1);
  int taken = 0;
  EXPECT_TRUE(queue.take(taken));
  EXPECT_EQ(queue.pop(0, -1), -1);
  queue.push(2);
  EXPECT_EQ(queue.pop(0, -1), 2);
}

TEST(WorkStack, clearTakesTheCountsToo) {
  WorkStack<int> queue;
  for (int i = 0; i < 250; ++i) {
    queue.push(i);
  }
  queue.clear();
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(queue.pop(20, -1), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - before, keltop::almost(std::chrono::milliseconds(20)))
      << "a count was left";
  queue.push(9);
  EXPECT_EQ(queue.pop(0, -1), 9);
}

TEST(WorkStack, eightProducersAndOneConsumerKeepEachProducersOrder) {
  constexpr int kThreads = 8;
  constexpr int kRecords = 5000;
  constexpr int kStride = 2 * kRecords;  // from one producer's numbers to the next one's
  constexpr int kNone = -1;
  Recorder queue;
  std::vector<std::thread> producers;
  std::atomic<int> running = kThreads;
  for (int thread = 0; thread < kThreads; ++thread) {
    producers.emplace_back([&queue, &running, thread] {
      for (int i = 1; i <= kRecords; ++i) {
        queue.push(thread * kStride + i);
      }
      --running;
    });
  }
  std::vector<int> last(kThreads, 0);
  for (bool ending = false; !ending;) {
    ending = running == 0;  // looked at first: then nothing comes after what is popped now
    for (int record = queue.pop(1, kNone); record != kNone; record = queue.pop(1, kNone)) {
      int& before = last[static_cast<std::size_t>(record / kStride)];
      EXPECT_LT(before, record % kStride);
      before = record % kStride;
    }
  }
  for (std::thread& producer : producers) {
    producer.join();
  }
  // A count may be left without its record, never a record without its count.
  int left = 0;
  EXPECT_FALSE(queue.take(left));
  EXPECT_EQ(queue.removals.size(), static_cast<std::size_t>(kThreads * kRecords));
}

}  // namespace
}  // namespace QXUTIL
