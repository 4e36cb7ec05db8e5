#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "servers/ReadAhead.h"
#include "support/ScriptedSocket.h"

namespace keltop {
namespace {

using Poco::Net::ServerSocket;
using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;

class ReadAheadTest : public testing::Test {
 protected:
  ReadAheadTest()
      : listener_(SocketAddress("127.0.0.1", 0)), peer_(listener_.address()), socket_(listener_.acceptConnection()) {}

  void send(const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
      sent += static_cast<std::size_t>(peer_.sendBytes(text.data() + sent, static_cast<int>(text.size() - sent)));
    }
  }

  ServerSocket listener_;
  StreamSocket peer_;
  StreamSocket socket_;
};

TEST_F(ReadAheadTest, givesWhatHasComeAndThenTheEnd) {
  send("AB");
  peer_.close();
  ReadAhead ahead(socket_);
  EXPECT_EQ(ahead.received(), "");
  EXPECT_EQ(ahead.receive(), 2);
  EXPECT_EQ(ahead.received(), "AB");
  EXPECT_EQ(ahead.receive(), 0);
  EXPECT_EQ(ahead.received(), "");
}

TEST_F(ReadAheadTest, isNegativeWhereNothingCanBeReadNow) {
  socket_.setBlocking(false);
  ReadAhead ahead(socket_);
  EXPECT_LT(ahead.receive(), 0);
  EXPECT_EQ(ahead.received(), "");
}

TEST_F(ReadAheadTest, aTimeOutIsTheLibrarysException) {
  socket_.setReceiveTimeout(Poco::Timespan(0, 20'000));
  ReadAhead ahead(socket_);
  EXPECT_THROW((void)ahead.receive(), Poco::TimeoutException);
  EXPECT_EQ(ahead.received(), "");
  send("A");
  EXPECT_EQ(ahead.receive(), 1);
}

TEST_F(ReadAheadTest, losesNothingOfALongStream) {
  std::string text;
  for (int i = 0; i < 300'000; ++i) {
    text += static_cast<char>(i * 7 % 251);
  }
  std::thread sender([&] {
    send(text);
    peer_.close();
  });
  ReadAhead ahead(socket_);
  std::string received;
  while (ahead.receive() > 0) {
    received += ahead.received();
  }
  sender.join();
  EXPECT_EQ(received, text);
}

/// What each receive had room for, and how many bytes it gives.
struct Script {
  std::vector<int> rooms;
  int most = 0;
};

class CountingImpl : public Poco::Net::StreamSocketImpl {
 public:
  explicit CountingImpl(Script& script) : script_(script) {}
  int receiveBytes(void* buffer, int length, int /*flags*/) override {
    script_.rooms.push_back(length);
    return receiveInto(buffer, length, std::string(static_cast<std::size_t>(script_.most), 'x'));
  }

 private:
  Script& script_;
};

TEST(ReadAheadTestRoom, growsWhileThePeerFillsItUpToALimit) {
  Script script = {.rooms = {}, .most = 1 << 20};
  ScriptedSocket<CountingImpl> socket(script);
  ReadAhead ahead(socket);
  for (int i = 0; i < 8; ++i) {
    EXPECT_GT(ahead.receive(), 0);
  }
  EXPECT_EQ(script.rooms, (std::vector<int>{4096, 8192, 16384, 32768, 32768, 32768, 32768, 32768}));
}

TEST(ReadAheadTestRoom, staysWhereThePeerDoesNotFillItAndBeginsAnewAfterARelease) {
  Script script = {.rooms = {}, .most = 1 << 20};
  ScriptedSocket<CountingImpl> socket(script);
  ReadAhead ahead(socket);
  EXPECT_EQ(ahead.receive(), 4096);
  script.most = 5;
  EXPECT_EQ(ahead.receive(), 5);
  EXPECT_EQ(ahead.receive(), 5);
  ahead.release();
  EXPECT_EQ(ahead.received(), "");
  EXPECT_EQ(ahead.receive(), 5);
  EXPECT_EQ(script.rooms, (std::vector<int>{4096, 8192, 8192, 4096}));
}

}  // namespace
}  // namespace keltop
