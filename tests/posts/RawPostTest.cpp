#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "posts/RawPost.h"
#include "support/CapturedOutput.h"
#include "support/ScriptedSocket.h"

namespace keltop {
namespace {

using Poco::TimeoutException;
using Poco::Net::ConnectionAbortedException;
using Poco::Net::ConnectionRefusedException;
using Poco::Net::ConnectionResetException;
using Poco::Net::DNSException;

/// What each step of the exchange does, and what was asked of it.
struct Script {
  std::function<void()> onConnect = [] {};
  std::function<void()> onSend = [] {};
  std::function<std::string()> onReceive = [] { return std::string("reply"); };
  Poco::Timespan granted = 4000;  // what the system makes of a receive time-out
  bool readable = true;

  std::string target;
  std::string sent;
  Poco::Timespan connectTimeout = 0;
  Poco::Timespan receiveTimeout = 0;
  int sends = 0;
  int receives = 0;
  int receiveLength = 0;
  int closes = 0;
};

class ScriptedImpl : public Poco::Net::StreamSocketImpl {
 public:
  explicit ScriptedImpl(Script& script) : script_(script) {}

  void connect(const Poco::Net::SocketAddress& address, const Poco::Timespan& timeout) override {
    script_.target = address.toString();
    script_.connectTimeout = timeout;
    script_.onConnect();
  }
  int sendBytes(const void* buffer, int length, int flags) override {
    EXPECT_EQ(flags, 0);
    ++script_.sends;
    script_.sent.append(static_cast<const char*>(buffer), static_cast<std::size_t>(length));
    script_.onSend();
    return length;
  }
  int receiveBytes(void* buffer, int length, int flags) override {
    EXPECT_EQ(flags, 0);
    ++script_.receives;
    script_.receiveLength = length;
    return receiveInto(buffer, length, script_.onReceive());
  }
  void setReceiveTimeout(const Poco::Timespan& timeout) override { script_.receiveTimeout = timeout; }
  Poco::Timespan getReceiveTimeout() override { return script_.granted; }
  bool poll(const Poco::Timespan& timeout, int mode) override {
    EXPECT_EQ(timeout.totalMicroseconds(), 5);
    EXPECT_EQ(mode, SELECT_READ);
    return script_.readable;
  }
  void close() override { ++script_.closes; }

 private:
  Script& script_;
};

/// What the console shows of one post.
std::string consoleOf(Script& script, const std::string& path = "/rsi", const std::string& body = "the body") {
  ScriptedSocket<ScriptedImpl> socket(script);
  const Posting posting = {
      .host = "127.0.0.1", .port = 8080, .path = path, .contentType = "text/xml", .userAgent = "Agent/1", .body = body};
  return outputOf([&] { postRaw(socket, posting); });
}

const std::string kRequest =
    "POST /rsi HTTP/1:1\r\nContent-Type: text/xml\r\nAgent: Agent/1\r\nContent-Length: 8\r\n\r\nthe body";
const std::string kTarget = "Post(1025) 127.0.0.1 8080\n";
const std::string kPosted = kTarget + "Posting:\r\n" + kRequest + "\n";

TEST(RawPost, sendsTheRequestOnceAndShowsTheReply) {
  Script script;
  EXPECT_EQ(consoleOf(script), kPosted + "\r\nReceived:\r\nreply\n");
  EXPECT_EQ(script.target, "127.0.0.1:8080");
  EXPECT_EQ(script.sent, kRequest);
  EXPECT_EQ(script.sends, 1);
  EXPECT_EQ(script.receives, 1);
}

TEST(RawPost, asksForItsTwoTimeouts) {
  Script script;
  (void)consoleOf(script);
  EXPECT_EQ(script.connectTimeout.totalMilliseconds(), 5000);
  EXPECT_EQ(script.receiveTimeout.totalMicroseconds(), 5);
}

TEST(RawPost, leavesTheRequestLineTwoBlanksWithoutAPath) {
  Script script;
  (void)consoleOf(script, "");
  EXPECT_TRUE(script.sent.starts_with("POST  HTTP/1:1\r\n")) << script.sent;
}

TEST(RawPost, showsTheFirst2048BytesOnly) {
  Script script;
  script.onReceive = [] { return std::string(5000, 'r'); };
  EXPECT_EQ(consoleOf(script), kPosted + "\r\nReceived:\r\n" + std::string(2048, 'r') + "\n");
  EXPECT_EQ(script.receiveLength, 2048);
}

TEST(RawPost, showsAReplyUpToItsFirstZeroByte) {
  Script script;
  script.onReceive = [] { return std::string("seen\0unseen", 11); };
  EXPECT_EQ(consoleOf(script), kPosted + "\r\nReceived:\r\nseen\n");
}

TEST(RawPost, closesTheSocketAfterAReplyOnly) {
  Script script;
  (void)consoleOf(script);
  const int afterReply = script.closes;
  Script silent;
  silent.onReceive = [] { return std::string(); };
  (void)consoleOf(silent);
  EXPECT_EQ(silent.closes, afterReply - 1);
}

TEST(RawPost, reportsNothingRead) {
  Script script;
  script.onReceive = [] { return std::string(); };
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1089) Zerio bytes read\n");
}

TEST(RawPost, neverWaitsWhereTheSystemHasNoTimeoutSoShort) {
  Script script;
  script.granted = 0;
  script.readable = false;
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1103) Timeout: Timeout\n");
  EXPECT_EQ(script.receives, 0);
}

