#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

#include "trace/FormatTrace.h"
#include "trace/ThreadLogData.h"

namespace keltop {
namespace {

constexpr platform::LocalTime kTime = {
    .year = 2024, .month = 1, .dayOfWeek = 1, .day = 15, .hour = 9, .minute = 5, .second = 7, .milliseconds = 42};

TEST(FormatTrace, aTimeStampHasEveryFieldFilledUp) {
  EXPECT_EQ(timeStamp(kTime), "2024/01/15-09:05:07:042");
  EXPECT_EQ(timeStamp({.year = 987, .month = 12, .day = 31, .hour = 23, .minute = 59, .second = 58, .milliseconds = 7}),
            "0987/12/31-23:59:58:007");
}

TEST(FormatTrace, aTimeStampFollowsEachFieldOfTheOneBefore) {
  std::thread([] { EXPECT_EQ(timeStamp({}), "0000/00/00-00:00:00:000") << "a thread's first"; }).join();
  for (std::uint16_t platform::LocalTime::*const field :
       {&platform::LocalTime::year, &platform::LocalTime::month, &platform::LocalTime::day, &platform::LocalTime::hour,
        &platform::LocalTime::minute, &platform::LocalTime::second, &platform::LocalTime::milliseconds}) {
    platform::LocalTime other = kTime;
    ++(other.*field);
    EXPECT_EQ(timeStamp(kTime), "2024/01/15-09:05:07:042");
    EXPECT_NE(timeStamp(other), "2024/01/15-09:05:07:042");
  }
}

TEST(FormatTrace, aCompactTimeStampHasThePlainYear) {
  EXPECT_EQ(compactTimeStamp(kTime), "20240115090507042");
  EXPECT_EQ(compactTimeStamp({.year = 987, .month = 12, .day = 31}), "9871231000000000");
}

TEST(FormatTrace, numbersAreFilledUpAndNeverCut) {
  std::string text;
  appendNumber(text, 7, 3);
  appendNumber(text, 4294967295U, 4);
  appendNumber(text, 0, 0);
  appendNumber(text, 3, 2, ' ');
  EXPECT_EQ(text, "00742949672950 3");
}

TEST(FormatTrace, aLineHasNameProcessThreadTimeTypeAndText) {
  const ThreadLogData record = {.module = 1067,
                                .threadId = 88,
                                .processId = 4312,
                                .timeStamp = "2024/01/15-09:05:07:042",
                                .type = 6,
                                .text = "Started"};
  EXPECT_EQ(traceLine("LOG1067", record), "LOG1067 4312 0088 2024/01/15-09:05:07:042 00000006 Started\r\n");
}

TEST(FormatTrace, longIdsStayWholeAndTheTypeIsUpperCaseHexadecimal) {
  const ThreadLogData record = {
      .module = 1, .threadId = 1234567, .processId = 7, .timeStamp = "T", .type = 0xABCDEF, .text = ""};
  EXPECT_EQ(traceLine("LINE001", record), "LINE001 0007 1234567 T 00ABCDEF \r\n");
}

TEST(FormatTrace, theEmptyRecordHasAColumnForEverything) {
  EXPECT_EQ(traceLine("LOG1067", {}), "LOG1067 0000 0000  00000000 \r\n");
}

TEST(FormatTrace, aPushMessageHasItsKindTheModuleAndTheLine) {
  EXPECT_EQ(pushMessage(1067, "line\r\n"), " 3~  1067~ line\r\n");
  EXPECT_EQ(pushMessage(1234567, ""), " 3~1234567~ ");
}

}  // namespace
}  // namespace keltop
