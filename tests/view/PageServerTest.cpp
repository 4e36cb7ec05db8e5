#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/Timing.h"
#include "view/PageFiles.h"
#include "view/PageHandler.h"
#include "view/PageServer.h"

namespace keltop::view {
namespace {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

const Poco::Net::SocketAddress kPeer("127.0.0.1:40000");
const Poco::Net::SocketAddress kOwn("127.0.0.1:8080");
constexpr auto kGrace = std::chrono::milliseconds(kLong);

struct Answer {
  HTTPResponse head;
  std::string body;
};

class PageServerTest : public testing::Test {
 protected:
  Answer ask(HTTPRequest request) const {
    HTTPClientSession session("127.0.0.1", server->port());
    session.sendRequest(request);
    Answer answer;
    Poco::StreamCopier::copyToString(session.receiveResponse(answer.head), answer.body);
    return answer;
  }

  [[nodiscard]] Answer get(const std::string& path) const { return ask(HTTPRequest(HTTPRequest::HTTP_GET, path)); }

  std::uint64_t exchange(const std::string& received, const std::string& sent = "") {
    const auto id = log.opened(kPeer, kOwn);
    log.received(id, received);
    log.sent(id, sent);
    log.ended(id, net::ConnectionEnd::closedHere);
    return id;
  }

  TrafficLog log;
  std::unique_ptr<PageServer> server = std::make_unique<PageServer>(log, Listener{.port = 8080}, "");
};

/// A browser that reads events.
class Reader {
 public:
  explicit Reader(std::uint16_t port, const std::string& last = "") : session_("127.0.0.1", port) {
    HTTPRequest request(HTTPRequest::HTTP_GET, "/events", HTTPRequest::HTTP_1_1);
    if (!last.empty()) {
      request.set("Last-Event-ID", last);
    }
    session_.setTimeout(Poco::Timespan(kLong / 1000, 0));
    session_.sendRequest(request);
    stream_ = &session_.receiveResponse(head);
  }

  /// The next event: its fields by their names.
  std::vector<std::pair<std::string, std::string>> next() {
    std::vector<std::pair<std::string, std::string>> fields;
    for (std::string line; std::getline(*stream_, line) && !line.empty();) {
      const auto colon = line.find(": ");
      fields.emplace_back(line.substr(0, colon), line.substr(std::min(colon + 2, line.size())));
    }
    return fields;
  }

  std::string field(const std::string& name) {
    for (const auto& [one, value] : next()) {
      if (one == name) {
        return value;
      }
    }
    return "";
  }

  HTTPResponse head;

