#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>

#include "view/HttpArchive.h"

namespace keltop::view {
namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

class ArchivedLog {
 public:
  ArchivedLog() : log(TrafficLog::Limits{}, [this] { return now; }) {}

  void exchange(std::string_view received, std::string_view sent, bool ended = true) {
    const auto id = log.opened(Poco::Net::SocketAddress("10.0.0.7:40000"), Poco::Net::SocketAddress("10.0.0.2:8080"));
    now += 1500;
    log.received(id, received);
    now += 250;
    log.sent(id, sent);
    if (ended) {
      log.ended(id, net::ConnectionEnd::closedHere);
    }
  }

  [[nodiscard]] Array::Ptr entries(bool secure = false) const {
    std::ostringstream archive;
    writeHttpArchive(log, secure, archive);
    const auto whole = Poco::JSON::Parser().parse(archive.str()).extract<Object::Ptr>()->getObject("log");
    EXPECT_EQ(whole->getValue<std::string>("version"), "1.2");
    EXPECT_EQ(whole->getObject("creator")->getValue<std::string>("name"), "keltop");
    return whole->getArray("entries");
  }

  Microseconds now = 1'000'000'123'456'789;
  TrafficLog log;
};

constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\nLocation: 10.0.0.2:8080\r\n\r\n";

TEST(HttpArchive, holdsAnExchangeWithItsTimes) {
  ArchivedLog archived;
  archived.exchange(
      "POST /rsi/7101?who=maid%201 HTTP/1.1\r\nHost: x\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n\r\nhello",
      kAnswer);
  const auto entries = archived.entries();
  ASSERT_EQ(entries->size(), 1U);
  const auto entry = entries->getObject(0);
  EXPECT_EQ(entry->getValue<std::string>("startedDateTime"), "2001-09-09T01:48:43.456789Z");
  EXPECT_DOUBLE_EQ(entry->getValue<double>("time"), 1.75);
  EXPECT_DOUBLE_EQ(entry->getObject("timings")->getValue<double>("send"), 1.5);
  EXPECT_DOUBLE_EQ(entry->getObject("timings")->getValue<double>("wait"), 0.25);
  const auto request = entry->getObject("request");
  EXPECT_EQ(request->getValue<std::string>("method"), "POST");
  EXPECT_EQ(request->getValue<std::string>("url"), "http://10.0.0.2:8080/rsi/7101?who=maid%201");
  EXPECT_EQ(request->getArray("queryString")->getObject(0)->getValue<std::string>("value"), "maid 1");
  EXPECT_EQ(request->getArray("headers")->size(), 3U);
  EXPECT_EQ(request->getObject("postData")->getValue<std::string>("mimeType"), "text/plain");
  EXPECT_EQ(request->getObject("postData")->getValue<std::string>("text"), "hello");
  EXPECT_EQ(request->getValue<int>("bodySize"), 5);
  const auto response = entry->getObject("response");
  EXPECT_EQ(response->getValue<int>("status"), 200);
  EXPECT_EQ(response->getValue<std::string>("statusText"), "OK");
  EXPECT_EQ(response->getArray("headers")->getObject(0)->getValue<std::string>("name"), "Location");
}

TEST(HttpArchive, holdsBodiesThatAreNoTextInBase64) {
  ArchivedLog archived;
  archived.exchange("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\n\xFF\xFE\xFD", kAnswer);
  const auto body = archived.entries()->getObject(0)->getObject("request")->getObject("postData");
  EXPECT_EQ(body->getValue<std::string>("text"), "//79");
  EXPECT_EQ(body->getValue<std::string>("_encoding"), "base64");
}

TEST(HttpArchive, makesAValidAddressOfEveryTarget) {
  for (const auto& [target, url] : {std::pair<std::string, std::string>("/a%c3%a9~b", "/a%c3%a9~b"),
                                    {"/<script>\"\xFF%zz", "/%3Cscript%3E%22%FF%25zz"},
                                    {"*", "/*"},
                                    {"http://other/x", "/http://other/x"}}) {
    ArchivedLog archived;
    archived.exchange("GET " + target + " HTTP/1.1\r\n\r\n", kAnswer);
    EXPECT_EQ(archived.entries()->getObject(0)->getObject("request")->getValue<std::string>("url"),
              "http://10.0.0.2:8080" + url);
  }
}

TEST(HttpArchive, saysThatAnExchangeCameBehindTls) {
  ArchivedLog archived;
  archived.exchange("GET /rsi HTTP/1.1\r\n\r\n", kAnswer);
  const auto urlOf = [&](bool secure) {
    return archived.entries(secure)->getObject(0)->getObject("request")->getValue<std::string>("url");
  };
  EXPECT_EQ(urlOf(false), "http://10.0.0.2:8080/rsi");
  EXPECT_EQ(urlOf(true), "https://10.0.0.2:8080/rsi");
}

TEST(HttpArchive, givesAnExchangeWithoutAnswerTheStatusZero) {
  ArchivedLog archived;
  archived.exchange("GET / HTTP/1.1\r\n\r\n", "");
  EXPECT_EQ(archived.entries()->getObject(0)->getObject("response")->getValue<int>("status"), 0);
}

TEST(HttpArchive, leavesOutWhatIsNoExchange) {
  ArchivedLog archived;
  archived.exchange("hello\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n\r\n");
  archived.exchange("", "");
  archived.exchange("GET /first HTTP/1.1\r\n\r\n", kAnswer);
  archived.exchange("GET /second HTTP/1.1\r\n\r\n", kAnswer, false);
  const auto entries = archived.entries();
  ASSERT_EQ(entries->size(), 2U);
  EXPECT_EQ(entries->getObject(1)->getValue<std::string>("connection"), "4");
}

TEST(HttpArchive, cutsALongBodyAndSaysSo) {
  ArchivedLog archived;
  const std::string body(kArchivedBody + 10, 'x');
  archived.exchange("POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body, kAnswer);
  const auto data = archived.entries()->getObject(0)->getObject("request")->getObject("postData");
  EXPECT_EQ(data->getValue<std::string>("text").size(), kArchivedBody);
  EXPECT_EQ(data->getValue<std::string>("comment"), "The first 4194304 of 4194314 bytes.");
}

}  // namespace
}  // namespace keltop::view
