#pragma once

#include <gtest/gtest.h>
#include <zmq.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zeromq/SharedState.h"
#include "zeromq/SocketTable.h"
#include "zeromq/ZContext.h"

namespace QXUTIL::ZEROMQ {

/// How long a peer waits for a message that must come.
inline constexpr int kLong = 20'000;

/// A socket of another program's: it knows nothing of the classes under test.
class Peer {
 public:
  explicit Peer(int type, const std::string& endpoint = "tcp://127.0.0.1:*")
      : socket_(::zmq_socket(context_.get(), type)) {
    const int linger = 0;
    ::zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger);
    EXPECT_EQ(::zmq_bind(socket_, endpoint.c_str()), 0);
    std::array<char, 256> bound = {};
    std::size_t size = bound.size();
    ::zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, bound.data(), &size);
    endpoint_ = bound.data();
  }
  ~Peer() { ::zmq_close(socket_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  [[nodiscard]] const std::string& endpoint() const noexcept { return endpoint_; }

  /// The parts of the next message; none when none came in time.
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
  struct EndContext {
    void operator()(void* context) const noexcept { ::zmq_ctx_term(context); }
  };

  std::unique_ptr<void, EndContext> context_{::zmq_ctx_new()};
  void* socket_;
  std::string endpoint_;
};

/// Gives the classes what the program never does: a context. Ends it again, which also proves that every socket was
/// closed, or it would wait for ever.
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
    EXPECT_EQ(sharedState().liveSockets, expectedLiveSockets_);
    sharedState().liveSockets = 0;
    keeper_.reset();
    EXPECT_EQ(sharedState().context, nullptr);
    EXPECT_EQ(sharedState().contextUsers, 0);
  }

  std::int32_t expectedLiveSockets_ = 0;
  std::optional<ZContext> keeper_;
};

}  // namespace QXUTIL::ZEROMQ
