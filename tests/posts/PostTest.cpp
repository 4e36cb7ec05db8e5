#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <future>
#include <string>

#include "posts/Post.h"
#include "product/SwitchMap.h"
#include "support/CapturedOutput.h"

namespace keltop {
namespace {

/// What the console shows of one post.
std::string consoleOf(const SwitchMap& switches, const std::string& body, std::uint32_t protocol = 1) {
  return outputOf([&] { Post(switches, protocol, "Agent/1", body); });
}

TEST(Post, looksAtTheBodyFirst) {
  EXPECT_EQ(consoleOf({}, ""), "Post(976) Error: No data to post\n");
  EXPECT_EQ(consoleOf({{"URL", "http://127.0.0.1:1"}}, ""), "Post(976) Error: No data to post\n");
}

TEST(Post, needsAnAddress) {
  EXPECT_EQ(consoleOf({}, "b"), "Post(985) Error: No URL given\n");
  EXPECT_EQ(consoleOf({{"URL", ""}}, "b"), "Post(985) Error: No URL given\n");
  EXPECT_EQ(consoleOf({{"RAW", ""}, {"url", "http://127.0.0.1:1"}}, "b"), "Post(985) Error: No URL given\n");
}

TEST(Post, takesTheEarliestAddress) {
  EXPECT_EQ(consoleOf({{"URL", ""}, {"URL", "http://127.0.0.1:1"}}, "b"), "Post(985) Error: No URL given\n");
}

TEST(Post, leavesAMalformedAddressToTheCaller) {
  for (const SwitchMap& switches :
       {SwitchMap{{"URL", "http://[::1/"}}, SwitchMap{{"URL", "http://127.0.0.1:99999/"}, {"RAW", ""}}}) {
    CapturedOutput output;
    EXPECT_THROW(Post(switches, 1, "Agent/1", "b"), Poco::SyntaxException);
    EXPECT_EQ(output.take(), "");
  }
}

/// What a peer receives of one raw post until it is closed.
std::string rawRequest(std::uint32_t protocol) {
  Poco::Net::ServerSocket listening(Poco::Net::SocketAddress("127.0.0.1", 0));
  const std::string url = "http://" + listening.address().toString() + "/p";
  std::future<std::string> peer = std::async(std::launch::async, [listening]() mutable {
    Poco::Net::StreamSocket connection = listening.acceptConnection();
    std::string received;
    std::array<char, 1000> piece = {};
    for (int count = 1; count > 0;) {
      count = connection.receiveBytes(piece.data(), static_cast<int>(piece.size()));
      received.append(piece.data(), static_cast<std::size_t>(count));
    }
    return received;
  });
  (void)consoleOf({{"URL", url}, {"RAW", "not looked at"}}, "b", protocol);
  return peer.get();
}

TEST(Post, choosesTheContentTypeByTheProtocol) {
  const auto type = [](const std::string& name) {
    return "POST /p HTTP/1:1\r\nContent-Type: " + name + "\r\nAgent: Agent/1\r\nContent-Length: 1\r\n\r\nb";
  };
  EXPECT_EQ(rawRequest(0), type("text/xml"));
  EXPECT_EQ(rawRequest(1), type("application/json"));
  EXPECT_EQ(rawRequest(2), type("application/x-www-form-urlencoded"));
  EXPECT_EQ(rawRequest(3), type("text/xml"));
  EXPECT_EQ(rawRequest(4), type("text/xml"));
  EXPECT_EQ(rawRequest(0xFFFFFFFF), type("text/xml"));
}

}  // namespace
}  // namespace keltop
