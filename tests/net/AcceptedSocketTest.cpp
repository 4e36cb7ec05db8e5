#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "net/AcceptedSocket.h"
#include "net/ListeningSocket.h"
#include "support/OnWindows.h"
#include "support/TrafficLog.h"

namespace keltop::net {
namespace {

using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;
using std::chrono::steady_clock;

class AcceptedSocketTest : public testing::Test {
 protected:
  AcceptedSocketTest() {
    listening_->listenOn(0, 64, {.send = 0, .receive = Poco::Timespan(10, 0)});
    client_ = StreamSocket(SocketAddress("127.0.0.1", listening_->address().port()));
    clientAddress_ = client_.address().toString();
  }

  /// Gives the socket, whose owner it becomes.
  AcceptedSocket& accept() {
    Poco::AutoPtr<AcceptedSocket> accepted = listening_->next();
    EXPECT_TRUE(accepted);
    accepted_ = StreamSocket(accepted.duplicate());
    return *accepted;
  }

  std::string receive(int length = 100) {
    std::string text(static_cast<std::size_t>(length), '\0');
    text.resize(static_cast<std::size_t>(accepted_.receiveBytes(text.data(), length)));
    return text;
  }

  void send(StreamSocket& socket, const std::string& text) {
    EXPECT_EQ(socket.sendBytes(text.data(), static_cast<int>(text.size())), static_cast<int>(text.size()));
  }

  [[nodiscard]] TrafficLog::Connection seen() const { return log_.connections().at(1); }

