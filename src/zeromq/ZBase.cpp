#include "zeromq/ZBase.h"

#include <zmq.h>

#include <chrono>
#include <thread>

#include "zeromq/Library.h"
#include "zeromq/ZContext.h"

namespace QXUTIL::ZEROMQ {

namespace {

constexpr int kOptionReceiveMore = 13;
constexpr int kOptionLinger = 17;
constexpr int kOptionReceiveTimeout = 27;
constexpr int kOptionSendTimeout = 28;
static_assert(kOptionReceiveMore == ZMQ_RCVMORE && kOptionLinger == ZMQ_LINGER &&
              kOptionReceiveTimeout == ZMQ_RCVTIMEO && kOptionSendTimeout == ZMQ_SNDTIMEO);

constexpr std::int32_t kConnectedLinger = 30'000;
constexpr std::int32_t kNoSocket = -1;

}  // namespace

ZBase::~ZBase() {
  ZBase::releaseReceiveBuffer();
  (void)closeSocket();
  lastErrorText_.clear();
}

void ZBase::releaseReceiveBuffer() noexcept {
  std::vector<char>().swap(receiveBuffer_);
}

bool ZBase::isOpen() const noexcept {
  return socket_ != nullptr;
}

void ZBase::setLinger(std::int32_t milliseconds) noexcept {
  (void)::zmq_setsockopt(socket_, kOptionLinger, &milliseconds, sizeof milliseconds);
}

int ZBase::setHighWaterMark(std::int32_t count) {
  const int result = setBothHighWaterMarks(socket_, count);
  storeError();
  return result;
}

int ZBase::setReceiveTimeout(std::int32_t milliseconds) {
  return setOption(kOptionReceiveTimeout, milliseconds);
}

std::vector<std::string> ZBase::receiveParts(std::int32_t milliseconds) {
  std::vector<std::string> parts;
  if (!prepareReceive(milliseconds)) {
    return parts;
  }
  std::string part;
  while (receivePart(part)) {
    parts.push_back(part);
    if (!morePartsFollow()) {
      break;
    }
  }
  return parts;
}

std::string ZBase::receive(std::int32_t milliseconds) {
  std::string text;
  for (const std::string& part : receiveParts(milliseconds)) {
    text += part;
  }
  return text;
}

int ZBase::send(const void* data, std::uint32_t length, bool more) {
  return sendBytes({static_cast<const char*>(data), length}, more);
}

int ZBase::send(const std::string& text, bool more) {
  return sendBytes(text, more);
}

int ZBase::setSendTimeout(std::int32_t milliseconds) {
  return setOption(kOptionSendTimeout, milliseconds);
}

int ZBase::bind(const std::string& endpoint, int type) {
  const ZContext context;
  const int result = open(endpoint, type, ::zmq_bind);
  if (result == 0) {
    count();
    (void)setHighWaterMark(kHighWaterMark);
  }
  return result;
}

int ZBase::connect(const std::string& endpoint, int type) {
  const ZContext context;
  const int result = open(endpoint, type, ::zmq_connect);
  if (result == 0) {
    setLinger(kConnectedLinger);
    count();
    (void)setHighWaterMark(kHighWaterMark);
  }
  return result;
}

int ZBase::closeSocket() noexcept {
  if (socket_ == nullptr) {
    return 0;
  }
  const int result = ::zmq_close(socket_);
  // One that could not be connected or bound was never counted.
  if (result == 0 && counted_) {
    --sharedState().liveSockets;
  }
  socket_ = nullptr;
  return result;
}

void ZBase::count() noexcept {
  counted_ = true;
  ++sharedState().liveSockets;
}

int ZBase::open(const std::string& endpoint, int type, Attach attach) {
  clearError();
  receiveTimeout_ = kWithoutEnd;
  counted_ = false;
  socket_ = ::zmq_socket(sharedState().context, type);
  if (socket_ == nullptr) {
    storeError();
    return kNoSocket;
  }
  const int result = attach(socket_, endpoint.c_str());
  if (result != 0) {
    storeError();
    releaseReceiveBuffer();
    (void)closeSocket();
  }
  return result;
}

int ZBase::setOption(int option, std::int32_t value) {
  const int result = ::zmq_setsockopt(socket_, option, &value, sizeof value);
  storeError();
  return result;
}

int ZBase::sendBytes(std::string_view bytes, bool more) {
  clearError();
  if (socket_ == nullptr) {
    return kNoSocket;
  }
  const int result = sendMessage(socket_, bytes, more ? kFlagNoBlock | kFlagSendMore : kFlagNoBlock);
  if (result != 0) {
    releaseReceiveBuffer();
    (void)closeSocket();
  }
  storeError();
  return result;
}

bool ZBase::receivePart(std::string& part) {
  if (receiveMessage(socket_, receiveBuffer_, 0) != 0) {
    storeError();
    return false;
  }
  part = receiveBuffer_.data();  // up to the first zero byte
  return true;
}

bool ZBase::prepareReceive(std::int32_t milliseconds) {
  clearError();
  releaseReceiveBuffer();
  if (socket_ == nullptr) {
    lastError_ = kNoSocket;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return false;
  }
  if (milliseconds != receiveTimeout_) {
    (void)setReceiveTimeout(milliseconds);
    clearError();
    receiveTimeout_ = milliseconds;
  }
  return true;
}

bool ZBase::morePartsFollow() const noexcept {
  std::int32_t more = 0;
  std::size_t size = sizeof more;
  return ::zmq_getsockopt(socket_, kOptionReceiveMore, &more, &size) == 0 && more != 0;
}

void ZBase::clearError() {
  lastError_ = 0;
  lastErrorText_ = kNone;
}

void ZBase::storeError() {
  lastError_ = ::zmq_errno();
  lastErrorText_ = ::zmq_strerror(lastError_);
}

}  // namespace QXUTIL::ZEROMQ
