#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "zeromq/Peers.h"
#include "zeromq/ZPush.h"
#include "zeromq/ZPushService.h"

namespace {

/// The options that were set, in order, with their values; all have four bytes.
std::vector<std::pair<int, std::int32_t>> optionsSet;

/// The socket that the last one was set of: the classes show nobody theirs.
void* lastSocket = nullptr;

/// The error number that a close leaves, where it is not 0.
int closeLeaves = 0;

}  // namespace

/// Takes the library's place in the whole test program.
extern "C" int zmq_setsockopt(void* socket, int option, const void* value, std::size_t size) {
  using SetOption = int (*)(void*, int, const void*, std::size_t);
  static const auto original = reinterpret_cast<SetOption>(::dlsym(RTLD_NEXT, "zmq_setsockopt"));
  std::int32_t number = -1;
  EXPECT_EQ(size, sizeof number);
  std::memcpy(&number, value, sizeof number);
  optionsSet.emplace_back(option, number);
  lastSocket = socket;
  return original(socket, option, value, size);
}

extern "C" int zmq_close(void* socket) {
  using Close = int (*)(void*);
  static const auto original = reinterpret_cast<Close>(::dlsym(RTLD_NEXT, "zmq_close"));
  const int result = original(socket);
  if (closeLeaves != 0) {
    errno = closeLeaves;
  }
  return result;
}

namespace QXUTIL::ZEROMQ {
namespace {

using Options = std::vector<std::pair<int, std::int32_t>>;
using Parts = std::vector<std::string>;

/// The one high-water mark of the interface is two options of the library: what is sent, and what is received.
constexpr int kLinger = 17;
constexpr int kSendMark = 23;
constexpr int kReceiveMark = 24;
constexpr int kReceiveTimeout = 27;
constexpr int kSendTimeout = 28;
constexpr int kMark = 500;

class SocketOptions : public WithContext {
 protected:
  static Options taken() { return std::exchange(optionsSet, {}); }
};

TEST_F(SocketOptions, aConnectedSocketLingersThirtySecondsAndHoldsFiveHundredMessages) {
  const Peer pull(ZMQ_PULL);
  ZPush push;
  (void)taken();
  ASSERT_EQ(push.connect(pull.endpoint()), 0);
  EXPECT_EQ(
      taken(),
      (Options{
          {kLinger, 30'000}, {kSendMark, kMark}, {kReceiveMark, kMark}, {kSendMark, kMark}, {kReceiveMark, kMark}}));
  push.setLinger(7);
  EXPECT_EQ(push.setHighWaterMark(8), 0);
  EXPECT_EQ(push.setReceiveTimeout(9), 0);
  EXPECT_EQ(push.setSendTimeout(10), 0);
  EXPECT_EQ(taken(),
            (Options{{kLinger, 7}, {kSendMark, 8}, {kReceiveMark, 8}, {kReceiveTimeout, 9}, {kSendTimeout, 10}}));
}

TEST_F(SocketOptions, aBoundSocketKeepsTheLibrarysLinger) {
  ZPush push;
  (void)taken();
  ASSERT_EQ(push.bind(kAnyPort), 0);
  EXPECT_EQ(taken(), (Options{{kSendMark, kMark}, {kReceiveMark, kMark}, {kSendMark, kMark}, {kReceiveMark, kMark}}));
}

/// Here, because a bound socket's port is nowhere to be had but from the library.
TEST_F(SocketOptions, aBoundSocketSendsToAPeerThatConnects) {
  ZPush push;
  ASSERT_EQ(push.bind(kAnyPort), 0);
  zmq_pollitem_t bound = {.socket = lastSocket, .fd = 0, .events = ZMQ_POLLOUT, .revents = 0};
  const Peer pull(ZMQ_PULL, lastEndpoint(bound.socket));
  ASSERT_EQ(::zmq_poll(&bound, 1, kLong), 1) << "the peer is not connected";
  EXPECT_EQ(push.send("text"), 0);
  EXPECT_EQ(pull.receive(), Parts{"text"});
  EXPECT_TRUE(push.isOpen());
}

TEST_F(SocketOptions, aFailedConnectSetsNone) {
  ZPush push;
  (void)taken();
  EXPECT_EQ(push.connect("nonsense"), -1);
  EXPECT_EQ(taken(), Options{});
}

TEST_F(SocketOptions, theErrorOfAFailedConnectIsKeptBeforeTheClose) {
  closeLeaves = EINTR;
  ZPush push;
  EXPECT_EQ(push.connect("nonsense"), -1);
  closeLeaves = 0;
  EXPECT_EQ(push.lastError(), EINVAL);
}

TEST_F(SocketOptions, aFailedSendClosesFirstAndThenAsksForTheError) {
  ZPush push;
  ASSERT_EQ(push.bind(kAnyPort), 0);
  closeLeaves = EINTR;
  EXPECT_EQ(push.send("text"), -1) << "nobody is connected";
  closeLeaves = 0;
  EXPECT_EQ(push.lastError(), EINTR);
  EXPECT_EQ(push.lastErrorText(), ::zmq_strerror(EINTR));
}

TEST_F(SocketOptions, theReceiveTimeOutIsSetOnlyWhenItChanges) {
  const Peer peer(ZMQ_PAIR);
  Pair pair;
  ASSERT_EQ(pair.connect(peer.endpoint()), 0);
  (void)taken();
  for (const int milliseconds : {5, 5, 6, 5}) {
    EXPECT_EQ(pair.receive(milliseconds), "");
  }
  EXPECT_EQ(taken(), (Options{{kReceiveTimeout, 5}, {kReceiveTimeout, 6}, {kReceiveTimeout, 5}}));
}

TEST_F(SocketOptions, theServiceSetsTheLingerOfAKnownEndpointUnlessItIsNegative) {
  const Peer pull(ZMQ_PULL);
  ZPushService service;
  ASSERT_EQ(service.connect(pull.endpoint()), 0);
  (void)taken();
  service.setLinger(pull.endpoint(), -1);
  service.setLinger(kNobody, 5);
  EXPECT_EQ(taken(), Options{});
  service.setLinger(pull.endpoint(), 0);
  EXPECT_EQ(taken(), (Options{{kLinger, 0}}));
}

}  // namespace
}  // namespace QXUTIL::ZEROMQ
