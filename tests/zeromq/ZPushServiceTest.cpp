#include <gtest/gtest.h>
#include <zmq.h>

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "zeromq/Peers.h"
#include "zeromq/SocketTable.h"
#include "zeromq/ZPushService.h"
#include "zeromq/ZPushServiceSocket.h"

namespace QXUTIL::ZEROMQ {
namespace {

using Parts = std::vector<std::string>;
using Socket = ZPushService::ZPushServiceSocket;

const Socket* socketOf(const std::string& endpoint) {
  const auto known = socketTable().sockets.find(endpoint);
  return known == socketTable().sockets.end() ? nullptr : known->second.get();
}

TEST(ZPushServiceWithoutContext, everyPushIsASilentNothing) {
  ASSERT_EQ(sharedState().context, nullptr);
  ZPushService service;
  service.push(kNobody, "text");
  EXPECT_EQ(service.connect(kNobody), -1);
  service.setLinger(kNobody, 0);
  service.remove(kNobody);
  EXPECT_TRUE(socketTable().sockets.empty());
  EXPECT_EQ(sharedState().context, nullptr);
}

TEST(ZPushServiceWithoutContext, anEntryWithoutASocketIsRemovedByAPush) {
  ZPushService service;
  socketTable().sockets.emplace(kNobody, nullptr);
  service.setLinger(kNobody, 0);
  EXPECT_EQ(service.connect(kNobody), -1);
  service.push(kNobody, "text");
  EXPECT_TRUE(socketTable().sockets.empty());
}

/// The mutex's owner ends without releasing it: the next one to lock it is told so and does not count as holding it.
void abandonTable() {
  std::thread([] { EXPECT_EQ(socketTable().mutex.lock(0), keltop::platform::kWaitObject); }).join();
}

TEST(ZPushServiceWithoutContext, nothingIsDoneWithATableThatItsOwnerAbandoned) {
  {
    const ZPushService first;
    socketTable().sockets.emplace(kNobody, nullptr);
    abandonTable();
  }
  EXPECT_TRUE(socketTable().sockets.contains(kNobody)) << "the last service left it";
  ZPushService service;
  abandonTable();
  service.push(kNobody, "text");
  EXPECT_TRUE(socketTable().sockets.contains(kNobody));
  abandonTable();
  service.remove(kNobody);
  EXPECT_TRUE(socketTable().sockets.contains(kNobody));
  abandonTable();
  service.setLinger(kNobody, 0);
  abandonTable();
  EXPECT_EQ(service.connect("tcp://127.0.0.1:2"), -1);
  service.remove(kNobody);
  EXPECT_TRUE(socketTable().sockets.empty());
}

TEST(ZPushServiceWithoutContext, aServiceSocketBeginsWithoutAnErrorText) {
  const Socket socket;
  EXPECT_EQ(socket.lastErrorText(), "");
}

class ZPushServices : public WithContext {};

TEST_F(ZPushServices, aPushConnectsOnFirstUseAndKeepsTheSocket) {
  const Peer pull(ZMQ_PULL);
  ZPushService service;
  service.push(pull.endpoint(), "one");
  const Socket* const first = socketOf(pull.endpoint());
  ASSERT_NE(first, nullptr);
  service.push(pull.endpoint(), "two\r\n");
  EXPECT_EQ(socketOf(pull.endpoint()), first);
  EXPECT_EQ(pull.receive(), Parts{"one"});
  EXPECT_EQ(pull.receive(), Parts{"two\r\n"});
  EXPECT_EQ(sharedState().liveSockets, 1);
}

TEST_F(ZPushServices, twoConnectsKeepOneSocketWithTwoReferences) {
  const Peer pull(ZMQ_PULL);
  ZPushService service;
  EXPECT_EQ(service.connect(pull.endpoint()), 0);
  EXPECT_EQ(service.connect(pull.endpoint()), 0);
  EXPECT_EQ(sharedState().liveSockets, 1);
  Socket& socket = *socketTable().sockets.at(pull.endpoint());
  EXPECT_EQ(socket.release(), 2);
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(socket.release(), 0);
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(sharedState().liveSockets, 0);
  EXPECT_EQ(socket.release(), 0) << "the count before";
  EXPECT_EQ(socket.release(), -1);
}

TEST_F(ZPushServices, aFailedConnectLeavesTheTableAsItWas) {
  ZPushService service;
  EXPECT_EQ(service.connect("nonsense"), -1);
  service.push("nonsense", "text");
  EXPECT_TRUE(socketTable().sockets.empty());
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZPushServices, aPeerThatTakesNothingLosesItsSocketAndTheNextPushMakesAnother) {
  ZPushService service;
  service.push(kNobody, "text");
  service.setLinger(kNobody, 0);
  for (int i = 1; i < 500; ++i) {
    service.push(kNobody, "text");
  }
  ASSERT_NE(socketOf(kNobody), nullptr) << "500 messages are kept for it";
  service.push(kNobody, "text");
  EXPECT_EQ(socketOf(kNobody), nullptr);
  EXPECT_EQ(sharedState().liveSockets, 0);
  service.push(kNobody, "text");
  EXPECT_NE(socketOf(kNobody), nullptr);
  service.setLinger(kNobody, 0);
}

TEST_F(ZPushServices, anEntryWhoseSocketIsClosedIsRemovedByAPushAndTheNextConnects) {
  const Peer pull(ZMQ_PULL);
  ZPushService service;
  ASSERT_EQ(service.connect(pull.endpoint()), 0);
  EXPECT_EQ(socketTable().sockets.at(pull.endpoint())->release(), 0);
  service.push(pull.endpoint(), "never sent");
  EXPECT_EQ(socketOf(pull.endpoint()), nullptr);
  service.push(pull.endpoint(), "text");
  EXPECT_EQ(pull.receive(), Parts{"text"});
}

TEST_F(ZPushServices, aNegativeLingerIsIgnored) {
  ZPushService service;
  service.push(kNobody, "kept");
  service.setLinger(kNobody, 0);
  service.setLinger(kNobody, -1);  // for ever: the end of the context would wait for the message
}

TEST_F(ZPushServices, removeClosesTheSocketWhateverItsReferences) {
  const Peer pull(ZMQ_PULL);
  ZPushService service;
  EXPECT_EQ(service.connect(pull.endpoint()), 0);
  EXPECT_EQ(service.connect(pull.endpoint()), 0);
  service.remove(pull.endpoint());
  EXPECT_EQ(socketOf(pull.endpoint()), nullptr);
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZPushServices, theTableLastsAsLongAsAnyService) {
  const Peer pull(ZMQ_PULL);
  {
    ZPushService outer;
    {
      ZPushService inner;
      inner.push(pull.endpoint(), "one");
      EXPECT_EQ(socketTable().users, 2);
    }
    EXPECT_NE(socketOf(pull.endpoint()), nullptr);
    outer.push(pull.endpoint(), "two");
  }
  EXPECT_EQ(socketOf(pull.endpoint()), nullptr);
  EXPECT_EQ(socketTable().users, 0);
  EXPECT_EQ(pull.receive(), Parts{"one"});
  EXPECT_EQ(pull.receive(), Parts{"two"});
}

TEST_F(ZPushServices, aSocketWithTwoReferencesIsClosedWithTheTable) {
  const Peer pull(ZMQ_PULL);
  {
    ZPushService service;
    EXPECT_EQ(service.connect(pull.endpoint()), 0);
    EXPECT_EQ(service.connect(pull.endpoint()), 0);
  }
  EXPECT_EQ(sharedState().liveSockets, 0);
}

TEST_F(ZPushServices, eightThreadsPushToThreeEndpointsAndEachMessageArrivesOnce) {
  constexpr int kThreads = 8;
  constexpr int kMessages = 50;  // a thread and endpoint; together they stay below the high-water mark
  const std::array<Peer, 3> pulls = {Peer(ZMQ_PULL), Peer(ZMQ_PULL), Peer(ZMQ_PULL)};
  ZPushService service;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&service, &pulls, thread] {
      for (int message = 0; message < kMessages; ++message) {
        for (const Peer& pull : pulls) {
          service.push(pull.endpoint(), std::to_string(thread) + ":" + std::to_string(message));
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(sharedState().liveSockets, 3);
  for (const Peer& pull : pulls) {
    std::map<std::string, int> seen;
    for (int i = 0; i < kThreads * kMessages; ++i) {
      const Parts parts = pull.receive();
      ASSERT_EQ(parts.size(), 1U);
      ++seen[parts[0]];
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kMessages));
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& text) { return text.second == 1; }));
    EXPECT_EQ(pull.receive(0), Parts{});
  }
}

}  // namespace
}  // namespace QXUTIL::ZEROMQ
