#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <utility>

#include "servers/RawPacketConnection.h"

namespace keltop {
namespace {

/// What each receive of a connection gives, and what was asked of its socket.
struct Script {
  std::deque<std::function<int(char*)>> receives;
  Poco::Timespan sendTimeout = 0;
  Poco::Timespan receiveTimeout = 0;
  Poco::Timespan pollTimeout = 0;
};

std::function<int(char*)> bytes(std::string text) {
  return [text = std::move(text)](char* buffer) {
    std::copy(text.begin(), text.end(), buffer);
    return static_cast<int>(text.size());
  };
}

std::function<int(char*)> count(int result) {
  return [result](char*) { return result; };
}

class ScriptedImpl : public Poco::Net::StreamSocketImpl {
 public:
  explicit ScriptedImpl(Script& script) : script_(script) {}

  int receiveBytes(void* buffer, int /*length*/, int flags) override {
    EXPECT_EQ(flags, 0);
    if (script_.receives.empty()) {
      ADD_FAILURE() << "nothing more to receive";
      return 0;
    }
    const auto receive = std::move(script_.receives.front());
    script_.receives.pop_front();
    return receive(static_cast<char*>(buffer));
  }
  bool poll(const Poco::Timespan& timeout, int mode) override {
    EXPECT_EQ(mode, SELECT_READ);
    script_.pollTimeout = timeout;
    return true;
  }
  void setSendTimeout(const Poco::Timespan& timeout) override { script_.sendTimeout = timeout; }
  void setReceiveTimeout(const Poco::Timespan& timeout) override { script_.receiveTimeout = timeout; }
  Poco::Net::SocketAddress peerAddress() override { return {"192.0.2.7", 4321}; }

 private:
  Script& script_;
};

class ScriptedSocket : public Poco::Net::StreamSocket {
 public:
  explicit ScriptedSocket(Script& script) : Poco::Net::StreamSocket(new ScriptedImpl(script)) {}
};

std::string consoleOf(Script& script) {
  RawPacketConnection connection{ScriptedSocket(script)};
  testing::internal::CaptureStdout();
  connection.run();
  EXPECT_TRUE(script.receives.empty());
  return testing::internal::GetCapturedStdout();
}

const std::string kConnect = "\r\nConnect from 192.0.2.7:4321\n";
const std::string kDisconnect = "\r\nDisconnect from 192.0.2.7:4321\n";

TEST(RawPacketConnection, givesItsSocketTenSecondsEachWayAndLooksEveryTwo) {
  Script script;
  script.receives = {count(0)};
  EXPECT_EQ(consoleOf(script), kConnect + kDisconnect);
  EXPECT_EQ(script.sendTimeout.totalMilliseconds(), 10'000);
  EXPECT_EQ(script.receiveTimeout.totalMilliseconds(), 10'000);
  EXPECT_EQ(script.pollTimeout.totalMilliseconds(), 2'000);
}

TEST(RawPacketConnection, aNegativeCountEndsTheBurstAndNotTheConnection) {
  Script script;
  script.receives = {bytes("A"), count(-1), count(-1), bytes("B"), count(0)};
  EXPECT_EQ(consoleOf(script), kConnect + "AB" + kDisconnect);
}

TEST(RawPacketConnection, aTimeOutEndsTheBurstAndNotTheConnection) {
  Script script;
  script.receives = {bytes("A"), [](char*) -> int { throw Poco::TimeoutException(); }, bytes("B"), count(0)};
  EXPECT_EQ(consoleOf(script), kConnect + "AB" + kDisconnect);
}

TEST(RawPacketConnection, anyOtherFailureOfTheLibraryEndsTheConnection) {
  Script script;
  script.receives = {bytes("A"), [](char*) -> int { throw Poco::IOException("why"); }};
  EXPECT_EQ(consoleOf(script), kConnect + "AError: I/O error: why\n\r\nClosing connection to 192.0.2.7:4321\n");
}

}  // namespace
}  // namespace keltop
