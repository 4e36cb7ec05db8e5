#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "posts/XmlElement.h"

namespace keltop {
namespace {

/// How a text is written, seen through the one-line form.
std::string escaped(std::string_view text) {
  XmlElement element("e");
  element.addText(text);
  const std::string line = element.writeXml();
  constexpr std::string_view kStart = "<e>";
  constexpr std::string_view kEnd = "</e>\n";
  EXPECT_TRUE(line.starts_with(kStart) && line.ends_with(kEnd)) << line;
  return line.substr(kStart.size(), line.size() - kStart.size() - kEnd.size());
}

TEST(XmlElement, withoutContentIsOneClosedTag) {
  XmlElement element("status");
  EXPECT_EQ(element.writeXml(), "<status/>\n");
  element.addAttribute("code", "1");
  element.addAttribute("description", "Coffee");
  EXPECT_EQ(element.writeXml(), "<status code=\"1\" description=\"Coffee\"/>\n");
}

TEST(XmlElement, withOneTextIsOneLine) {
  XmlElement room("room");
  room.addChildElement("fname").addText("Orvin");
  EXPECT_EQ(room.writeXml(), "<room>\n\t<fname>Orvin</fname>\n</room>\n");
}

TEST(XmlElement, writesChildrenAndTextsInTheOrderOfAdding) {
  XmlElement element("a");
  element.addText("one");
  element.addChildElement("b").addAttribute("n", "1");
  element.addText("two");
  element.addText("three");
  element.addChildElement("c").addChildElement("d");
  EXPECT_EQ(element.writeXml(), "<a>\n\tone\n\t<b n=\"1\"/>\n\ttwo\n\tthree\n\t<c>\n\t\t<d/>\n\t</c>\n</a>\n");
}

TEST(XmlElement, keepsAttributesInOrderAndRepeatedNames) {
  XmlElement element("a");
  element.addAttribute("z", "1");
  element.addAttribute("b", "2");
  element.addAttribute("z", "3");
  EXPECT_EQ(element.writeXml(), "<a z=\"1\" b=\"2\" z=\"3\"/>\n");
}

TEST(XmlElement, anAttributeMayHaveAnEmptyValueOrNone) {
  XmlElement element("a");
  element.addAttribute("empty", "");
  element.addAttribute("none", std::nullopt);
  element.addAttribute("", "without a name");
  EXPECT_EQ(element.writeXml(), "<a empty=\"\" none/>\n");
}

TEST(XmlElement, escapesTheFiveCharactersInValuesAndTexts) {
  XmlElement element("a");
  element.addAttribute("v", "7&1<2>3\"4'5");
  element.addText("7&1<2>3\"4'5");
  EXPECT_EQ(element.writeXml(), "<a v=\"7&amp;1&lt;2&gt;3&quot;4&apos;5\">7&amp;1&lt;2&gt;3&quot;4&apos;5</a>\n");
}

TEST(XmlElement, neverEscapesNames) {
  XmlElement element("a&b");
  element.addAttribute("c<d", "1");
  element.addChildElement("e'f");
  EXPECT_EQ(element.writeXml(), "<a&b c<d=\"1\">\n\t<e'f/>\n</a&b>\n");
}

TEST(XmlElement, copiesWhatFollowsALeadByteUnseen) {
  EXPECT_EQ(escaped("\xC2&&"), "\xC2&&amp;");
  EXPECT_EQ(escaped("\xC3&x"), "\xC3&x");
  EXPECT_EQ(escaped("\xDF<<"), "\xDF<&lt;");
  EXPECT_EQ(escaped("\xE0&<>"), "\xE0&<&gt;");
  EXPECT_EQ(escaped("\xEF\"''"), "\xEF\"'&apos;");
  EXPECT_EQ(escaped("\xF0&<>'"), "\xF0&<>&apos;");
  EXPECT_EQ(escaped("\xF4&&&&"), "\xF4&&&&amp;");
}

TEST(XmlElement, bytesThatBeginNoSequenceStandAlone) {
  for (const char byte : {'\x01', '\x7F', '\x80', '\xBF', '\xC0', '\xC1', '\xF5', '\xFF'}) {
    EXPECT_EQ(escaped(std::string{byte, '&'}), std::string{byte} + "&amp;");
  }
}

TEST(XmlElement, aSequenceCutShortByTheEndOfTheTextEndsThere) {
  for (const char lead : {'\xC2', '\xDF', '\xE0', '\xEF', '\xF0', '\xF4'}) {
    // Of exactly the text's size, so that a read past its end is one that a sanitizer sees.
    const std::unique_ptr<char[]> text = std::make_unique<char[]>(2);
    text[0] = '&';
    text[1] = lead;
    EXPECT_EQ(escaped(std::string_view(text.get(), 2)), std::string("&amp;") + lead);
  }
  EXPECT_EQ(escaped("\xF0&"), "\xF0&");
  EXPECT_EQ(escaped("\xF0&\""), "\xF0&\"");
  XmlElement element("a");
  element.addAttribute("v", "\xE9");
  EXPECT_EQ(element.writeXml(), "<a v=\"\xE9\"/>\n");
}

TEST(XmlElement, anEmptyTextIsContentThatWritesNothing) {
  XmlElement element("a");
  element.addText("");
  EXPECT_EQ(element.writeXml(), "<a></a>\n");
  element.addText("");
  EXPECT_EQ(element.writeXml(), "<a>\n</a>\n");
  element.addText("x");
  EXPECT_EQ(element.writeXml(), "<a>\n\tx\n</a>\n");
}

TEST(XmlElement, textsEndAtTheirFirstZeroByte) {
  using namespace std::string_view_literals;
  XmlElement element("a\0b"sv);
  element.addAttribute("c\0d"sv, "e\0f"sv);
  element.addText("g\0h"sv);
  EXPECT_EQ(element.writeXml(), "<a c=\"e\">g</a>\n");
}

TEST(XmlElement, withoutANameWritesOnlyItsContent) {
  XmlElement element("");
  element.addAttribute("unseen", "1");
  EXPECT_EQ(element.writeXml(), "");
  element.addText("x&y");
  EXPECT_EQ(element.writeXml(), "x&amp;y");
  element.addChildElement("b");
  EXPECT_EQ(element.writeXml(), "\tx&amp;y\n\t<b/>\n");
}

TEST(XmlElement, aDeclarationHasQuestionMarks) {
  XmlElement declaration("xml", XmlElement::Kind::kDeclaration);
  declaration.addAttribute("version", "1.0");
  EXPECT_EQ(declaration.writeXml(), "<?xml version=\"1.0\"?>\n");
  declaration.addText("never on one line");
  EXPECT_EQ(declaration.writeXml(), "<?xml version=\"1.0\"?>\n\tnever on one line\n</xml>\n");
}

TEST(XmlElement, copiesShareTheElement) {
  XmlElement element("a");
  XmlElement copy = element;
  copy.addAttribute("n", "1");
  copy.addText("x");
  EXPECT_EQ(element.writeXml(), "<a n=\"1\">x</a>\n");
  EXPECT_EQ(copy, element);
  EXPECT_NE(XmlElement("a"), element);
}

TEST(XmlElement, anAttachedChildIsShared) {
  XmlElement root("root");
  XmlElement child("child");
  root.attachChild(child);
  child.addAttribute("later", "1");
  EXPECT_EQ(root.writeXml(), "<root>\n\t<child later=\"1\"/>\n</root>\n");
}

TEST(XmlElement, attachingTakesTheChildFromItsFormerParent) {
  XmlElement first("first");
  first.addText("t");
  XmlElement child = first.addChildElement("child");
  first.addChildElement("child");
  XmlElement second("second");
  second.attachChild(child);
  EXPECT_EQ(first.writeXml(), "<first>\n\tt\n\t<child/>\n</first>\n");
  EXPECT_EQ(second.writeXml(), "<second>\n\t<child/>\n</second>\n");
}

TEST(XmlElement, attachingAgainMovesTheChildToTheEnd) {
  XmlElement root("root");
  XmlElement child = root.addChildElement("a");
  root.addChildElement("b");
  root.attachChild(child);
  EXPECT_EQ(root.writeXml(), "<root>\n\t<b/>\n\t<a/>\n</root>\n");
}

TEST(XmlElement, cannotHoldItselfNorWhatHoldsIt) {
  XmlElement root("root");
  XmlElement inner = root.addChildElement("child").addChildElement("inner");
  inner.attachChild(root);
  inner.attachChild(inner);
  EXPECT_EQ(root.writeXml(), "<root>\n\t<child>\n\t\t<inner/>\n\t</child>\n</root>\n");
}

TEST(XmlElement, aChildOutlivesItsParentWhileAHandleIsHeld) {
  XmlElement child;
  {
    XmlElement root("root");
    child = root.addChildElement("child");
  }
  EXPECT_EQ(child.writeXml(), "<child/>\n");
  XmlElement other("other");
  other.attachChild(child);
  EXPECT_EQ(other.writeXml(), "<other>\n\t<child/>\n</other>\n");
}

TEST(XmlElement, theEmptyElementTakesAndWritesNothing) {
  XmlElement empty;
  empty.addAttribute("a", "1");
  empty.addText("x");
  empty.attachChild(XmlElement("b"));
  EXPECT_TRUE(empty.addChildElement("c").isEmpty());
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_EQ(empty.writeXml(), "");
  EXPECT_EQ(empty, XmlElement());
}

TEST(XmlElement, aChildWithoutANameIsTheEmptyElement) {
  XmlElement root("root");
  EXPECT_TRUE(root.addChildElement("").isEmpty());
  root.attachChild(XmlElement());
  EXPECT_EQ(root.writeXml(), "<root/>\n");
}

}  // namespace
}  // namespace keltop
