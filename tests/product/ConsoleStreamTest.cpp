#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "product/ConsoleStream.h"
#include "support/CapturedOutput.h"

namespace keltop {
namespace {

TEST(ConsoleStream, passesTextOnWhenFlushedAndNotBefore) {
  ConsoleStream console;
  EXPECT_EQ(outputOf([&] { console << "a " << 1 << '\n'; }), "");
  EXPECT_EQ(outputOf([&] { console << "b" << std::endl; }), "a 1\nb\n");
  EXPECT_EQ(outputOf([&] { console << std::flush; }), "");
}

TEST(ConsoleStream, passesTheRestOnWhenItGoes) {
  EXPECT_EQ(outputOf([&] { ConsoleStream() << "rest"; }), "rest");
}

TEST(ConsoleStream, keepsTheOrderOfShortAndLongTexts) {
  const std::string longText(200'000, 'x');
  EXPECT_EQ(outputOf([&] { ConsoleStream() << "before" << longText << "after"; }), "before" + longText + "after");
  EXPECT_EQ(outputOf([&] { (ConsoleStream() << "a").append("b").append(longText).append("c") << "d"; }),
            "ab" + longText + "cd");
}

TEST(ConsoleStream, carriesEveryByte) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    if (i != '\n' && i != 0x1A) {  // which Windows' text mode changes, and takes for the end when it is read
      bytes += static_cast<char>(i);
    }
  }
  EXPECT_EQ(outputOf([&] { ConsoleStream() << bytes; }), bytes);
}

TEST(ConsoleStream, siteLineNamesRoutineSiteAndMessage) {
  EXPECT_EQ(outputOf([&] { printSiteLine("Routine", 42, "Error: ", "detail"); }), "Routine(42) Error: detail\n");
}

}  // namespace
}  // namespace keltop
