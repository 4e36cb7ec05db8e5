#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include "zeromq/Peers.h"
#include "zeromq/ZPush.h"
#include "zeromq/ZPushService.h"

namespace {

/// Of the socket closed last, as the library had it.
int lingerAtClose = 0;

}  // namespace

/// Takes the library's place in the whole test program.
extern "C" int zmq_close(void* socket) {
  static const auto close = reinterpret_cast<int (*)(void*)>(::dlsym(RTLD_NEXT, "zmq_close"));
  std::size_t size = sizeof lingerAtClose;
  EXPECT_EQ(::zmq_getsockopt(socket, ZMQ_LINGER, &lingerAtClose, &size), 0);
  return close(socket);
}

namespace QXUTIL::ZEROMQ {
namespace {

constexpr int kLibrarysOwn = -1;

class Linger : public WithContext {};

TEST_F(Linger, ofAConnectedSocketIsThirtySeconds) {
  const Peer pull(ZMQ_PULL);
  EXPECT_EQ(ZPush().connect(pull.endpoint()), 0);
  EXPECT_EQ(lingerAtClose, 30'000);
}

TEST_F(Linger, ofABoundSocketIsTheLibrarysOwn) {
  EXPECT_EQ(ZPush().bind("tcp://127.0.0.1:*"), 0);
  EXPECT_EQ(lingerAtClose, kLibrarysOwn);
}

TEST_F(Linger, ofAServicesSocketIsThirtySecondsUnlessSaidOtherwise) {
  const Peer pull(ZMQ_PULL);
  for (const auto& [asked, inForce] : {std::pair(-1, 30'000), std::pair(0, 0), std::pair(7, 7)}) {
    ZPushService service;
    EXPECT_EQ(service.connect(pull.endpoint()), 0);
    service.setLinger(pull.endpoint(), asked);
    service.remove(pull.endpoint());
    EXPECT_EQ(lingerAtClose, inForce);
  }
}

}  // namespace
}  // namespace QXUTIL::ZEROMQ
