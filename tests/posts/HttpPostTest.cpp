#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "posts/HttpPost.h"
#include "support/CapturedOutput.h"
#include "support/FailingStream.h"
#include "support/OnWindows.h"
#include "support/TestServer.h"
#include "support/Timing.h"

namespace keltop {
namespace {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using namespace std::chrono_literals;

/// What the steps of the exchange do, and what was asked of them.
struct Script {
  std::function<void()> onOpen = [] {};
  std::function<void()> onSend = [] {};
  std::function<void(HTTPResponse&)> onReceive = [](HTTPResponse&) {};
  std::string responseBody = "answer";

  Poco::Timespan timeout = 0;
  std::ostringstream sentBody;
};

Script* current = nullptr;

class ScriptedSession : public HTTPClientSession {
 public:
  std::ostream& sendRequest(HTTPRequest& /*request*/) override {
    current->timeout = getTimeout();
    current->onSend();
    return current->sentBody;
  }
  std::istream& receiveResponse(HTTPResponse& response) override {
    current->onReceive(response);
    stream_.str(current->responseBody);
    return stream_;
  }

 private:
  std::istringstream stream_;
};

std::unique_ptr<HTTPClientSession> openScripted(const std::string& /*host*/, std::uint16_t /*port*/) {
  current->onOpen();
  return std::make_unique<ScriptedSession>();
}

/// What the console shows of one post, from the first thing after the request on.
std::string consoleOf(HttpWay way, Script& script) {
  way.openSession = openScripted;
  way.showRequest = [](std::ostream& console, const HTTPRequest& /*request*/, const std::string& body) {
    console << "[" << body << "]";
    return true;
  };
  current = &script;
  const std::string body = "the body";
  const Posting posting = {.host = "h", .port = 1, .path = "/p/", .contentType = "t", .userAgent = "a", .body = body};
  return outputOf([&] { postHttp(way, posting); });
}

void answer(HTTPResponse& response) {
  response.setVersion(HTTPResponse::HTTP_1_1);
  response.setStatusAndReason(HTTPResponse::HTTP_NOT_FOUND, "Gone Fishing");
  response.set("Zeta", "1");
  response.set("Alpha", "2");
}

TEST(HttpPost, sendsTheBodyAndPrintsTheResponse) {
  Script script;
  script.onReceive = answer;
  EXPECT_EQ(consoleOf(kPlainHttp, script),
            "[the body]\r\nReceived response\nHTTP/1.1 Gone Fishing 404\r\nZeta: 1\r\nAlpha: 2\r\n\r\nanswer\r\n");
  EXPECT_EQ(script.sentBody.str(), "the body");
}

TEST(HttpPost, printsOneLineEndMoreAfterTheHeadOfASecureResponse) {
  Script script;
  script.onReceive = answer;
  EXPECT_EQ(consoleOf(kHttps, script),
            "[the body]\r\nReceived:\r\nHTTP/1.1 Gone Fishing 404\r\nZeta: 1\r\nAlpha: 2\r\n\r\n\r\nanswer\r\n");
}

TEST(HttpPost, waitsTwoMinutes) {
  Script script;
  (void)consoleOf(kPlainHttp, script);
  EXPECT_EQ(script.timeout.totalSeconds(), 120);
}

TEST(HttpPost, reportsAFailureOfTheWayBeforeTheResponse) {
  Script script;
  script.onSend = [] { throw Poco::Net::ConnectionRefusedException("why"); };
  EXPECT_EQ(consoleOf(kPlainHttp, script), "[the body]Post(1286) Error: Connection refused: why\n");
  EXPECT_EQ(consoleOf(kHttps, script), "[the body]Post(1192) Error: Connection refused: why\n");
  script.onSend = [] { throw Poco::TimeoutException("why"); };
  EXPECT_EQ(consoleOf(kPlainHttp, script), "[the body]Post(1286) Error: Timeout: why\n");
  EXPECT_EQ(consoleOf(kHttps, script), "[the body]Post(1192) Error: Timeout: why\n");
  script.onOpen = [] { throw Poco::Net::NetException("why"); };
  EXPECT_EQ(consoleOf(kPlainHttp, script), "Post(1286) Error: Net Exception: why\n");
  EXPECT_EQ(consoleOf(kHttps, script), "Post(1192) Error: Net Exception: why\n");
}

TEST(HttpPost, reportsAFailureToReadTheResponse) {
  Script script;
  script.onReceive = [](HTTPResponse&) { throw Poco::TimeoutException("why"); };
  EXPECT_EQ(consoleOf(kPlainHttp, script), "[the body]Post(1257) Read timeout: Timeout: why\n");
  EXPECT_EQ(consoleOf(kHttps, script), "[the body]Post(1163) Read timeout: Timeout: why\n");
  script.onReceive = [](HTTPResponse&) { throw Poco::Net::MessageException("why"); };
  EXPECT_EQ(consoleOf(kPlainHttp, script), "[the body]Post(1261) Read error: Malformed message: why\n");
  EXPECT_EQ(consoleOf(kHttps, script), "[the body]Post(1167) Read error: Malformed message: why\n");
}

/// For a post that waits its time out whether the peer's answer has come by then or not.
constexpr std::chrono::milliseconds kShort = 100ms;

/// For a post that waits its time out, in which a handshake and an answer must come, on a busy machine too.
constexpr std::chrono::milliseconds kTimeForAnAnswer = 1500ms;

constexpr std::chrono::milliseconds kTwoMinutes = 120s;

/// What the console shows, behind the request's body, of a post to this port.
std::string consoleOfPost(const HttpWay& way, std::uint16_t port, std::chrono::milliseconds timeout) {
  const std::string body = "the body";
  const Posting posting = {
      .host = "127.0.0.1", .port = port, .path = "/p/", .contentType = "t", .userAgent = "a", .body = body};
  const std::string console = outputOf([&] { postHttp(way, posting, timeout); });
  return console.substr(console.find(body) + body.size());
}

/// What the console shows of a post to a peer that accepts, sends `answer` and then stalls, whatever it is sent.
std::string consoleOfStalledPost(const HttpWay& way, const std::string& answer, std::chrono::milliseconds timeout) {
  return consoleOfPost(way, TestServer({.end = ServerScript::End::kStall, .requestEnd = {}, .answer = answer}).port(),
                       timeout);
}

using Speech = ServerScript::Speech;
using End = ServerScript::End;

/// The ways to speak, with the way to post that goes with each.
constexpr std::array kSpeeches = {std::pair(Speech::kPlain, &kPlainHttp), std::pair(Speech::kTls, &kHttps),
                                  std::pair(Speech::kTlsWithoutNotify, &kHttps)};

/// The head of a response that says how its body ends: by its length, by an empty chunk, with the connection.
constexpr std::array kHeads = {"Content-Length: 100000\r\n", "Transfer-Encoding: chunked\r\n", "A: b\r\n"};

std::string answerOf(const std::string& head, const std::string& body) {
  const std::string chunk = head.starts_with("T") ? "186A0\r\n" : "";
  return "HTTP/1.1 200 OK\r\n" + head + "\r\n" + chunk + body;
}

/// What the console shows of a post whose answer's body ends in this way before it is whole.
std::string consoleOfCutBody(Speech speech, const HttpWay& way, const std::string& head, std::size_t size, End end,
                             std::chrono::milliseconds timeout = kTwoMinutes) {
  const TestServer server(
      {.speech = speech, .end = end, .requestEnd = "the body", .answer = answerOf(head, std::string(size, 'x'))});
  return consoleOfPost(way, server.port(), timeout);
}

TEST(HttpPost, doesNotWaitForEverForAPeerThatStalls) {
  EXPECT_EQ(consoleOfStalledPost(kPlainHttp, "", kShort), "Post(1257) Read timeout: Timeout\n");
  EXPECT_EQ(consoleOfStalledPost(kPlainHttp, "HTTP/1.1 200 OK\r\nContent-", kShort),
            "Post(1257) Read timeout: Timeout\n");
}

/// An orderly end is no failure, with the farewell of TLS or without: home-made servers leave it out.
TEST(HttpPost, showsABodyThatACloseCutsShortAsFarAsItCame) {
  for (const auto& [speech, way] : kSpeeches) {
    for (const std::string head : kHeads) {
      for (const std::size_t size : {0U, 5U, 300U, 8191U, 8192U, 8193U, 20000U}) {
        std::string shown(way == &kHttps ? "\n" : "");
        shown.append(way->responseTitle).append("HTTP/1.1 OK 200\r\n").append(head).append(way->headEnd);
        EXPECT_EQ(consoleOfCutBody(speech, *way, head, size, End::kClose), shown.append(size, 'x').append("\r\n"))
            << static_cast<int>(speech) << head << size;
      }
    }
  }
}

TEST(HttpPost, speaksBothGenerationsOfTls) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const Speech speech : {Speech::kTls, Speech::kTlsWithoutNotify}) {
      const TestServer server(
          {.speech = speech, .tlsVersion = version, .requestEnd = "the body", .answer = "HTTP/1.1 200 OK\r\n\r\nhi"});
      EXPECT_EQ(consoleOfPost(kHttps, server.port(), kTwoMinutes),
                "\n\r\nReceived:\r\nHTTP/1.1 OK 200\r\n\r\n\r\nhi\r\n");
    }
  }
}

