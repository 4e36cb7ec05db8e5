#pragma once

#include <gtest/gtest.h>
#include <zmq.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/Timing.h"
#include "zeromq/SharedState.h"
#include "zeromq/SocketTable.h"
#include "zeromq/ZBase.h"
#include "zeromq/ZContext.h"

namespace QXUTIL::ZEROMQ {

using keltop::kLong;

/// Where a socket is bound to whichever port is free.
inline constexpr const char* kAnyPort = "tcp://127.0.0.1:*";

/// Where nobody listens.
inline constexpr const char* kNobody = "tcp://127.0.0.1:1";

/// The endpoint that a socket was bound or connected to last, with its port.
inline std::string lastEndpoint(void* socket) {
  std::array<char, 256> endpoint = {};
  std::size_t size = endpoint.size();
  EXPECT_EQ(::zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint.data(), &size), 0);
  return endpoint.data();
}

/// A socket that sends and receives.
class Pair : public ZBase {
 public:
  int connect(const std::string& endpoint) { return ZBase::connect(endpoint, ZMQ_PAIR); }
};

/// A socket of another program's: it knows nothing of the classes under test.
class Peer {
 public:
  /// Bound to a port of its own.
  explicit Peer(int type) : Peer(type, ::zmq_bind, kAnyPort) {}
  /// Connected.
  Peer(int type, const std::string& endpoint) : Peer(type, ::zmq_connect, endpoint) {}
  ~Peer() { ::zmq_close(socket_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  [[nodiscard]] const std::string& endpoint() const noexcept { return endpoint_; }

  /// The parts of the next message, which must come; none when none came in time.
  [[nodiscard]] std::vector<std::string> receive(int milliseconds = kLong) const {
    ::zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &milliseconds, sizeof milliseconds);
    std::vector<std::string> parts;
    for (int more = 1; more != 0;) {
      zmq_msg_t message;
      ::zmq_msg_init(&message);
      if (::zmq_msg_recv(&message, socket_, 0) < 0) {
        ::zmq_msg_close(&message);
        break;
      }
      parts.emplace_back(static_cast<const char*>(::zmq_msg_data(&message)), ::zmq_msg_size(&message));
      more = ::zmq_msg_more(&message);
      ::zmq_msg_close(&message);
    }
    return parts;
  }

  void send(const std::string& bytes, int flags = 0) const {
    EXPECT_EQ(::zmq_send(socket_, bytes.data(), bytes.size(), flags), static_cast<int>(bytes.size()));
  }

 private:
  Peer(int type, int (*attach)(void*, const char*), const std::string& endpoint)
      : socket_(::zmq_socket(context_.get(), type)) {
    const int linger = 0;
    ::zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger);
    EXPECT_EQ(attach(socket_, endpoint.c_str()), 0);
    endpoint_ = lastEndpoint(socket_);
  }

  struct EndContext {
    void operator()(void* context) const noexcept { ::zmq_ctx_term(context); }
  };

  std::unique_ptr<void, EndContext> context_{::zmq_ctx_new()};
  void* socket_;
  std::string endpoint_;
};

/// Gives the classes what the program never does: a context. Ends it again, which proves that every socket was closed
/// and taken off the count: the context's last user leaves it alone otherwise.
class WithContext : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(sharedState().context, nullptr);
    ASSERT_EQ(sharedState().contextUsers, 0);
    sharedState().context = ::zmq_ctx_new();
    keeper_.emplace();
  }

  void TearDown() override {
    EXPECT_TRUE(socketTable().sockets.empty());
    EXPECT_EQ(sharedState().liveSockets, 0) << "a socket is open, or the count is wrong";
    if (sharedState().liveSockets != 0) {  // the other tests begin anew; this one's context is given up
      sharedState().context = nullptr;
      sharedState().liveSockets = 0;
    }
    keeper_.reset();
    EXPECT_EQ(sharedState().context, nullptr);
    EXPECT_EQ(sharedState().contextUsers, 0);
  }

  std::optional<ZContext> keeper_;
};

}  // namespace QXUTIL::ZEROMQ
