#include "zeromq/ZPush.h"

#include <zmq.h>

namespace QXUTIL::ZEROMQ {

namespace {

constexpr int kTypePush = 8;
static_assert(kTypePush == ZMQ_PUSH);

}  // namespace

int ZPush::bind(const std::string& endpoint) {
  const int result = ZBase::bind(endpoint, kTypePush);
  if (result == 0) {
    (void)setHighWaterMark(kHighWaterMark);
  }
  return result;
}

int ZPush::connect(const std::string& endpoint) {
  const int result = ZBase::connect(endpoint, kTypePush);
  if (result == 0) {
    (void)setHighWaterMark(kHighWaterMark);
  }
  return result;
}

int ZPush::send(const std::string& text) {
  return isOpen() ? ZBase::send(text, false) : 0;
}

}  // namespace QXUTIL::ZEROMQ
