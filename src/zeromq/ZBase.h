#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zeromq/SharedState.h"

namespace QXUTIL::ZEROMQ {

/// One socket of the message library with the last error as number and text. Closed until connect or bind succeeds,
/// and again after a failed send. Nothing throws or prints; results are 0, or the library's negative result.
/// Not guarded: a socket belongs to one thread at a time.
class ZBase {
 public:
  virtual ~ZBase();
  ZBase(const ZBase&) = delete;
  ZBase& operator=(const ZBase&) = delete;

  virtual void releaseReceiveBuffer() noexcept;
  [[nodiscard]] virtual bool isOpen() const noexcept;

  /// How long, in milliseconds, unsent messages are kept after the close.
  virtual void setLinger(std::int32_t milliseconds) noexcept;

  /// How many messages are kept for a peer that does not take them, in each direction.
  virtual int setHighWaterMark(std::int32_t count);

  /// This option, the send time-out and the high-water mark make the last error what the library reports, also after a
  /// success. In milliseconds.
  virtual int setReceiveTimeout(std::int32_t milliseconds);

  /// The parts of one message, each up to its first zero byte; empty when none came within the time. A closed socket
  /// sleeps for the whole time and leaves -1 as the last error.
  [[nodiscard]] virtual std::vector<std::string> receiveParts(std::int32_t milliseconds);

  /// The same in one text.
  [[nodiscard]] virtual std::string receive(std::int32_t milliseconds);

  /// Sends one message, or one part of it when `more` follow, without ever blocking. A failure closes the socket. The
  /// last error is whatever the library reports, also after a success.
  virtual int send(const void* data, std::uint32_t length, bool more);
  virtual int send(const std::string& text, bool more);
  virtual int setSendTimeout(std::int32_t milliseconds);

  /// Opens a socket of the library's type and binds or connects it; the high-water mark becomes 500, a connected
  /// socket's linger 30 s. Only where none is open: that one would be forgotten, not closed.
  int bind(const std::string& endpoint, int type);
  int connect(const std::string& endpoint, int type);

  [[nodiscard]] std::int32_t lastError() const noexcept { return lastError_; }
  [[nodiscard]] const std::string& lastErrorText() const noexcept { return lastErrorText_; }

 protected:
  static constexpr std::int32_t kHighWaterMark = 500;

  explicit ZBase(std::string_view errorText = kNone) : lastErrorText_(errorText) {}

  /// 0 when there was no socket or it was closed.
  int closeSocket() noexcept;

 private:
  static constexpr std::int32_t kWithoutEnd = -1;

  using Attach = int (*)(void* socket, const char* endpoint);

  int open(const std::string& endpoint, int type, Attach attach);
  void count() noexcept;
  int setOption(int option, std::int32_t value);
  int sendBytes(std::string_view bytes, bool more);
  [[nodiscard]] bool receivePart(std::string& part);
  [[nodiscard]] bool prepareReceive(std::int32_t milliseconds);
  [[nodiscard]] bool morePartsFollow() const noexcept;
  void clearError();
  void storeError();

  std::int32_t lastError_ = 0;
  std::string lastErrorText_;
  void* socket_ = nullptr;                     ///< the library's handle
  bool counted_ = false;                       ///< among the live sockets
  std::int32_t receiveTimeout_ = kWithoutEnd;  ///< in force on the socket
  std::vector<char> receiveBuffer_;
};

}  // namespace QXUTIL::ZEROMQ