  TrafficLog log_;
  std::shared_ptr<ConnectionGroup> group_ = std::make_shared<ConnectionGroup>(&log_);
  Poco::AutoPtr<ListeningSocket> listening_ = Poco::makeAuto<ListeningSocket>(group_, makePlainSocket, 100);
  StreamSocket client_;
  std::string clientAddress_;
  StreamSocket accepted_;
};

TEST_F(AcceptedSocketTest, theWatcherIsToldEveryByteOnceAndInOrder) {
  accept();
  send(client_, "one");
  EXPECT_TRUE(accepted_.poll(Poco::Timespan(10, 0), StreamSocket::SELECT_READ));
  EXPECT_EQ(receive(2), "on");
  EXPECT_EQ(receive(), "e");
  send(accepted_, "answer");
  std::array<char, 100> answer = {};
  EXPECT_EQ(client_.receiveBytes(answer.data(), 100), 6);
  client_.close();
  EXPECT_EQ(receive(), "");
  accepted_.close();
  accepted_.close();
  const TrafficLog::Connection told = seen();
  EXPECT_EQ(told.peer, clientAddress_);
  EXPECT_EQ(told.own, "127.0.0.1:" + std::to_string(listening_->address().port()));
  EXPECT_EQ(told.received, "one");
  EXPECT_EQ(told.sent, "answer");
  EXPECT_EQ(told.end, ConnectionEnd::closedByPeer);
  EXPECT_EQ(told.ends, 1);
}

TEST_F(AcceptedSocketTest, theEndIsToldAlsoWhereNobodyCloses) {
  accept();
  accepted_ = StreamSocket();
  EXPECT_EQ(seen().end, ConnectionEnd::closedHere);
}

TEST_F(AcceptedSocketTest, aResetIsToldAndLeavesThePeersAddressAndWhatCameBefore) {
  if (onWindows()) {
    GTEST_SKIP() << "Wine loses a connection that is reset before it is accepted";
  }
  send(client_, "before");
  client_.setLinger(true, 0);
  client_.close();
  accept();
  EXPECT_EQ(accepted_.peerAddress().toString(), clientAddress_);
  EXPECT_EQ(receive(), "before");
  EXPECT_THROW((void)receive(), Poco::Net::ConnectionResetException);
  EXPECT_EQ(accepted_.peerAddress().toString(), clientAddress_);
  EXPECT_EQ(accepted_.address().port(), listening_->address().port());
  accepted_.close();
  EXPECT_EQ(seen().received, "before");
  EXPECT_EQ(seen().end, ConnectionEnd::reset);
}

TEST_F(AcceptedSocketTest, aTimeOutIsTheLibrarysExceptionAndNoEnd) {
  AcceptedSocket& socket = accept();
  socket.setReceiveTimeout(Poco::Timespan(0, 20'000));
  EXPECT_THROW((void)receive(), Poco::TimeoutException);
  send(client_, "late");
  EXPECT_EQ(receive(), "late");
  EXPECT_FALSE(accepted_.poll(Poco::Timespan(0, 1000), StreamSocket::SELECT_READ));
  accepted_.close();
  EXPECT_EQ(seen().end, ConnectionEnd::closedHere);
  EXPECT_THROW((void)accepted_.poll(0, StreamSocket::SELECT_READ), Poco::Net::InvalidSocketException);
}

/// The time-outs and options that are said to be there are there.
TEST_F(AcceptedSocketTest, hasTheListeningSocketsTimeOutsAndNoDelay) {
  AcceptedSocket& socket = accept();
  socket.setReceiveTimeout(Poco::Timespan(10, 0));
  socket.setSendTimeout(0);
  socket.setNoDelay(true);
  EXPECT_EQ(socket.getReceiveTimeout().totalMilliseconds(), 10'000);
  EXPECT_EQ(socket.getSendTimeout().totalMilliseconds(), 0);
  EXPECT_TRUE(socket.getNoDelay());
  socket.setNoDelay(false);
  EXPECT_FALSE(socket.getNoDelay());
  socket.setNoDelay(true);
  EXPECT_TRUE(socket.getNoDelay());
}

TEST_F(AcceptedSocketTest, afterAWholeRequestItClosesAtOnce) {
  AcceptedSocket& socket = accept();
  send(client_, "request");
  EXPECT_EQ(receive(), "request");
  socket.beginRequest();
  socket.endRequest(true);
  send(accepted_, "answer");
  const auto begin = steady_clock::now();
  accepted_.close();
  EXPECT_LT(steady_clock::now() - begin, std::chrono::milliseconds(500));
}

TEST_F(AcceptedSocketTest, afterAnAnswerItReadsWhatTheClientStillSends) {
  accept();
  send(client_, "beginning");
  EXPECT_EQ(receive(), "beginning");
  send(accepted_, "answer");
  std::string answer(100, '\0');
  std::thread client([&] {
    send(client_, std::string(3'000'000, 'x'));
    answer.resize(static_cast<std::size_t>(client_.receiveBytes(answer.data(), 100)));
    EXPECT_EQ(client_.receiveBytes(answer.data() + answer.size(), 0), 0);
    client_.close();
  });
  accepted_.close();
  client.join();
  EXPECT_EQ(answer, "answer");
  EXPECT_EQ(seen().received, "beginning" + std::string(3'000'000, 'x'));
  EXPECT_EQ(seen().end, ConnectionEnd::closedByPeer);
}

TEST_F(AcceptedSocketTest, itDoesNotReadLongerThanTwoSeconds) {
  accept();
  send(accepted_, "answer");
  const auto begin = steady_clock::now();
  accepted_.close();
  const auto spent = steady_clock::now() - begin;
  EXPECT_GE(spent, std::chrono::milliseconds(1900));
  EXPECT_LT(spent, std::chrono::seconds(10));
  EXPECT_EQ(seen().end, ConnectionEnd::closedHere);
}

TEST_F(AcceptedSocketTest, itDoesNotReadMoreThan64MiB) {
  accept();
  send(accepted_, "answer");
  std::thread client([&] {
    try {
      const std::string piece(1 << 20, 'x');
      for (int i = 0; i < 1000; ++i) {
        send(client_, piece);
      }
      ADD_FAILURE() << "never cut off";
    } catch (const Poco::Exception&) {
      // Cut off.
    }
  });
  accepted_.close();
  client.join();
  EXPECT_GE(seen().received.size(), std::size_t{1} << 20U);
  EXPECT_LE(seen().received.size(), (std::size_t{64} << 20U) + 65'536);
}

TEST_F(AcceptedSocketTest, itReadsNothingMoreWhereNothingWasSentOrTheServerHasStopped) {
  accept();
  const auto begin = steady_clock::now();
  accepted_.close();
  client_ = StreamSocket(SocketAddress("127.0.0.1", listening_->address().port()));
  accept();
  send(accepted_, "answer");
  group_->stop();
  accepted_.close();
  EXPECT_LT(steady_clock::now() - begin, std::chrono::milliseconds(1500));
}

TEST_F(AcceptedSocketTest, theEndOfTheServerEndsTheWaitForABodyAndNoOther) {
  AcceptedSocket& socket = accept();
  socket.beginRequest();
  std::thread stopper([&] { group_->stop(); });
  EXPECT_EQ(receive(), "");
  stopper.join();
  socket.endRequest(false);
  accepted_.close();
  client_ = StreamSocket(SocketAddress("127.0.0.1", listening_->address().port()));
  AcceptedSocket& later = accept();
  send(client_, "still read");
  EXPECT_EQ(receive(), "still read");
  send(client_, "has come");
  EXPECT_TRUE(accepted_.poll(Poco::Timespan(10, 0), StreamSocket::SELECT_READ));
  later.beginRequest();
  EXPECT_EQ(receive(), "has come");
  EXPECT_EQ(receive(), "") << "it began after the server had stopped";
  later.endRequest(false);
}

}  // namespace
}  // namespace keltop::net
