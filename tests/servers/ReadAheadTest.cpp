#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "servers/ReadAhead.h"

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

TEST_F(ReadAheadTest, givesByteAfterByteAndThenTheEnd) {
  send("AB");
  peer_.close();
  ReadAhead ahead(socket_);
  char byte = 0;
  EXPECT_TRUE(ahead.drained());
  EXPECT_EQ(ahead.receiveByte(byte), 1);
  EXPECT_EQ(byte, 'A');
  EXPECT_EQ(ahead.receiveByte(byte), 1);
  EXPECT_EQ(byte, 'B');
  EXPECT_TRUE(ahead.drained());
  EXPECT_EQ(ahead.receiveByte(byte), 0);
  EXPECT_EQ(byte, 'B');
}

TEST_F(ReadAheadTest, tellsWhenTheNextByteMustComeFromTheSocket) {
  send("AB");
  ASSERT_TRUE(socket_.poll(Poco::Timespan(10, 0), StreamSocket::SELECT_READ));
  ReadAhead ahead(socket_);
  char byte = 0;
  ASSERT_EQ(ahead.receiveByte(byte), 1);
  EXPECT_EQ(byte, 'A');
  EXPECT_FALSE(ahead.drained());
  EXPECT_EQ(ahead.receiveByte(byte), 1);
  EXPECT_EQ(byte, 'B');
  EXPECT_TRUE(ahead.drained());
}

TEST_F(ReadAheadTest, isNegativeWhereNothingCanBeReadNow) {
  socket_.setBlocking(false);
  ReadAhead ahead(socket_);
  char byte = 'x';
  EXPECT_LT(ahead.receiveByte(byte), 0);
  EXPECT_EQ(byte, 'x');
}

TEST_F(ReadAheadTest, aTimeOutIsTheLibrarysException) {
  socket_.setReceiveTimeout(Poco::Timespan(0, 20'000));
  ReadAhead ahead(socket_);
  char byte = 0;
  EXPECT_THROW((void)ahead.receiveByte(byte), Poco::TimeoutException);
  send("A");
  EXPECT_EQ(ahead.receiveByte(byte), 1);
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
  for (char byte = 0; ahead.receiveByte(byte) == 1;) {
    received += byte;
  }
  sender.join();
  EXPECT_EQ(received, text);
}

}  // namespace
}  // namespace keltop
