#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The calls of the message library whose form has changed since its 2.x interface, which the classes here are
/// defined in terms of. Results and errors are those of the 2.x calls.
namespace QXUTIL::ZEROMQ {

inline constexpr int kFlagNoBlock = 1;
inline constexpr int kFlagSendMore = 2;

/// `zmq_send` of one message with exactly these bytes: 0, or -1.
[[nodiscard]] int sendMessage(void* socket, std::string_view bytes, int flags) noexcept;

/// `zmq_recv` of one message into the buffer, which gets a zero byte behind the message: 0, or -1.
[[nodiscard]] int receiveMessage(void* socket, std::vector<char>& buffer, int flags);

/// Option `ZMQ_HWM`, now one for each direction: 0, or -1.
[[nodiscard]] int setBothHighWaterMarks(void* socket, std::int32_t count) noexcept;

/// `zmq_term`.
void endContext(void* context) noexcept;

}  // namespace QXUTIL::ZEROMQ
