#include <gtest/gtest.h>

#include "platform/linux/NameMatch.h"

namespace keltop::platform {
namespace {

TEST(NameMatch, plainTextMatchesItself) {
  EXPECT_TRUE(nameMatches("a.ltt", "a.ltt"));
  EXPECT_TRUE(nameMatches("", ""));
  EXPECT_FALSE(nameMatches("a.ltt", "a.lt"));
  EXPECT_FALSE(nameMatches("a.lt", "a.ltt"));
  EXPECT_FALSE(nameMatches("A.ltt", "a.ltt"));
}

TEST(NameMatch, aStarStandsForAnyCharactersOrNone) {
  EXPECT_TRUE(nameMatches("LOG.ltt", "LOG*.ltt"));
  EXPECT_TRUE(nameMatches("LOG-1.ltt.ltt", "LOG*.ltt"));
  EXPECT_TRUE(nameMatches("anything", "*"));
  EXPECT_TRUE(nameMatches("", "**"));
  EXPECT_TRUE(nameMatches("abcabd", "*ab?"));
  EXPECT_FALSE(nameMatches("LOG.ltt2", "LOG*.ltt"));
  EXPECT_FALSE(nameMatches("LO.ltt", "LOG*.ltt"));
}

TEST(NameMatch, aQuestionMarkStandsForOneCharacter) {
  EXPECT_TRUE(nameMatches("a1b", "a?b"));
  EXPECT_FALSE(nameMatches("ab", "a?b"));
  EXPECT_FALSE(nameMatches("a12b", "a?b"));
}

TEST(NameMatch, bracketsAndBackslashesAreOrdinaryCharacters) {
  EXPECT_TRUE(nameMatches("[a]\\", "[a]\\"));
  EXPECT_FALSE(nameMatches("a", "[a]"));
}

}  // namespace
}  // namespace keltop::platform
