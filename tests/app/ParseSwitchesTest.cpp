#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "app/ParseSwitches.h"

namespace keltop {
namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

struct Parsed {
  std::uint32_t count = 0;
  Entries entries;
};

Parsed parse(std::vector<const char*> arguments, SwitchMap switches = {}) {
  arguments.insert(arguments.begin(), "-keltop/~");  // the program name, which is never looked at
  const std::uint32_t count = parseSwitches(static_cast<std::int32_t>(arguments.size()), arguments.data(), &switches);
  return {count, Entries(switches.begin(), switches.end())};
}

TEST(ParseSwitches, programNameAloneGivesNothing) {
  const Parsed parsed = parse({});
  EXPECT_EQ(parsed.count, 0U);
  EXPECT_EQ(parsed.entries, Entries{});
}

TEST(ParseSwitches, valueFollowsItsSwitch) {
  const Parsed parsed = parse({"-p", "8080"});
  EXPECT_EQ(parsed.count, 1U);
  EXPECT_EQ(parsed.entries, (Entries{{"P", "8080"}}));
}

TEST(ParseSwitches, slashMarksASwitchAndTheLastHasNoValue) {
  const Parsed parsed = parse({"-P", "8080", "/raw"});
  EXPECT_EQ(parsed.count, 2U);
  EXPECT_EQ(parsed.entries, (Entries{{"P", "8080"}, {"RAW", ""}}));
}

TEST(ParseSwitches, anArgumentThatBeginsASwitchIsNoValue) {
  EXPECT_EQ(parse({"-raw", "-p", "80"}).entries, (Entries{{"P", "80"}, {"RAW", ""}}));
  EXPECT_EQ(parse({"-raw", "/p", "80"}).entries, (Entries{{"P", "80"}, {"RAW", ""}}));
  EXPECT_EQ(parse({"-p", "-5"}).entries, (Entries{{"5", ""}, {"P", ""}}));
}

TEST(ParseSwitches, tildeForcesTheNextArgumentToBeItsValue) {
  EXPECT_EQ(parse({"~description", "-quiet-room"}).entries, (Entries{{"DESCRIPTION", "-quiet-room"}}));
  EXPECT_EQ(parse({"~a", "/b", "-c"}).entries, (Entries{{"A", "/b"}, {"C", ""}}));
  EXPECT_EQ(parse({"~a"}).entries, (Entries{{"A", ""}}));
}

TEST(ParseSwitches, anArgumentThatBeginsWithTildeIsAValueOfTheSwitchBefore) {
  EXPECT_EQ(parse({"-a", "~b", "-c"}).entries, (Entries{{"A", "~b"}, {"C", ""}}));
}

TEST(ParseSwitches, valuesKeepTheirCaseAndTheirLaterSwitchCharacters) {
  EXPECT_EQ(parse({"-url", "http://127.0.0.1/Rsi"}).entries, (Entries{{"URL", "http://127.0.0.1/Rsi"}}));
  EXPECT_EQ(parse({"-url", ""}).entries, (Entries{{"URL", ""}}));
}

TEST(ParseSwitches, argumentsWithoutASwitchCharacterAreDropped) {
  EXPECT_EQ(parse({"foo", "-p", "80", "bar", ""}).entries, (Entries{{"P", "80"}}));
}

TEST(ParseSwitches, theFirstSwitchCharacterIsTakenOutWhereverItStands) {
  EXPECT_EQ(parse({"x-y"}).entries, (Entries{{"XY", ""}}));
  EXPECT_EQ(parse({"ab-c"}).entries, (Entries{{"ABC", ""}}));
  EXPECT_EQ(parse({"--p"}).entries, (Entries{{"-P", ""}}));
  EXPECT_EQ(parse({"-"}).entries, (Entries{{"", ""}}));
  EXPECT_EQ(parse({"a~b-c", "-v"}).entries, (Entries{{"AB-C", "-v"}}));
}

TEST(ParseSwitches, repeatedSwitchesKeepTheirOrderAndTheFirstIsFound) {
  const char* const arguments[] = {"keltop", "-p", "80", "-a", "1", "-P", "81"};
  SwitchMap switches;
  EXPECT_EQ(parseSwitches(7, arguments, &switches), 3U);
  EXPECT_EQ(Entries(switches.begin(), switches.end()), (Entries{{"A", "1"}, {"P", "80"}, {"P", "81"}}));
  ASSERT_NE(findSwitch(switches, "P"), nullptr);
  EXPECT_EQ(*findSwitch(switches, "P"), "80");
  EXPECT_EQ(findSwitch(switches, "p"), nullptr);
  EXPECT_EQ(findSwitch(switches, "Q"), nullptr);
}

TEST(ParseSwitches, namesAreUpperCasedInAsciiOnly) {
  EXPECT_EQ(parse({"-az{`\xE4\xFC"}).entries, (Entries{{"AZ{`\xE4\xFC", ""}}));
}

TEST(ParseSwitches, namesAreOrderedByUnsignedBytes) {
  EXPECT_EQ(parse({"-\x80", "-\x7F", "-aa", "-a"}).entries,
            (Entries{{"A", ""}, {"AA", ""}, {"\x7F", ""}, {"\x80", ""}}));
}

TEST(ParseSwitches, entriesFromBeforeAreKeptAndCounted) {
  const Parsed parsed = parse({"-p", "80"}, {{"P", "1"}, {"X", ""}});
  EXPECT_EQ(parsed.count, 3U);
  EXPECT_EQ(parsed.entries, (Entries{{"P", "1"}, {"P", "80"}, {"X", ""}}));
  EXPECT_EQ(parse({}, {{"P", "1"}}).count, 1U);
}

TEST(ParseSwitches, aCountBelowTwoLooksAtNothing) {
  SwitchMap switches = {{"P", "1"}};
  EXPECT_EQ(parseSwitches(0, nullptr, &switches), 1U);
  EXPECT_EQ(parseSwitches(-3, nullptr, &switches), 1U);
}

TEST(ParseSwitches, withoutAMapNothingHappens) {
  const char* const arguments[] = {"keltop", "-p", "80"};
  EXPECT_EQ(parseSwitches(3, arguments, nullptr), 0U);
}

}  // namespace
}  // namespace keltop
