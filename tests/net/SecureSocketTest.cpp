#include <Poco/Exception.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net/SecureSocket.h"
#include "support/SecureClient.h"
#include "support/TrafficLog.h"

namespace keltop::net {

namespace {

using Poco::Timespan;
using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;

const Timespan kLong(10, 0);
const Timespan kShort(50'000);

const SecureIdentity& identity() {
  static const SecureIdentity made = SecureIdentity::makeOwn();
  return made;
}

class SecureSocketTest : public testing::Test {
 protected:
  void listen(const HandshakeFailed& failed) {
    listening_ = Poco::makeAuto<ListeningSocket>(group_, makeSecureSockets(identity(), failed), 100);
    listening_->listenOn(0, 64, {.send = 0, .receive = kLong});
    plain_ = StreamSocket(SocketAddress("127.0.0.1", listening_->address().port()));
    Poco::AutoPtr<AcceptedSocket> accepted = listening_->next();
    ASSERT_TRUE(accepted);
    accepted_ = StreamSocket(accepted.duplicate());
    begin_ = accepted.get();
  }

  /// A connection whose handshake has been made.
  void connect() {
    listen([this](const Poco::Exception& error) { failures_.push_back(error.displayText()); });
    std::thread shaking([this] { client_.shakeHands(plain_); });
    EXPECT_TRUE(begin_->begin());
    shaking.join();
    ASSERT_TRUE(client_.shaken());
  }

  bool somethingWithin(const Timespan& time) { return accepted_.poll(time, StreamSocket::SELECT_READ); }

  std::string receive(int length = 100) {
    std::string text(static_cast<std::size_t>(length), '\0');
    text.resize(static_cast<std::size_t>(accepted_.receiveBytes(text.data(), length)));
    return text;
  }

  /// All that the client gets until the end of the connection, and whether that was TLS's.
  std::string receivedByClient(bool& farewell) {
    std::string encrypted;
    for (std::string next = SecureClient::receiveFrom(plain_); !next.empty();
         next = SecureClient::receiveFrom(plain_)) {
      encrypted += next;
    }
    return client_.decrypt(encrypted, farewell);
  }

  [[nodiscard]] TrafficLog::Connection seen() const { return log_.connections().at(1); }

  TrafficLog log_;
  std::shared_ptr<ConnectionGroup> group_ = std::make_shared<ConnectionGroup>(&log_);
  Poco::AutoPtr<ListeningSocket> listening_;
  StreamSocket plain_;
  SecureClient client_;
  StreamSocket accepted_;
  AcceptedSocket* begin_ = nullptr;
  std::vector<std::string> failures_;
};

}  // namespace

TEST_F(SecureSocketTest, theWatcherSeesWhatWasInside) {
  connect();
  SecureClient::sendTo(plain_, client_.encrypt("one"));
  EXPECT_TRUE(somethingWithin(kLong));
  EXPECT_EQ(receive(2), "on");
  EXPECT_EQ(receive(), "e");
  accepted_.sendBytes("answer", 6);
  plain_.shutdownSend();
  EXPECT_EQ(receive(), "");
  accepted_.close();
  bool farewell = false;
  EXPECT_EQ(receivedByClient(farewell), "answer");
  const TrafficLog::Connection told = seen();
  EXPECT_EQ(told.received, "one");
  EXPECT_EQ(told.sent, "answer");
  EXPECT_EQ(told.refused, "");
  EXPECT_EQ(told.end, ConnectionEnd::closedByPeer);
  EXPECT_EQ(told.ends, 1);
}

TEST_F(SecureSocketTest, saysFarewellWhenItIsClosed) {
  connect();
  accepted_.close();
  bool farewell = false;
  EXPECT_EQ(receivedByClient(farewell), "");
  EXPECT_TRUE(farewell);
}

TEST_F(SecureSocketTest, saysFarewellWhenNobodyNeedsItAnyMore) {
  connect();
  accepted_ = StreamSocket();
  bool farewell = false;
  EXPECT_EQ(receivedByClient(farewell), "");
  EXPECT_TRUE(farewell);
}

TEST_F(SecureSocketTest, saysFarewellOnceAndGoesOnReceiving) {
  connect();
  accepted_.sendBytes("answer", 6);
  accepted_.shutdownSend();
  bool farewell = false;
  EXPECT_EQ(receivedByClient(farewell), "answer");
  EXPECT_TRUE(farewell);
  SecureClient::sendTo(plain_, client_.encrypt("more"));
  EXPECT_EQ(receive(), "more");
}

TEST_F(SecureSocketTest, aPieceOfARecordEndsNoWait) {
  connect();
  const std::string record = client_.encrypt("one");
  SecureClient::sendTo(plain_, record.substr(0, record.size() - 1));
  EXPECT_FALSE(somethingWithin(kShort));
  SecureClient::sendTo(plain_, record.substr(record.size() - 1));
  EXPECT_TRUE(somethingWithin(kLong));
  EXPECT_EQ(receive(), "one");
  EXPECT_FALSE(somethingWithin(kShort));
}

TEST_F(SecureSocketTest, givesRecordsThatCameAtOnceAtOnce) {
  connect();
  std::string records;
  for (const char* const text : {"one", "two", "three"}) {
    records += client_.encrypt(text);
  }
  SecureClient::sendTo(plain_, records);
  EXPECT_TRUE(somethingWithin(kLong));
  EXPECT_EQ(receive(4), "onet");
  EXPECT_TRUE(somethingWithin(Timespan()));
  EXPECT_EQ(receive(), "wothree");
  EXPECT_FALSE(somethingWithin(Timespan()));
}

TEST_F(SecureSocketTest, whatCameBeforeAFailureIsGivenFirst) {
  connect();
  std::string records = client_.encrypt("one");
  records += client_.encrypt("two");
  records.back() = static_cast<char>(records.back() ^ 1);
  SecureClient::sendTo(plain_, records);
  EXPECT_TRUE(somethingWithin(kLong));
  EXPECT_EQ(receive(), "one");
  EXPECT_TRUE(somethingWithin(kLong));
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW((void)receive(), Poco::Net::SSLException);
  }
  accepted_.close();
  EXPECT_EQ(seen().received, "one");
  EXPECT_EQ(seen().end, ConnectionEnd::failed);
}

TEST_F(SecureSocketTest, tellsTheWatcherOfAFailedHandshake) {
  listen([this](const Poco::Exception& error) { failures_.push_back(error.displayText()); });
  SecureClient::sendTo(plain_, "GET / HTTP/1.1\r\n\r\n");
  EXPECT_FALSE(begin_->begin());
  const std::string text = "SSL Exception: error:0A00009C:SSL routines::http request";
  EXPECT_EQ(failures_, std::vector<std::string>{text});
  accepted_ = StreamSocket();
  EXPECT_EQ(seen().refused, text);
  EXPECT_EQ(seen().received + seen().sent, "");
  EXPECT_EQ(seen().ends, 1);
}

TEST_F(SecureSocketTest, withoutAnybodyToTellTheHandshakeIsPartOfTheFirstWait) {
  listen(nullptr);
  EXPECT_TRUE(begin_->begin());
  EXPECT_FALSE(somethingWithin(kShort));
  SecureClient::sendTo(plain_, client_.shakeHands());
  EXPECT_FALSE(somethingWithin(kShort));
  SecureClient::sendTo(plain_, client_.shakeHands(SecureClient::receiveFrom(plain_)));
  SecureClient::sendTo(plain_, client_.encrypt("one"));
  EXPECT_TRUE(somethingWithin(kLong));
  EXPECT_EQ(receive(), "one");
}

TEST_F(SecureSocketTest, andItsFailureIsOneOfThatWait) {
  listen(nullptr);
  EXPECT_TRUE(begin_->begin());
  plain_.shutdownSend();
  EXPECT_TRUE(somethingWithin(kLong));
  EXPECT_THROW((void)receive(), Poco::Net::SSLConnectionUnexpectedlyClosedException);
  EXPECT_THROW((void)accepted_.sendBytes("x", 1), Poco::Net::SSLConnectionUnexpectedlyClosedException);
  EXPECT_EQ(seen().refused, "SSL connection unexpectedly closed");
}

TEST_F(SecureSocketTest, manyRecordsAreSentInTheirOrder) {
  connect();
  std::string sent;
  for (int number = 0; sent.size() < 1'000'000; ++number) {
    sent += std::to_string(number) + ' ';
  }
  std::thread sending([&] {
    EXPECT_EQ(accepted_.sendBytes(sent.data(), static_cast<int>(sent.size())), static_cast<int>(sent.size()));
    accepted_.close();
  });
  bool farewell = false;
  const std::string received = receivedByClient(farewell);
  sending.join();
  EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size();
  EXPECT_TRUE(farewell);
}

}  // namespace keltop::net
