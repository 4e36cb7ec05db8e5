#include <gtest/gtest.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/KernelObjects.h"
#include "platform/StandardOutput.h"
#include "support/CapturedOutput.h"
#include "support/Timing.h"
#include "trace/FormatTrace.h"
#include "trace/LogsControl.h"
#include "trace/ProgramModule.h"
#include "trace/ThreadLogData.h"
#include "trace/TraceFolder.h"
#include "trace/TraceWriter.h"
#include "zeromq/Peers.h"

namespace keltop {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

/// A controller whose inside a test can see.
class Controller : public LogsControl {
 public:
  using LogsControl::LogsControl;
  using LogsControl::moduleLock_;
  using LogsControl::registry_;

  [[nodiscard]] std::string nameOf(std::uint32_t module) const { return registry_.at(module).name(); }
};

ThreadLogData record(std::string text, std::uint32_t module = 1067) {
  return makeRecord(module, ThreadLogData::kOrdinary, std::move(text));
}

/// What a trace file holds, text by text, "File opened" and "File closed" included.
Names textsIn(const std::string& path) {
  Names texts;
  const std::string content = contentOf(path);
  for (std::size_t begin = 0; begin < content.size();) {
    const std::size_t end = content.find("\r\n", begin);
    if (end == std::string::npos) {
      ADD_FAILURE() << "a line without its end";
      break;
    }
    const std::string line = content.substr(begin, end - begin);
    std::size_t text = 0;
    for (int column = 0; column < 5; ++column) {
      text = line.find(' ', text) + 1;
    }
    texts.push_back(line.substr(text));
    begin = end + 2;
  }
  return texts;
}

Names numbers(int first, int last) {
  Names texts;
  for (int i = first; i <= last; ++i) {
    texts.push_back(std::to_string(i));
  }
  return texts;
}

/// A controller whose passes the test makes itself.
class WriterTest : public TraceFolder {
 protected:
  WriterTest() { (void)control_.registerModule(1, 1067, ""); }