TEST(HttpPost, reportsABodyThatAResetCutsShort) {
  if (onWindows()) {
    GTEST_SKIP() << "Wine tells a reset as an end";
  }
  for (const auto& [speech, way] : kSpeeches) {
    for (const std::string head : kHeads) {
      for (const std::size_t size : {0U, 5U, 8191U, 20000U}) {
        EXPECT_EQ(consoleOfCutBody(speech, *way, head, size, End::kReset),
                  way == &kHttps ? "\nPost(1167) Read error: Connection reset by peer\n"
                                 : "Post(1261) Read error: Connection reset by peer\n")
            << static_cast<int>(speech) << head << size;
      }
    }
  }
}

TEST(HttpPost, reportsABodyThatStalls) {
  for (const std::string head : kHeads) {
    EXPECT_EQ(consoleOfCutBody(Speech::kPlain, kPlainHttp, head, 5, End::kStall, kTimeForAnAnswer),
              "Post(1257) Read timeout: Timeout\n");
    EXPECT_EQ(consoleOfCutBody(Speech::kTls, kHttps, head, 8195, End::kStall, kTimeForAnAnswer),
              "\nPost(1163) Read timeout: Timeout\n");
  }
}

/// Once, and not once for TLS and once more for the socket beneath it.
TEST(HttpPost, waitsForASecureAnswerAsLongAsForAPlainOne) {
  for (const std::string answer : {"", "HTTP/1.1 200 OK\r\nContent-"}) {
    const TestServer server({.speech = Speech::kTls, .end = End::kStall, .requestEnd = "the body", .answer = answer});
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(consoleOfPost(kHttps, server.port(), kTimeForAnAnswer), "\nPost(1163) Read timeout: Timeout\n");
    const auto waited = std::chrono::steady_clock::now() - before;
    EXPECT_GE(waited, almost(kTimeForAnAnswer));
    EXPECT_LT(waited, kTimeForAnAnswer * 7 / 4);
  }
}

