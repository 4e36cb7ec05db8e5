#include <gtest/gtest.h>
#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "zeromq/Peers.h"
#include "zeromq/ZPush.h"

namespace QXUTIL::ZEROMQ {
namespace {

using Parts = std::vector<std::string>;

TEST(ZPushWithoutContext, connectingFailsWithTheLibrarysError) {
  ASSERT_EQ(sharedState().context, nullptr);
  ZPush push;
  EXPECT_EQ(push.lastErrorText(), "None");
  EXPECT_EQ(push.connect("tcp://127.0.0.1:10001"), -1);
  EXPECT_FALSE(push.isOpen());
  EXPECT_EQ(push.lastError(), EFAULT);
  EXPECT_EQ(push.lastErrorText(), ::zmq_strerror(EFAULT));
  EXPECT_EQ(push.bind(kAnyPort), -1);
  EXPECT_EQ(push.lastError(), EFAULT);
  EXPECT_EQ(sharedState().liveSockets, 0);
  EXPECT_EQ(sharedState().contextUsers, 0);
  EXPECT_EQ(sharedState().context, nullptr);
}

TEST(ZPushWithoutContext, sendingOnAClosedSocketDoesNothing) {
  ZPush push;
  EXPECT_EQ(push.connect("tcp://127.0.0.1:10001"), -1);
  EXPECT_EQ(push.send("text"), 0);
  EXPECT_EQ(push.lastError(), EFAULT) << "left as it was";
  EXPECT_EQ(push.send("text", false), -1);
  EXPECT_EQ(push.lastError(), 0);
  EXPECT_EQ(push.lastErrorText(), "None");
  EXPECT_EQ(push.send("text", 4U, false), -1);
}

TEST(ZPushWithoutContext, optionsOfAClosedSocketFailWithTheLibrarysError) {
  ZPush push;
  push.setLinger(1);
  EXPECT_EQ(push.lastError(), 0) << "the result of this one is not looked at";
  for (int (ZBase::*const set)(std::int32_t) :
       {&ZBase::setHighWaterMark, &ZBase::setReceiveTimeout, &ZBase::setSendTimeout}) {
    ZPush closed;
    EXPECT_EQ((closed.*set)(1), -1);
    EXPECT_EQ(closed.lastError(), ENOTSOCK);
    EXPECT_EQ(closed.lastErrorText(), ::zmq_strerror(ENOTSOCK));
  }
}

TEST(ZPushWithoutContext, receivingOnAClosedSocketSleepsAndFails) {
  Pair pair;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(pair.receive(20), "");
  EXPECT_GE(std::chrono::steady_clock::now() - before, keltop::almost(std::chrono::milliseconds(20)));
  EXPECT_EQ(pair.lastError(), -1);
  EXPECT_EQ(pair.lastErrorText(), "None");
  EXPECT_EQ(pair.receiveParts(0), Parts{});
  EXPECT_EQ(pair.lastError(), -1);
}

class ZSockets : public WithContext {};

TEST_F(ZSockets, aTextIsOneMessageOfExactlyItsBytes) {
  const Peer pull(ZMQ_PULL);
  ZPush push;
  EXPECT_EQ(push.connect(pull.endpoint()), 0);
  EXPECT_TRUE(push.isOpen());
  EXPECT_EQ(sharedState().liveSockets, 1);
  const std::string bytes("a\0b\r\n", 5);
  EXPECT_EQ(push.send(bytes), 0);
  EXPECT_EQ(push.send(std::string()), 0);
  EXPECT_EQ(push.send(bytes.data(), 3U, false), 0);
  EXPECT_EQ(pull.receive(), Parts{bytes});
  EXPECT_EQ(pull.receive(), Parts{""});
  EXPECT_EQ(pull.receive(), Parts{std::string("a\0b", 3)});
}

TEST_F(ZSockets, aSuccessfulSendStillOverwritesTheLastError) {
  const Peer pull(ZMQ_PULL);
  ZPush push;
  EXPECT_EQ(push.connect(pull.endpoint()), 0);
  EXPECT_EQ(push.send("text"), 0);
  EXPECT_NE(push.lastErrorText(), "None");
  EXPECT_EQ(push.lastErrorText(), ::zmq_strerror(push.lastError()));
  EXPECT_EQ(pull.receive(), Parts{"text"});
}

TEST_F(ZSockets, aBoundSocketThatNobodyIsConnectedToSendsNothingAndIsClosed) {
  ZPush push;
  EXPECT_EQ(push.bind(kAnyPort), 0);
  EXPECT_EQ(sharedState().liveSockets, 1);
  // Nobody is connected: there is no queue to put the message in.
  EXPECT_EQ(push.send("text"), -1);
  EXPECT_FALSE(push.isOpen());
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZSockets, moreFlagsMakeOneMessageOfManyParts) {
  const Peer pull(ZMQ_PULL);
  ZPush push;
  EXPECT_EQ(push.connect(pull.endpoint()), 0);
  EXPECT_EQ(push.send("one", true), 0);
  EXPECT_EQ(push.send("two", 3U, true), 0);
  EXPECT_EQ(push.send("three"), 0);
  EXPECT_EQ(pull.receive(), (Parts{"one", "two", "three"}));
}

TEST_F(ZSockets, aPeerThatNeverTakesAnythingIsSent500MessagesAndThenClosed) {
  ZPush push;
  ASSERT_EQ(push.connect(kNobody), 0) << "nobody need listen yet";
  push.setLinger(0);
  int sent = 0;
  while (sent < 2000 && push.send("text") == 0 && push.isOpen()) {
    ++sent;
  }
  EXPECT_EQ(sent, 500);
  EXPECT_FALSE(push.isOpen());
  EXPECT_EQ(push.lastError(), EAGAIN);
  EXPECT_EQ(push.lastErrorText(), ::zmq_strerror(EAGAIN));
  EXPECT_EQ(sharedState().liveSockets, 0);
  EXPECT_EQ(push.send("text", false), -1);
  EXPECT_EQ(push.send("text"), 0);
}

TEST_F(ZSockets, anEndpointThatIsNoneFailsAndCountsNoSocket) {
  ZPush push;
  EXPECT_EQ(push.connect("nonsense"), -1);
  EXPECT_EQ(push.lastError(), EINVAL);
  EXPECT_EQ(push.lastErrorText(), ::zmq_strerror(EINVAL));
  EXPECT_FALSE(push.isOpen());
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZSockets, afterAFailedConnectTheContextOutlivesTheSocketThatIsOpen) {
  const Peer pull(ZMQ_PULL);
  ZPush push;
  EXPECT_EQ(push.connect("nonsense"), -1);
  ASSERT_EQ(push.connect(pull.endpoint()), 0);
  ASSERT_EQ(sharedState().liveSockets, 1) << "the end of the context would wait for ever";
  keeper_.reset();
  EXPECT_NE(sharedState().context, nullptr);
  keeper_.emplace();
  EXPECT_EQ(push.send("text"), 0);
  EXPECT_EQ(pull.receive(), Parts{"text"});
}

TEST_F(ZSockets, aConnectIsAUserOfTheContextWhileItLasts) {
  keeper_.reset();
  ASSERT_EQ(sharedState().context, nullptr);
  for (int (ZPush::*const attach)(const std::string&) : {&ZPush::connect, &ZPush::bind}) {
    sharedState().context = ::zmq_ctx_new();
    ZPush push;
    EXPECT_EQ((push.*attach)("nonsense"), -1);
    EXPECT_EQ(sharedState().context, nullptr) << "it was the last one";
  }
}

TEST_F(ZSockets, aSocketIsCountedUntilItIsClosed) {
  const Peer pull(ZMQ_PULL);
  {
    ZPush bound;
    EXPECT_EQ(bound.bind(kAnyPort), 0);
    ZPush connected;
    EXPECT_EQ(connected.connect(pull.endpoint()), 0);
    EXPECT_EQ(sharedState().liveSockets, 2);
    EXPECT_EQ(bound.send("text"), -1) << "nobody is there; this closes it";
    EXPECT_EQ(sharedState().liveSockets, 1);
    EXPECT_EQ(bound.connect("nonsense"), -1);
    EXPECT_EQ(sharedState().liveSockets, 1);
  }
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZSockets, aPortInUseCannotBeBound) {
  const Peer pull(ZMQ_PULL);
  ZPush push;
  EXPECT_EQ(push.bind(pull.endpoint()), -1);
  EXPECT_EQ(push.lastError(), EADDRINUSE);
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZSockets, partsAreReceivedApartOrTogether) {
  const Peer peer(ZMQ_PAIR);
  Pair pair;
  ASSERT_EQ(pair.connect(peer.endpoint()), 0);
  peer.send("one", ZMQ_SNDMORE);
  peer.send("", ZMQ_SNDMORE);
  peer.send(std::string("th\0ree", 6));
  EXPECT_EQ(pair.receiveParts(kLong), (Parts{"one", "", "th"}));
  EXPECT_EQ(pair.lastError(), 0);
  peer.send("four", ZMQ_SNDMORE);
  peer.send("five");
  EXPECT_EQ(pair.receive(kLong), "fourfive");
  pair.releaseReceiveBuffer();
  EXPECT_EQ(pair.send("six", true), 0);
  EXPECT_EQ(pair.send("seven", false), 0);
  EXPECT_EQ(peer.receive(), (Parts{"six", "seven"}));
}

TEST_F(ZSockets, whenNothingComesInTimeTheErrorSaysSo) {
  const Peer peer(ZMQ_PAIR);
  Pair pair;
  ASSERT_EQ(pair.connect(peer.endpoint()), 0);
  for (const int milliseconds : {0, 15, 15}) {
    EXPECT_EQ(pair.receive(milliseconds), "");
    EXPECT_EQ(pair.lastError(), EAGAIN);
    EXPECT_TRUE(pair.isOpen());
  }
}

TEST_F(ZSockets, theContextEndsWithItsLastUserUnlessASocketIsOpen) {
  const Peer pull(ZMQ_PULL);
  {
    ZPush push;
    ASSERT_EQ(push.connect(pull.endpoint()), 0);
    keeper_.reset();
    EXPECT_NE(sharedState().context, nullptr) << "a socket is open";
    EXPECT_EQ(push.send("text"), 0);
    EXPECT_EQ(pull.receive(), Parts{"text"});
  }
  {
    const ZContext one;
    {
      const ZContext two;
      EXPECT_EQ(sharedState().contextUsers, 2);
    }
    EXPECT_NE(sharedState().context, nullptr) << "one is left";
  }
  EXPECT_EQ(sharedState().context, nullptr);
}

TEST_F(ZSockets, theContextIsLeftAloneWhenItsMutexIsNotHadIn50Milliseconds) {
  std::thread([this] {
    ASSERT_EQ(sharedState().contextMutex.lock(0), 0U);
    std::thread([this] {
      const auto before = std::chrono::steady_clock::now();
      keeper_.reset();
      const auto waited = std::chrono::steady_clock::now() - before;
      EXPECT_GE(waited, keltop::almost(std::chrono::milliseconds(50)));
      EXPECT_LT(waited, std::chrono::seconds(5));  // a busy machine is given time; a wait without end is not
    }).join();
    sharedState().contextMutex.unlock();
  }).join();
  EXPECT_NE(sharedState().context, nullptr);
  keeper_.emplace();
}

}  // namespace
}  // namespace QXUTIL::ZEROMQ