  [[nodiscard]] Names texts(const char* file = kLive) const { return textsIn(trace(file)); }
  [[nodiscard]] Names newTexts() {
    Names all = texts();
    Names added(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return added;
  }

  void pushNumbers(int first, int last) {
    for (int i = first; i <= last; ++i) {
      control_.push(record(std::to_string(i)));
    }
  }

  Controller control_{LogsControl::Writer::none};
  TraceWriter writer_{control_};

 private:
  std::size_t seen_ = 0;
};

TEST_F(WriterTest, aRecordBecomesALineOfItsModulesFile) {
  const ThreadLogData made = record("text");
  control_.push(made);
  writer_.pass();
  EXPECT_EQ(contentOf(trace(kLive)),
            traceLine("LOG1067", makeRecord(1067, ThreadLogData::kMarker, "File opened")) + traceLine("LOG1067", made));
}

TEST_F(WriterTest, ofABurstOf150APassWrites100AndLosesThe101stAndTheNextWritesTheRest) {
  pushNumbers(1, 150);
  writer_.pass();
  Names expected = numbers(1, 100);
  expected.insert(expected.begin(), "File opened");
  EXPECT_EQ(newTexts(), expected);
  writer_.pass();
  EXPECT_EQ(newTexts(), numbers(102, 150));
}

TEST_F(WriterTest, of201QueuedRecordsTheOldestIsLost) {
  pushNumbers(1, 201);
  writer_.pass();
  Names expected = numbers(2, 101);
  expected.insert(expected.begin(), "File opened");
  EXPECT_EQ(newTexts(), expected);
  writer_.pass();
  EXPECT_EQ(newTexts(), numbers(103, 201)) << "102 was the 101st of its pass";
}

TEST_F(WriterTest, exactly100RecordsAreAllWritten) {
  pushNumbers(1, 100);
  writer_.pass();
  EXPECT_EQ(texts().size(), 101U);
}

TEST_F(WriterTest, theFilesAreLookedAfterBetweenTheTwoPassesOfABurst) {
  writeContent(trace(kLive), "");
  fs::resize_file(trace(kLive), kFullTrace);
  pushNumbers(1, 150);
  writer_.pass();
  EXPECT_EQ(filesIn(traces()), Names{kLive}) << "closed when the pass began";
  writer_.pass();
  EXPECT_EQ(filesIn(traces()), (Names{kCopy, kLive}));
  Names expected = numbers(102, 150);
  expected.insert(expected.begin(), "File opened");
  EXPECT_EQ(texts(), expected);
}

TEST_F(WriterTest, withoutTrafficAPassLastsThirtySeconds) {
  using std::chrono::steady_clock;
  const auto before = steady_clock::now();
  writer_.pass();
  const auto lasted = steady_clock::now() - before;
  EXPECT_GE(lasted, almost(std::chrono::seconds(30)));
  EXPECT_LT(lasted, std::chrono::seconds(45));
}

TEST_F(WriterTest, afterARecordTheNextIsAwaitedForTenMilliseconds) {
  using std::chrono::steady_clock;
  steady_clock::duration shortest = std::chrono::hours(1);
  for (int i = 0; i < 50; ++i) {
    pushNumbers(1, 1);
    const auto before = steady_clock::now();
    writer_.pass();
    shortest = std::min(shortest, steady_clock::now() - before);
  }
  EXPECT_GE(shortest, almost(std::chrono::milliseconds(10)));
  EXPECT_LT(shortest, std::chrono::milliseconds(30));
}

TEST_F(WriterTest, aRecordOfModule0EndsThePassUnwritten) {
  control_.push(record("one"));
  control_.push(record("never", 0));
  control_.push(record("two"));
  writer_.pass();
  EXPECT_EQ(newTexts(), (Names{"File opened", "one"}));
  writer_.pass();
  EXPECT_EQ(newTexts(), Names{"two"});
}

TEST_F(WriterTest, aModuleMetFirstByTheWriterIsWrittenButNeverRotatedOrArchived) {
  control_.push(record("text", 1200));
  writer_.pass();
  EXPECT_EQ(texts("HOSTEL101.ltt"), (Names{"File opened", "text"}));
  EXPECT_EQ(control_.registry_.at(1200).rotationFlag(), 0);
  EXPECT_EQ(control_.registry_.at(1067).rotationFlag(), 1);
  fs::resize_file(trace("HOSTEL101.ltt"), kFullTrace);
  control_.push(record("more", 1200));
  writer_.pass();
  FakeClock::set({.year = 2024, .month = 1, .day = 16});
  control_.push(record("more", 1200));
  writer_.pass();
  EXPECT_EQ(filesIn(traces()), Names{"HOSTEL101.ltt"});
}

TEST_F(WriterTest, eachModuleHasItsOwnFile) {
  control_.push(record("one"));
  control_.push(record("two", 5));
  control_.push(record("three"));
  writer_.pass();
  EXPECT_EQ(texts(), (Names{"File opened", "one", "three"}));
  EXPECT_EQ(texts("LINE005.ltt"), (Names{"File opened", "two"}));
}

TEST_F(WriterTest, withTheEchoEachLineIsPrintedInShort) {
  control_.push(record("silent"));
  writer_.pass();
  control_.setEcho(true);
  CapturedOutput output;
  control_.push(record("text"));
  ThreadLogData empty;
  empty.module = 1067;
  control_.push(empty);
  writer_.pass();
  EXPECT_EQ(output.take(), "LOG1067 2024/01/15-09:05:07:042 text\r\nLOG1067  \r\n");
}

TEST_F(WriterTest, aLineIsEchoedBeforeItIsWritten) {
  static std::string folder;
  folder = data_.path().string();
  control_.setEcho(true);
  CapturedOutput output;
  // Looked up when the line opens its file.
  platform::setDataLocationSource([] {
    (void)platform::writeStandardOutput("(opened)");
    return folder;
  });
  control_.push(record("text"));
  writer_.pass();
  EXPECT_EQ(output.take(), "LOG1067 2024/01/15-09:05:07:042 text\r\n(opened)");
}

TEST_F(WriterTest, aLineThatCannotBeWrittenIsStillEchoed) {
  fs::remove(traces());
  control_.setEcho(true);
  CapturedOutput output;
  control_.push(record("text"));
  writer_.pass();
  EXPECT_EQ(output.take(), "LOG1067 2024/01/15-09:05:07:042 text\r\n");
}

TEST_F(WriterTest, aRegistryThatIsNotFreeWithinASecondLosesTheRecord) {
  control_.setEcho(true);
  pushNumbers(1, 1);
  writer_.pass();
  std::promise<void> held;
  std::promise<void> passed;
  std::thread holder([&] {
    EXPECT_EQ(control_.moduleLock_.lock(kLong), platform::kWaitObject);
    held.set_value();
    passed.get_future().wait();
    control_.moduleLock_.unlock();
  });
  held.get_future().wait();
  CapturedOutput output;
  pushNumbers(2, 2);
  const auto before = std::chrono::steady_clock::now();
  writer_.pass();
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_GE(waited, almost(std::chrono::seconds(2))) << "the files' look-up and the record's";
  EXPECT_LT(waited, std::chrono::seconds(18));  // a busy machine is given time; waits of ten seconds are not
  passed.set_value();
  holder.join();
  EXPECT_EQ(output.take(), "");
  pushNumbers(3, 3);
  writer_.pass();
  EXPECT_EQ(texts(), (Names{"File opened", "1", "3"}));
}

/// Two local times between which the day changes, or does not.
struct DayCase {
  const char* what;
  platform::LocalTime before;
  platform::LocalTime after;
  bool changes;
};

void PrintTo(const DayCase& day, std::ostream* out) {
  *out << day.what;
}

class DayChange : public WriterTest, public testing::WithParamInterface<DayCase> {
 protected:
  // The writer reads the time when it is made.
  DayChange() { FakeClock::set(GetParam().before); }
};

TEST_P(DayChange, archivesOnTheFirstPassOfANewDay) {
  TraceWriter writer(control_);
  control_.push(record("before"));
  writer.pass();
  FakeClock::set(GetParam().after);
  control_.push(record("after"));
  writer.pass();
  if (GetParam().changes) {
    EXPECT_EQ(texts(), (Names{"File opened", "after"}));
    const std::string copy = "LOG1067-" + compactTimeStamp(GetParam().before) + ".ltt";
    EXPECT_EQ(filesIn(archive()), Names{copy});
    EXPECT_EQ(textsIn((archive() / copy).string()), (Names{"File opened", "before"}));
  } else {
    EXPECT_EQ(texts(), (Names{"File opened", "before", "after"}));
    EXPECT_FALSE(fs::exists(archive()));
  }
  control_.push(record("again"));
  writer.pass();
  EXPECT_EQ(texts().back(), "again");
  EXPECT_EQ(texts()[texts().size() - 2], "after") << "once a day";
}

constexpr platform::LocalTime clockTime(std::uint16_t year, std::uint16_t month, std::uint16_t day, std::uint16_t hour,
                                        std::uint16_t minute, std::uint16_t second, std::uint16_t milliseconds) {
  return {.year = year,
          .month = month,
          .day = day,
          .hour = hour,
          .minute = minute,
          .second = second,
          .milliseconds = milliseconds};
}

INSTANTIATE_TEST_SUITE_P(
    Days, DayChange,
    testing::Values(
        DayCase{"midnight", clockTime(2024, 1, 15, 23, 59, 59, 999), clockTime(2024, 1, 16, 0, 0, 0, 0), true},
        DayCase{"end of a month", clockTime(2024, 2, 29, 23, 59, 59, 999), clockTime(2024, 3, 1, 0, 0, 0, 0), true},
        DayCase{"end of a year", clockTime(2024, 12, 31, 23, 59, 59, 999), clockTime(2025, 1, 1, 0, 0, 0, 0), true},
        DayCase{"clock set back a day", clockTime(2024, 1, 15, 0, 0, 0, 0), clockTime(2024, 1, 14, 23, 0, 0, 0), true},
        DayCase{"later the same day", clockTime(2024, 1, 15, 0, 0, 0, 0), clockTime(2024, 1, 15, 23, 59, 59, 999),
                false},
        DayCase{"spring: an hour is missing", clockTime(2024, 3, 31, 1, 59, 59, 999),
                clockTime(2024, 3, 31, 3, 0, 0, 0), false},
        DayCase{"autumn: an hour comes twice", clockTime(2024, 10, 27, 2, 59, 59, 999),
                clockTime(2024, 10, 27, 2, 0, 0, 0), false},
        DayCase{"spring change at midnight", clockTime(2024, 3, 30, 23, 59, 59, 999),
                clockTime(2024, 3, 31, 1, 0, 0, 0), true},
        DayCase{"same day of the next month", clockTime(2024, 1, 15, 0, 0, 0, 0), clockTime(2024, 2, 15, 0, 0, 0, 0),
                false}));

TEST(RegisterModule, numberZeroIsRefused) {
  Controller control(LogsControl::Writer::none);
  EXPECT_FALSE(control.registerModule(1, 0, "name"));
  EXPECT_TRUE(control.registry_.empty());
}

TEST(RegisterModule, theFirstRegistrationStays) {
  Controller control(LogsControl::Writer::none);
  EXPECT_TRUE(control.registerModule(0, 1067, ""));
  EXPECT_TRUE(control.registerModule(1, 1067, "other"));
  EXPECT_EQ(control.nameOf(1067), "LOG1067");
  EXPECT_EQ(control.registry_.at(1067).rotationFlag(), 0);
  EXPECT_EQ(control.registry_.at(1067).module(), 1067U);
  EXPECT_TRUE(control.registerModule(7, 7, "ABC"));
  EXPECT_EQ(control.nameOf(7), "ABC-007");
  EXPECT_EQ(control.registry_.at(7).rotationFlag(), 7);
}

TEST(RegisterModule, numberZeroIsRefusedWithoutALookAtTheRegistry) {
  Controller control(LogsControl::Writer::none);
  ASSERT_EQ(control.moduleLock_.lock(0), platform::kWaitObject);
  std::future<bool> registered =
      std::async(std::launch::async, [&control] { return control.registerModule(1, 0, ""); });
  EXPECT_EQ(registered.wait_for(std::chrono::seconds(5)), std::future_status::ready) << "half of what it would wait";
  EXPECT_FALSE(registered.get());
  control.moduleLock_.unlock();
}

TEST(RegisterModule, aRegistryThatIsNotFreeWithinTenSecondsRefuses) {
  Controller control(LogsControl::Writer::none);
  ASSERT_EQ(control.moduleLock_.lock(0), platform::kWaitObject);
  std::thread other([&control] {
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(control.registerModule(1, 1067, ""));
    EXPECT_GE(std::chrono::steady_clock::now() - before, almost(std::chrono::seconds(10)));
  });
  other.join();
  control.moduleLock_.unlock();
  EXPECT_TRUE(control.registry_.empty());
}

class ControllerThread : public TraceFolder {};

TEST_F(ControllerThread, stopWritesWhatIsQueuedAndEndsTheThread) {
  Controller control;
  (void)control.registerModule(1, 1067, "");
  for (int i = 1; i <= 50; ++i) {
    control.push(record(std::to_string(i)));
  }
  control.stop();
  Names expected = numbers(1, 50);
  expected.insert(expected.begin(), "File opened");
  EXPECT_EQ(textsIn(trace(kLive)), expected);
  control.push(record("too late"));
  control.stop();
  EXPECT_EQ(textsIn(trace(kLive)), expected);
}

TEST_F(ControllerThread, stopLeavesALineOfTheProgramsModule) {
  programModule = 1067;
  {
    Controller control;
    (void)control.registerModule(1, 1067, "");
    control.push(record("text"));
    control.stop();
  }
  programModule = 0;
  EXPECT_EQ(textsIn(trace(kLive)), (Names{"File opened", "text", ""}));
  EXPECT_TRUE(contentOf(trace(kLive)).ends_with("text\r\nLOG1067 0000 0000  00000000 \r\n"));
}

TEST_F(ControllerThread, theWriterCannotWaitForItsOwnEnd) {
  static Controller* control = nullptr;
  static std::error_code failure;
  Controller made;
  control = &made;
  // Called by the writer, when the first line opens the file.
  platform::setDataLocationSource([]() -> std::string {
    try {
      control->stop();
    } catch (const std::system_error& error) {
      failure = error.code();
    }
    return {};
  });
  made.push(record("text"));
  made.stop();
  EXPECT_EQ(failure, std::errc::resource_deadlock_would_occur);
}

TEST_F(ControllerThread, theDestructorStops) {
  {
    Controller control;
    control.push(record("text"));
  }
  EXPECT_EQ(textsIn(trace(kLive)), (Names{"File opened", "text"}));
}

TEST_F(ControllerThread, aThousandStartsAndStops) {
  for (int i = 0; i < 1000; ++i) {
    const Controller control;
  }
}

TEST_F(ControllerThread, eightProducersRotationsAndAStopAtOnce) {
  constexpr int kThreads = 8;
  std::atomic<bool> ending = false;
  Controller control;
  (void)control.registerModule(1, 1067, "");
  std::vector<std::thread> producers;
  for (int thread = 0; thread < kThreads; ++thread) {
    producers.emplace_back([&control, &ending, thread] {
      const std::string text = std::to_string(thread) + std::string(60, 'x');
      for (std::uint32_t i = 0; !ending; ++i) {
        (void)control.registerModule(1, 1001 + i % 50, "");
        control.push(record(text, i % 10 == 0 ? 1001 + i % 50 : 1067));
      }
    });
  }
  // Each day on the clock is a rotation of every file.
  const auto copies = [this] { return fs::exists(archive()) ? filesIn(archive()).size() : 0; };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (std::uint16_t day = 1; copies() < 100 && std::chrono::steady_clock::now() < deadline; ++day) {
    FakeClock::set({.year = 2024, .month = 5, .day = static_cast<std::uint16_t>(day % 28 + 1), .milliseconds = day});
    std::this_thread::yield();
  }
  EXPECT_GE(copies(), 100U);
  control.stop();
  ending = true;
  for (std::thread& producer : producers) {
    producer.join();
  }
  for (const fs::path& folder : {traces(), archive()}) {
    for (const std::string& name : filesIn(folder)) {
      for (const std::string& text : textsIn((folder / name).string())) {
        EXPECT_TRUE(text.size() == 61 || text == "File opened") << text;
      }
    }
  }
}

/// Traces in a folder where no file can be made.
class Pushes : public QXUTIL::ZEROMQ::WithContext {
 protected:
  Pushes() {
    location = data_.path().string();
    platform::setDataLocationSource([] { return location; });
  }
  ~Pushes() override { platform::setDataLocationSource(nullptr); }

