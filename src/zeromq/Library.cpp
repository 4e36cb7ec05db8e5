#include "zeromq/Library.h"

#include <zmq.h>

#include <cerrno>
#include <cstring>

namespace QXUTIL::ZEROMQ {

static_assert(kFlagNoBlock == ZMQ_DONTWAIT && kFlagSendMore == ZMQ_SNDMORE);

namespace {

/// One message of the library. Closing it keeps the error number of the call before.
class Message {
 public:
  Message() noexcept { (void)::zmq_msg_init(&message_); }
  ~Message() {
    const int error = errno;
    (void)::zmq_msg_close(&message_);
    errno = error;
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  /// Takes the place of the empty message; false when there is no memory.
  [[nodiscard]] bool assign(std::string_view bytes) noexcept {
    if (::zmq_msg_init_size(&message_, bytes.size()) != 0) {
      (void)::zmq_msg_init(&message_);
      return false;
    }
    if (!bytes.empty()) {
      std::memcpy(::zmq_msg_data(&message_), bytes.data(), bytes.size());
    }
    return true;
  }

  [[nodiscard]] zmq_msg_t* get() noexcept { return &message_; }

 private:
  zmq_msg_t message_;
};

}  // namespace

int sendMessage(void* socket, std::string_view bytes, int flags) noexcept {
  Message message;
  return message.assign(bytes) && ::zmq_msg_send(message.get(), socket, flags) >= 0 ? 0 : -1;
}

int receiveMessage(void* socket, std::vector<char>& buffer, int flags) {
  Message message;
  if (::zmq_msg_recv(message.get(), socket, flags) < 0) {
    return -1;
  }
  const char* bytes = static_cast<const char*>(::zmq_msg_data(message.get()));
  buffer.assign(bytes, bytes + ::zmq_msg_size(message.get()));
  buffer.push_back('\0');
  return 0;
}

int setBothHighWaterMarks(void* socket, std::int32_t count) noexcept {
  const int sending = ::zmq_setsockopt(socket, ZMQ_SNDHWM, &count, sizeof count);
  return sending != 0 ? sending : ::zmq_setsockopt(socket, ZMQ_RCVHWM, &count, sizeof count);
}

void endContext(void* context) noexcept {
  (void)::zmq_ctx_term(context);
}

}  // namespace QXUTIL::ZEROMQ