/// The handshake belongs to the connecting, not to the reading of the response.
TEST(HttpPost, doesNotWaitForEverForAHandshakeThatStalls) {
  EXPECT_EQ(consoleOfStalledPost(kHttps, "", kShort), "\nPost(1192) Error: Timeout\n");
  const std::string beginningOfARecord("\x16\x03\x03\x00", 4);
  EXPECT_EQ(consoleOfStalledPost(kHttps, beginningOfARecord, kShort), "\nPost(1192) Error: Timeout\n");
}

/// At once, not when the time-out has passed. The text, which may speak of one, is the library's, and another one on
/// Windows.
TEST(HttpPost, takesAFarewellInTheHandshakeForAFailureOfTheWay) {
  const std::string farewell("\x15\x03\x03\x00\x02\x01\x00", 7);
  const auto before = std::chrono::steady_clock::now();
  const std::string console = consoleOfStalledPost(kHttps, farewell, std::chrono::milliseconds(kLong));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(kLong / 2));
  EXPECT_TRUE(console.starts_with("\nPost(1192) Error: ")) << console;
  EXPECT_EQ(std::ranges::count(console, '\n'), 2) << console;
}

TEST(HttpPost, catchesOnlyTheLibrarysExceptions) {
  Script script;
  script.onReceive = [](HTTPResponse&) { throw std::runtime_error("why"); };
  EXPECT_THROW((void)consoleOf(kPlainHttp, script), std::runtime_error);
}

// Nothing outside the program can make showing a request or a response fail with an exception of the library: the
// phases only read a parsed head (getVersion, getReason, getStatus and the header collection's iterators give
// references to what is stored), format it in memory, and print it to a console that drops what cannot be written.
// A head that cannot be read fails while it is received, and a memory that is used up is no exception of the library.
// So these handlers are reached by an output that throws, and by nothing else.

TEST(HttpPost, reportsAFailureToPrintTheResponse) {
  for (const auto& [way, site] : {std::pair(&kPlainHttp, "1281"), std::pair(&kHttps, "1187")}) {
    FailingStream console("answer");
    HTTPResponse response;
    answer(response);
    EXPECT_EQ(outputOf([&, shown = way] { showResponse(console, *shown, response, "answer"); }),
              "\r\nResponse code: 404 Gone Fishing\nPost(" + std::string(site) + ") Error: I/O error: why\n");
  }
}

TEST(HttpPost, reportsAFailureToPrintTheRequest) {
  FailingStream console("the body");
  HTTPRequest request(HTTPRequest::HTTP_POST, "/p/", HTTPRequest::HTTP_1_1);
  request.set("User-Agent", "a");
  bool shown = true;
  EXPECT_EQ(outputOf([&] { shown = kPlainHttp.showRequest(console, request, "the body"); }),
            "Post(1240) Read error: I/O error: why\n");
  EXPECT_FALSE(shown);
  EXPECT_EQ(console.shown(), "Sending request\nPOST /p/ HTTP/1.1\r\nUser-Agent: a\r\n\r\n");
}

TEST(HttpPost, sendsNothingWhenTheRequestCannotBeShown) {
  Script script;
  current = &script;
  HttpWay way = kPlainHttp;
  way.openSession = openScripted;
  way.showRequest = [](std::ostream&, const HTTPRequest&, const std::string&) { return false; };
  const std::string body = "the body";
  const Posting posting = {.host = "h", .port = 1, .path = "/", .contentType = "t", .userAgent = "a", .body = body};
  EXPECT_EQ(outputOf([&] { postHttp(way, posting); }), "");
  EXPECT_EQ(script.sentBody.str(), "");
}

}  // namespace
}  // namespace keltop
