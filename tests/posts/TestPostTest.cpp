#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <stdexcept>
#include <string>

#include "posts/Protocol.h"
#include "posts/TestPost.h"
#include "support/CapturedOutput.h"

namespace keltop {
namespace {

constexpr TestPost kPost = {.routine = "PostTEST",
                            .name = "TEST",
                            .errorSite = 1,
                            .rootName = "test",
                            .valueSwitches = {},
                            .completeJson = [](Poco::JSON::Object&, const PostValues&) {},
                            .completeXml = [](XmlElement& room, const PostValues& values) { addUser(room, values); }};

PostValues named(const std::string& firstName, const std::string& lastName) {
  PostValues values;
  values.firstName = firstName;
  values.lastName = lastName;
  return values;
}

/// The element of the user, as it is written.
std::string userElement(const PostValues& values) {
  XmlElement room("room");
  addUser(room, values);
  return room.writeXml();
}

TEST(TestPost, anEmptyNameIsNoElement) {
  EXPECT_EQ(userElement(named("A", "B")),
            "<room>\n\t<user id=\"1000\">\n\t\t<fname>A</fname>\n\t\t<lname>B</lname>\n\t</user>\n</room>\n");
  EXPECT_EQ(userElement(named("", "B")), "<room>\n\t<user id=\"1000\">\n\t\t<lname>B</lname>\n\t</user>\n</room>\n");
  EXPECT_EQ(userElement(named("A", "")), "<room>\n\t<user id=\"1000\">\n\t\t<fname>A</fname>\n\t</user>\n</room>\n");
  EXPECT_EQ(userElement(named("", "")), "<room>\n\t<user id=\"1000\"/>\n</room>\n");
}

TEST(TestPost, anEmptyNameIsNoKey) {
  const auto has = [](const PostValues& values, const char* key) {
    return makePayload(kPost, values, kProtocolJson).find(key) != std::string::npos;
  };
  EXPECT_TRUE(has(named("A", "B"), "\"fname\": \"A\"") && has(named("A", "B"), "\"lname\": \"B\""));
  EXPECT_TRUE(!has(named("", "B"), "\"fname\"") && has(named("", "B"), "\"lname\": \"B\""));
  EXPECT_TRUE(has(named("A", ""), "\"fname\": \"A\"") && !has(named("A", ""), "\"lname\""));
}

TEST(TestPost, hasNoPayloadForAnotherProtocol) {
  const PostValues values;
  EXPECT_EQ(makePayload(kPost, values, kProtocolForm), "");
  EXPECT_EQ(makePayload(kPost, values, 4), "");
  EXPECT_NE(makePayload(kPost, values, kProtocolXml), "");
}

TEST(TestPost, reportsAFailureOfTheLibraryAndReturns) {
  TestPost post = kPost;
  post.completeXml = [](XmlElement&, const PostValues&) { throw Poco::DataException("why"); };
  CapturedOutput output;
  EXPECT_NO_THROW(sendTestPost({{"TEST", ""}}, post));
  EXPECT_EQ(output.take(), "PostTEST(1) Error: Data error: why\n");
}

TEST(TestPost, catchesOnlyTheLibrarysExceptions) {
  TestPost post = kPost;
  post.completeJson = [](Poco::JSON::Object&, const PostValues&) { throw std::runtime_error("why"); };
  CapturedOutput output;
  EXPECT_THROW(sendTestPost({{"TEST", "json"}}, post), std::runtime_error);
  EXPECT_EQ(output.take(), "");
}

TEST(TestPost, buildsThePayloadEvenWithoutAnAddress) {
  static int built = 0;
  TestPost post = kPost;
  post.completeJson = [](Poco::JSON::Object&, const PostValues&) { ++built; };
  EXPECT_EQ(outputOf([&] { sendTestPost({{"TEST", "json"}}, post); }), "Post(985) Error: No URL given\n");
  EXPECT_EQ(built, 1);
}

TEST(TestPost, writesNumbersInPlainDecimal) {
  XmlElement element("e");
  addAttribute(element, "a", std::numeric_limits<std::int32_t>::min());
  addAttribute(element, "b", std::numeric_limits<std::int32_t>::max());
  addAttribute(element, "c", 0);
  EXPECT_EQ(element.writeXml(), "<e a=\"-2147483648\" b=\"2147483647\" c=\"0\"/>\n");
}

TEST(TestPost, takesTheEarliestValueOfASwitchUnlessItIsEmpty) {
  constexpr std::array<ValueSwitch, 2> kSwitches = {{{"ROOM", &PostValues::room}, {"ID", &PostValues::userId}}};
  EXPECT_EQ(gatherValues({{"ROOM", "1"}, {"ROOM", "2"}}, kSwitches).room, "1");
  EXPECT_EQ(gatherValues({{"ROOM", ""}, {"ROOM", "2"}}, kSwitches).room, "7101");
  EXPECT_EQ(gatherValues({{"ID", "x"}}, kSwitches).userId, 0);
  EXPECT_EQ(gatherValues({{"id", "5"}, {"FNAME", "A"}}, kSwitches).userId, 1000);
  EXPECT_EQ(gatherValues({{"FNAME", "A"}}, kSwitches).firstName, "Orvin");
}

}  // namespace
}  // namespace keltop