 private:
  HTTPClientSession session_;
  std::istream* stream_ = nullptr;
};

std::vector<std::string> targetsIn(const std::string& changes) {
  std::vector<std::string> targets;
  const auto all = Poco::JSON::Parser().parse(changes).extract<Poco::JSON::Object::Ptr>()->getArray("connections");
  for (unsigned i = 0; i < all->size(); ++i) {
    targets.push_back(all->getObject(i)->getValue<std::string>("target"));
  }
  return targets;
}

TEST_F(PageServerTest, servesThePageAndItsFiles) {
  for (const PageFile& file : pageFiles()) {
    const Answer answer = get("/" + std::string(file.name));
    EXPECT_EQ(answer.head.getStatus(), HTTPResponse::HTTP_OK);
    EXPECT_EQ(answer.body, file.content);
  }
  EXPECT_EQ(get("/").body, get("/index.html").body);
  EXPECT_EQ(get("/").head.getContentType(), "text/html; charset=utf-8");
  EXPECT_EQ(get("/view.js").head.getContentType(), "text/javascript; charset=utf-8");
  EXPECT_EQ(get("/none").head.getStatus(), HTTPResponse::HTTP_NOT_FOUND);
}

TEST_F(PageServerTest, weighsSixtyKilobytesAtMost) {
  std::size_t weight = 0;
  for (const PageFile& file : pageFiles()) {
    weight += file.content.size();
    EXPECT_GT(file.content.size(), 100U) << file.name;
  }
  EXPECT_LE(weight, 60'000U);
}

TEST_F(PageServerTest, sendsTheSafetyHeadersWithEveryAnswer) {
  const auto id = exchange("GET / HTTP/1.1\r\n\r\n");
  for (const std::string& path :
       {std::string("/"), std::string("/none"), std::string("/har"), std::string("/search?text=x"),
        "/connections/" + std::to_string(id), "/connections/" + std::to_string(id) + "/received"}) {
    const HTTPResponse head = get(path).head;
    EXPECT_TRUE(head.get("Content-Security-Policy", "").starts_with("default-src 'none'; script-src 'self';")) << path;
    EXPECT_EQ(head.get("Content-Security-Policy").find("unsafe"), std::string::npos);
    EXPECT_EQ(head.get("X-Content-Type-Options", ""), "nosniff") << path;
    EXPECT_EQ(head.get("X-Frame-Options", ""), "DENY") << path;
    EXPECT_EQ(head.get("Cross-Origin-Resource-Policy", ""), "same-origin") << path;
    EXPECT_EQ(head.get("Cache-Control", ""), "no-store") << path;
    EXPECT_FALSE(head.has("Access-Control-Allow-Origin")) << path;
  }
}

TEST_F(PageServerTest, refusesWhatComesFromElsewhere) {
  exchange("GET /secret HTTP/1.1\r\n\r\n");
  for (const std::string path :
       {"/", "/events", "/har", "/connections/1", "/connections/1/received", "/search?text=secret"}) {
    HTTPRequest request(HTTPRequest::HTTP_GET, path, HTTPRequest::HTTP_1_1);
    request.set("Sec-Fetch-Site", "cross-site");
    const Answer answer = ask(request);
    EXPECT_EQ(answer.head.getStatus(), HTTPResponse::HTTP_FORBIDDEN) << path;
    EXPECT_EQ(answer.body, "Forbidden\n");
  }
}

TEST_F(PageServerTest, refusesAnotherHost) {
  Poco::Net::StreamSocket socket(Poco::Net::SocketAddress("127.0.0.1", server->port()));
  const std::string request = "GET /har HTTP/1.1\r\nHost: evil.example:" + std::to_string(server->port()) + "\r\n\r\n";
  socket.sendBytes(request.data(), static_cast<int>(request.size()));
  std::string answer(12, ' ');
  EXPECT_EQ(socket.receiveBytes(answer.data(), static_cast<int>(answer.size())), 12);
  EXPECT_EQ(answer, "HTTP/1.1 403");
}

TEST_F(PageServerTest, takesGetAndHeadOnly) {
  for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "X"}) {
    const Answer answer = ask(HTTPRequest(method, "/"));
    EXPECT_EQ(answer.head.getStatus(), HTTPResponse::HTTP_METHOD_NOT_ALLOWED) << method;
    EXPECT_EQ(answer.head.get("Allow", ""), "GET, HEAD");
  }
  const Answer head = ask(HTTPRequest(HTTPRequest::HTTP_HEAD, "/"));
  EXPECT_EQ(head.head.getStatus(), HTTPResponse::HTTP_OK);
  EXPECT_EQ(head.body, "");
  EXPECT_EQ(ask(HTTPRequest(HTTPRequest::HTTP_HEAD, "/events")).head.getContentType(), "text/event-stream");
}

TEST_F(PageServerTest, givesStreamsAsDownloads) {
  const std::string bytes("\x00\xFF<script>\r\n", 12);
  const auto id = std::to_string(exchange(bytes, "answer"));
  const Answer received = get("/connections/" + id + "/received");
  EXPECT_EQ(received.body, bytes);
  EXPECT_EQ(received.head.getContentType(), "application/octet-stream");
  EXPECT_EQ(received.head.get("Content-Disposition"), "attachment; filename=\"keltop-" + id + "-received.bin\"");
  EXPECT_EQ(get("/connections/" + id + "/sent").body, "answer");
  EXPECT_EQ(get("/connections/" + id + "/received?most=2").body, bytes.substr(0, 2));
  EXPECT_EQ(get("/connections/99/received").head.getStatus(), HTTPResponse::HTTP_NOT_FOUND);
  EXPECT_EQ(get("/connections/1x/received").head.getStatus(), HTTPResponse::HTTP_NOT_FOUND);
  EXPECT_EQ(get("/connections/" + id + "/other").head.getStatus(), HTTPResponse::HTTP_NOT_FOUND);
}

TEST_F(PageServerTest, givesALongStreamWhole) {
  const auto id = log.opened(kPeer, kOwn);
  std::string all;
  for (int i = 0; i < 40; ++i) {
    const std::string piece(50'000, static_cast<char>('a' + i % 26));
    all += piece;
    log.received(id, piece);
  }
  EXPECT_TRUE(get("/connections/" + std::to_string(id) + "/received").body == all);
}

TEST_F(PageServerTest, givesTheDecodedBody) {
  const auto id = exchange("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
  EXPECT_EQ(get("/connections/" + std::to_string(id) + "/body").body, "abcde");
}

TEST_F(PageServerTest, findsTextWhereverItIs) {
  exchange("GET /Alpha HTTP/1.1\r\nX-Beta: 1\r\n\r\n", "HTTP/1.1 200 OK\r\nGamma: 2\r\n\r\n");
  exchange("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nde\r\n3\r\nlta\r\n0\r\n\r\n");
  const auto found = [this](const std::string& text) {
    const std::string body = get("/search?text=" + text).body;
    return body.substr(0, body.find(']') + 1);
  };
  EXPECT_EQ(found("aLPHA"), R"({"ids":[1])");
  EXPECT_EQ(found("x-beta"), R"({"ids":[1])");
  EXPECT_EQ(found("gamma"), R"({"ids":[1])");
  EXPECT_EQ(found("delta"), R"({"ids":[2])");
  EXPECT_EQ(found("127.0.0.1%3A40000"), R"({"ids":[1,2])");
  EXPECT_EQ(found("nowhere"), R"({"ids":[])");
}

TEST_F(PageServerTest, tellsEventsAndWhatAReturningBrowserMissed) {
  exchange("GET /first HTTP/1.1\r\n\r\n");
  std::string last;
  {
    Reader reader(server->port());
    EXPECT_EQ(reader.head.getContentType(), "text/event-stream");
    EXPECT_NE(reader.field("data").find(R"("raw":false,"secure":false,"port":8080)"), std::string::npos);
    auto event = reader.next();
    ASSERT_EQ(event.size(), 3U);
    EXPECT_EQ(event[0].second, "changes");
    EXPECT_EQ(targetsIn(event[2].second), std::vector<std::string>{"/first"});
    last = event[1].second;
  }
  exchange("GET /second HTTP/1.1\r\n\r\n");
  Reader back(server->port(), last);
  (void)back.next();
  EXPECT_EQ(targetsIn(back.field("data")), std::vector<std::string>{"/second"});
  Reader fromElsewhere(server->port(), "another-run-" + last.substr(last.rfind('-') + 1));
  (void)fromElsewhere.next();
  EXPECT_EQ(targetsIn(fromElsewhere.field("data")), (std::vector<std::string>{"/first", "/second"}));
}

TEST_F(PageServerTest, endsInAMomentWithBrowsersThatReadAndOneThatDoesNot) {
  std::vector<std::unique_ptr<Reader>> readers;
  for (int i = 0; i < 16; ++i) {
    readers.push_back(std::make_unique<Reader>(server->port()));
    (void)readers.back()->next();
  }
  for (int i = 0; i < 3000; ++i) {
    exchange("GET /" + std::string(500, 'x') + " HTTP/1.1\r\n\r\n");
  }
  EXPECT_NE(readers.front()->field("data"), "");  // events are under way, and fifteen do not read them
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(server->stop(kGrace));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(PageServerTest, answersOthersWhileAsManyAsMayReadEvents) {
  std::vector<std::unique_ptr<Reader>> readers;
  for (int i = 0; i < kMostEventStreams; ++i) {
    readers.push_back(std::make_unique<Reader>(server->port()));
    EXPECT_EQ(readers.back()->head.getStatus(), HTTPResponse::HTTP_OK);
    (void)readers.back()->next();
  }
  EXPECT_EQ(Reader(server->port()).head.getStatus(), HTTPResponse::HTTP_SERVICE_UNAVAILABLE);
  EXPECT_EQ(get("/").head.getStatus(), HTTPResponse::HTTP_OK);
}

TEST_F(PageServerTest, isReachedFromThisMachineOnly) {
  // The address of any other interface, or another one of the loopback device, is not listened on.
  EXPECT_THROW(Poco::Net::StreamSocket(Poco::Net::SocketAddress("127.0.0.2", server->port())), Poco::Exception);
}

TEST_F(PageServerTest, doesNotShareItsPort) {
  TrafficLog other;
  EXPECT_THROW(PageServer(other, Listener{}, std::to_string(server->port())), Poco::Exception);
  EXPECT_THROW(PageServer(other, Listener{}, "99999"), Poco::Exception);
}

}  // namespace
}  // namespace keltop::view
