#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "view/Json.h"

namespace keltop::view {
namespace {

std::string everyByte() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    bytes += static_cast<char>(i);
  }
  return bytes;
}

std::string utf8Of(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto code = static_cast<unsigned char>(byte);
    if (code < 0x80) {
      text += byte;
    } else {
      text += {static_cast<char>(0xC0U | (code >> 6U)), static_cast<char>(0x80U | (code & 0x3FU))};
    }
  }
  return text;
}

std::string parsed(const std::string& json) {
  return Poco::JSON::Parser()
      .parse(std::string("[").append(json).append("]"))
      .extract<Poco::JSON::Array::Ptr>()
      ->getElement<std::string>(0);
}

TEST(Json, writesValuesWithTheCommasThatBelongBetweenThem) {
  std::string text;
  JsonWriter json(text);
  json.beginObject()
      .name("a")
      .number(std::uint64_t{1})
      .name("b")
      .beginArray()
      .number(std::int64_t{-2})
      .null()
      .boolean(true);
  json.beginObject().endObject().endArray().name("c").bytes("x").name("d").number(1.5).endObject();
  EXPECT_EQ(text, R"({"a":1,"b":[-2,null,true,{}],"c":"x","d":1.500})");
}

TEST(Json, carriesEveryByte) {
  std::string text;
  JsonWriter(text).bytes(everyByte());
  EXPECT_TRUE(std::ranges::all_of(text, [](char c) { return c >= 0x20 && c < 0x7F; }));
  // A zero is where the library's parser would end a text.
  EXPECT_EQ(text.substr(0, 13), R"("\u0000\u0001)");
  text.erase(1, 6);
  EXPECT_EQ(parsed(text), utf8Of(everyByte().substr(1)));
}

TEST(Json, givesUtf8AsTextAndOtherBytesAsCharacters) {
  std::string text;
  JsonWriter(text).text("a\"\\\x01 \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xFF \xC3");
  EXPECT_EQ(text, R"("a\"\\\u0001 \u00e9 \u20ac \ud83d\ude00 \u00ff \u00c3")");
}

TEST(Json, writesBase64) {
  for (const auto& [bytes, expected] : {std::pair<std::string_view, std::string_view>("", ""),
                                        {"f", "Zg=="},
                                        {"fo", "Zm8="},
                                        {"foo", "Zm9v"},
                                        {"foob", "Zm9vYg=="},
                                        {"\xFF\xFE\xFD", "//79"}}) {
    std::string text;
    JsonWriter(text).base64(bytes);
    EXPECT_EQ(text, std::string("\"").append(expected).append("\""));
  }
}

TEST(Json, takesForTextOnlyWhatIsUtf8WithoutControls) {
  EXPECT_TRUE(isText("a\tb\r\n\xC3\xA9"));
  for (const std::string_view bytes :
       {std::string_view("\0", 1), std::string_view("\x7F"), std::string_view("\xC0\x80"), std::string_view("\xC1\xA1"),
        std::string_view("\xED\xA0\x80"), std::string_view("\xF4\x90\x80\x80"), std::string_view("\xE2\x82"),
        std::string_view("\x80"), std::string_view("\x1B[0m")}) {
    EXPECT_FALSE(isText(bytes));
  }
}

}  // namespace
}  // namespace keltop::view