TEST(RawPost, receivesWhatIsThereWhereTheSystemHasNoTimeoutSoShort) {
  Script script;
  script.granted = 0;
  EXPECT_EQ(consoleOf(script), kPosted + "\r\nReceived:\r\nreply\n");
}

TEST(RawPost, reportsAFailureToConnect) {
  Script script;
  script.onConnect = failing(ConnectionRefusedException("why"));
  EXPECT_EQ(consoleOf(script), kTarget + "Post(1035) Error: Connection refused: why\n");
  script.onConnect = failing(TimeoutException("why"));
  EXPECT_EQ(consoleOf(script), kTarget + "Post(1040) Error: Timeout: why\n");
  script.onConnect = failing(Poco::IOException("why"));
  EXPECT_EQ(consoleOf(script), kTarget + "Post(1045) Unknown error\n");
  script.onConnect = failing(std::runtime_error("why"));
  EXPECT_EQ(consoleOf(script), kTarget + "Post(1045) Unknown error\n");
  EXPECT_EQ(script.sends, 0);
}

TEST(RawPost, reportsAFailureToSend) {
  Script script;
  script.onSend = failing(ConnectionResetException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1064) Error: Connection reset by peer: why\n");
  script.onSend = failing(TimeoutException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1069) Error: Timeout: why\n");
  script.onSend = failing(Poco::IOException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1074) Unknown error\n");
  EXPECT_EQ(script.receives, 0);
}

TEST(RawPost, reportsAFailureToReceive) {
  Script script;
  script.onReceive = failing<std::string>(ConnectionResetException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1095) Connection reset: Connection reset by peer: why\n");
  script.onReceive = failing<std::string>(ConnectionAbortedException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1099) Error: Software caused connection abort: why\n");
  script.onReceive = failing<std::string>(TimeoutException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1103) Timeout: Timeout: why\n");
  script.onReceive = failing<std::string>(Poco::IOException("why"));
  EXPECT_EQ(consoleOf(script), kPosted + "Post(1107) Other error\n");
}

TEST(RawPost, leavesAHostThatCannotBeResolvedToTheCaller) {
  Script script;
  ScriptedSocket<ScriptedImpl> socket(script);
  const std::string body = "b";
  // Nobody is asked for a name that has an empty part.
  const Posting posting = {.host = "a..b", .port = 1, .path = "/", .contentType = "t", .userAgent = "a", .body = body};
  CapturedOutput output;
  EXPECT_THROW(postRaw(socket, posting), DNSException);
  EXPECT_EQ(output.take(), "Post(1025) a..b 1\n");
}

}  // namespace
}  // namespace keltop
