#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/Identity.h"
#include "trace/FormatTrace.h"
#include "trace/GlobalLogsControl.h"
#include "trace/ThreadLogData.h"
#include "trace/TraceFolder.h"
#include "trace/TraceWrite.h"
#include "trace/WriteStartBanner.h"

namespace keltop {
namespace {

class TraceWrite : public TraceFolder {};

// One test: the program's controller can be stopped only once.
TEST_F(TraceWrite, linesReachTheFileThroughTheProgramsController) {
  LogsControl* const control = globalLogsControl();
  ASSERT_NE(control, nullptr);
  // Not rotated: the controller saw the real date before the test's clock came.
  EXPECT_TRUE(control->registerModule(0, 1067, ""));
  writeStartBanner("8.0.26");
  traceWrite(0, 0, "text");
  traceWrite(1, -2, "x", "A:");
  traceWrite(0, 0, "", "prefix");
  traceWrite(0, 0, "");
  std::uint32_t thread = 0;
  std::thread([&thread] {
    thread = platform::currentThreadId();
    traceWrite(0, 0, "of another thread");
  }).join();
  control->stop();
  const auto line = [](std::string text, std::uint32_t threadId) {
    ThreadLogData record = makeRecord(1067, 6, std::move(text));
    record.threadId = threadId;
    return traceLine("LOG1067", record);
  };
  const std::string content = contentOf(trace(kLive));
  const std::uint32_t self = platform::currentThreadId();
  EXPECT_EQ(content.substr(content.find("\r\n") + 2), line("KELTOP - Built on Jan 15 2024 Version: 8.0.26", self) +
                                                          line("text", self) + line("A:x", self) +
                                                          line("of another thread", thread));
}

TEST(MakeRecord, isStampedWithItsThreadAndTime) {
  const FakeClock clock(kTraceStart);
  const ThreadLogData record = makeRecord(1067, 6, "text");
  EXPECT_EQ(record.module, 1067U);
  EXPECT_EQ(record.threadId, platform::currentThreadId());
  EXPECT_EQ(record.processId, platform::currentProcessId());
  EXPECT_EQ(record.timeStamp, "2024/01/15-09:05:07:042");
  EXPECT_EQ(record.type, 6U);
  EXPECT_EQ(record.text, "text");
}

}  // namespace
}  // namespace keltop
