#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "view/Exchange.h"

namespace keltop::view {
namespace {

Stream whole(std::string_view bytes, bool ended = true) {
  return {bytes, bytes.size(), ended};
}

Exchange read(std::string_view received, std::string_view sent = {}, bool ended = true) {
  return readExchange(whole(received, ended), whole(sent, ended));
}

TEST(Exchange, givesTheRequestAsItCame) {
  const std::string_view bytes =
      "GET /a%c3%a9~b%7e%2fc?who=maid%201 HTTP/1.1\r\nHost: x\r\nX-Folded: one\r\n\ttwo\r\nX-Word:  =?UTF-8?Q?a?= "
      "\r\n\r\n";
  const Exchange exchange = read(bytes);
  ASSERT_TRUE(exchange.request);
  const Message& request = *exchange.request;
  EXPECT_EQ(request.first, "GET");
  EXPECT_EQ(request.second, "/a%c3%a9~b%7e%2fc?who=maid%201");
  EXPECT_EQ(request.third, "HTTP/1.1");
  ASSERT_EQ(request.headers.size(), 3U);
  EXPECT_EQ(request.headers[1].name, "X-Folded");
  EXPECT_EQ(request.headers[1].value, "one\r\n\ttwo");
  EXPECT_EQ(request.headers[2].value, "=?UTF-8?Q?a?=");
  EXPECT_EQ(request.head, bytes);
  EXPECT_EQ(request.header("x-word"), "=?UTF-8?Q?a?=");
  EXPECT_EQ(request.header("other"), std::nullopt);
  EXPECT_EQ(request.body.end, BodyEnd::complete);
  EXPECT_EQ(request.body.wireTotal, 0U);
}

TEST(Exchange, tellsABodyFromWhatComesAfterIt) {
  const Exchange exchange = read("POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhelloEXTRA");
  ASSERT_TRUE(exchange.request);
  EXPECT_EQ(exchange.request->body.content(), "hello");
  EXPECT_EQ(exchange.request->body.end, BodyEnd::complete);
  EXPECT_EQ(exchange.request->body.announced, 5U);
  EXPECT_EQ(exchange.request->rest, "EXTRA");
  EXPECT_EQ(exchange.request->restTotal, 5U);
}

TEST(Exchange, tellsABodyThatIsShorterFromOneThatIsComing) {
  const std::string_view bytes = "POST / HTTP/1.1\r\nContent-Length: 20\r\n\r\nhello";
  EXPECT_EQ(read(bytes, {}, true).request->body.end, BodyEnd::shorter);
  EXPECT_EQ(read(bytes, {}, false).request->body.end, BodyEnd::coming);
  EXPECT_EQ(read(bytes).request->body.wireTotal, 5U);
}

TEST(Exchange, countsTheBodyOfWhichOnlyTheBeginningIsAtHand) {
  const std::string_view bytes = "POST / HTTP/1.1\r\nContent-Length: 2000\r\n\r\nhello";
  const Exchange exchange = readExchange({bytes, bytes.size() - 5 + 2003, true}, {});
  EXPECT_EQ(exchange.request->body.end, BodyEnd::complete);
  EXPECT_EQ(exchange.request->body.wireTotal, 2000U);
  EXPECT_EQ(exchange.request->body.wire, "hello");
  EXPECT_EQ(exchange.request->restTotal, 3U);
}

TEST(Exchange, decodesChunks) {
  const Exchange exchange =
      read("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5;x=y\r\nhello\r\n6\r\n world\r\n0\r\n\r\nMORE");
  ASSERT_TRUE(exchange.request);
  EXPECT_TRUE(exchange.request->body.chunked);
  EXPECT_EQ(exchange.request->body.content(), "hello world");
  EXPECT_EQ(exchange.request->body.end, BodyEnd::complete);
  EXPECT_EQ(exchange.request->rest, "MORE");
}

TEST(Exchange, marksChunksThatEndEarlyOrAreNone) {
  const std::string head = "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string within = head + "a\r\nhello";
  const Exchange cut = read(within);
  EXPECT_EQ(cut.request->body.end, BodyEnd::shorter);
  EXPECT_EQ(cut.request->body.content(), "hello");
  EXPECT_EQ(read(within, {}, false).request->body.end, BodyEnd::coming);
  const std::string between = head + "5\r\nhello\r\n";
  EXPECT_EQ(read(between).request->body.end, BodyEnd::shorter);
  const std::string none = head + "zz\r\nhello\r\n";
  EXPECT_EQ(read(none).request->body.end, BodyEnd::broken);
}

TEST(Exchange, takesTheRestForABodyWhereNoLengthIsAnnounced) {
  const std::string post = "POST / HTTP/1.0\r\n\r\nto the end";
  EXPECT_EQ(read(post).request->body.end, BodyEnd::unannounced);
  EXPECT_EQ(read(post).request->body.content(), "to the end");
  const std::string get = "GET / HTTP/1.0\r\n\r\nafter the end";
  EXPECT_EQ(read(get).request->body.wireTotal, 0U);
  EXPECT_EQ(read(get).request->rest, "after the end");
}

TEST(Exchange, hasNoRequestWhereTheLibraryTakesNone) {
  for (const std::string& bytes :
       {std::string("hello\r\n\r\n"), std::string(), std::string("\x16\x03\x01\x02"),
        std::string("GET / HTTP/1.1\r\nHost: x\r\n"), "GET / HTTP/1.1\r\nA: " + std::string(1 << 20, 'a') + "\r\n\r\n",
        std::string(2000, 'M') + " / HTTP/1.1\r\n\r\n"}) {
    EXPECT_FALSE(read(bytes, {}, false).request) << bytes.substr(0, 20);
  }
}

TEST(Exchange, takesAHeadThatEndsWithTheConnectionAsTheLibraryDoes) {
  const Exchange exchange = read("GET /cut HTTP/1.1\r\nHost: x\r\n");
  ASSERT_TRUE(exchange.request);
  EXPECT_EQ(exchange.request->second, "/cut");
}

TEST(Exchange, readsTheAnswerBehindInterimOnes) {
  const Exchange exchange = read("POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 1\r\n\r\nx",
                                 "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 All Right\r\nLocation: here\r\n\r\n");
  ASSERT_EQ(exchange.interim.size(), 1U);
  EXPECT_EQ(exchange.interim[0], "HTTP/1.1 100 Continue\r\n\r\n");
  ASSERT_TRUE(exchange.answer);
  EXPECT_EQ(exchange.answer->first, "HTTP/1.1");
  EXPECT_EQ(exchange.answer->second, "200");
  EXPECT_EQ(exchange.answer->third, "All Right");
  EXPECT_EQ(exchange.answer->header("location"), "here");
}

TEST(Exchange, keepsContentLengthsThatAreNoNumbersFromBeingOne) {
  const Exchange exchange = read("POST / HTTP/1.1\r\nContent-Length: many\r\n\r\nhello");
  ASSERT_TRUE(exchange.request);
  EXPECT_EQ(exchange.request->body.announced, std::nullopt);
  EXPECT_EQ(exchange.request->body.content(), "hello");
}

TEST(Exchange, knowsATlsHello) {
  EXPECT_TRUE(isTlsHello(std::string_view("\x16\x03\x01\x02\x00\x01\x00", 7)));
  EXPECT_FALSE(isTlsHello(std::string_view("\x16\x03\x01\x02\x00\x02\x00", 7)));
  EXPECT_FALSE(isTlsHello("\x16\x03\x01"));
  EXPECT_FALSE(isTlsHello("GET / HTTP/1.1"));
}

TEST(Exchange, readsQueriesAsForms) {
  EXPECT_EQ(queryOf("/a?b=c?d#e?f"), "b=c?d");
  EXPECT_EQ(queryOf("/a#b?c"), "");
  const auto form = readForm("a=1%2B+2&&b&=c&d=%zz%4");
  ASSERT_EQ(form.size(), 4U);
  EXPECT_EQ(form[0], (std::pair<std::string, std::string>("a", "1+ 2")));
  EXPECT_EQ(form[1], (std::pair<std::string, std::string>("b", "")));
  EXPECT_EQ(form[2], (std::pair<std::string, std::string>("", "c")));
  EXPECT_EQ(form[3], (std::pair<std::string, std::string>("d", "%zz%4")));
}

}  // namespace
}  // namespace keltop::view