  static inline std::string location;

 private:
  const TemporaryFolder data_;
};

TEST_F(Pushes, eachLineIsOfferedToTheReceiver) {
  const QXUTIL::ZEROMQ::Peer pull(ZMQ_PULL);
  {
    Controller control(LogsControl::Writer::none);
    TraceWriter writer(control, pull.endpoint());
    const ThreadLogData one = record("one");
    const ThreadLogData two = record("two", 5);
    control.push(one);
    control.push(two);
    writer.pass();
    EXPECT_EQ(pull.receive(), Names{" 3~  1067~ " + traceLine("LOG1067", one)}) << "though no file could be written";
    EXPECT_EQ(pull.receive(), Names{" 3~     5~ " + traceLine("LINE005", two)});
    EXPECT_EQ(QXUTIL::ZEROMQ::sharedState().liveSockets, 1);
  }
  EXPECT_EQ(QXUTIL::ZEROMQ::sharedState().liveSockets, 0) << "the end of the writer closes its socket";
}

TEST_F(Pushes, aLineIsWrittenBeforeItIsOffered) {
  static const QXUTIL::ZEROMQ::Peer* receiver = nullptr;
  const QXUTIL::ZEROMQ::Peer pull(ZMQ_PULL);
  receiver = &pull;
  Controller control(LogsControl::Writer::none);
  TraceWriter writer(control, pull.endpoint());
  control.push(record("connects"));
  writer.pass();
  EXPECT_EQ(pull.receive().size(), 1U);
  // Looked up when the next line opens its file.
  platform::setDataLocationSource([]() -> std::string {
    constexpr int kOnItsWay = 100;
    EXPECT_EQ(receiver->receive(kOnItsWay), Names{}) << "offered first";
    return location;
  });
  control.push(record("text", 5));
  writer.pass();
  EXPECT_EQ(pull.receive().size(), 1U);
}

TEST_F(Pushes, aRecordLostToABusyRegistryIsNotOffered) {
  const QXUTIL::ZEROMQ::Peer pull(ZMQ_PULL);
  Controller control(LogsControl::Writer::none);
  TraceWriter writer(control, pull.endpoint());
  control.push(record("one"));
  writer.pass();
  std::promise<void> held;
  std::promise<void> passed;
  std::thread holder([&] {
    EXPECT_EQ(control.moduleLock_.lock(kLong), platform::kWaitObject);
    held.set_value();
    passed.get_future().wait();
    control.moduleLock_.unlock();
  });
  held.get_future().wait();
  control.push(record("lost"));
  writer.pass();
  passed.set_value();
  holder.join();
  const ThreadLogData three = record("three");
  control.push(three);
  writer.pass();
  EXPECT_EQ(pull.receive().size(), 1U) << "the first";
  EXPECT_EQ(pull.receive(), Names{" 3~  1067~ " + traceLine("LOG1067", three)});
}

TEST_F(Pushes, theEndOfTheWriterClosesItsSocketThoughOthersUseTheService) {
  const QXUTIL::ZEROMQ::Peer pull(ZMQ_PULL);
  const QXUTIL::ZEROMQ::ZPushService other;
  Controller control(LogsControl::Writer::none);
  {
    TraceWriter writer(control, pull.endpoint());
    control.push(record("text"));
    writer.pass();
    EXPECT_EQ(QXUTIL::ZEROMQ::sharedState().liveSockets, 1);
  }
  EXPECT_EQ(QXUTIL::ZEROMQ::sharedState().liveSockets, 0);
}

TEST(PushEndpoint, isAFixedPortOfThisMachine) {
  EXPECT_EQ(pushEndpoint(), "tcp://127.0.0.1:10001");
}

}  // namespace
}  // namespace keltop
