#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "product/ConsoleStream.h"

namespace keltop {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(ConsoleStream, passesTextOnWhenFlushedAndNotBefore) {
  ConsoleStream console;
  CaptureStdout();
  console << "a " << 1 << '\n';
  EXPECT_EQ(GetCapturedStdout(), "");
  CaptureStdout();
  console << "b" << std::endl;
  EXPECT_EQ(GetCapturedStdout(), "a 1\nb\n");
  CaptureStdout();
  console << std::flush;
  EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(ConsoleStream, passesTheRestOnWhenItGoes) {
  CaptureStdout();
  { ConsoleStream() << "rest"; }
  EXPECT_EQ(GetCapturedStdout(), "rest");
}

TEST(ConsoleStream, keepsTheOrderOfShortAndLongTexts) {
  const std::string longText(200'000, 'x');
  CaptureStdout();
  { ConsoleStream() << "before" << longText << "after"; }
  EXPECT_EQ(GetCapturedStdout(), "before" + longText + "after");
  CaptureStdout();
  { (ConsoleStream() << "a").append("b").append(longText).append("c") << "d"; }
  EXPECT_EQ(GetCapturedStdout(), "ab" + longText + "cd");
}

TEST(ConsoleStream, carriesEveryByte) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    if (i != '\n' && i != 0x1A) {  // which Windows' text mode changes, and takes for the end when it is read
      bytes += static_cast<char>(i);
    }
  }
  CaptureStdout();
  { ConsoleStream() << bytes; }
  EXPECT_EQ(GetCapturedStdout(), bytes);
}

TEST(ConsoleStream, siteLineNamesRoutineSiteAndMessage) {
  CaptureStdout();
  printSiteLine("Routine", 42, "Error: ", "detail");
  EXPECT_EQ(GetCapturedStdout(), "Routine(42) Error: detail\n");
}

}  // namespace
}  // namespace keltop
