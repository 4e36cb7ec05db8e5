#include "zeromq/ZPushServiceSocket.h"

namespace QXUTIL::ZEROMQ {

int ZPushService::ZPushServiceSocket::connect(const std::string& endpoint) {
  return ++references_ == 1 ? ZPush::connect(endpoint) : 0;
}

std::int32_t ZPushService::ZPushServiceSocket::release() {
  const std::int32_t before = references_--;
  if (before != 1) {
    return before;
  }
  releaseReceiveBuffer();
  return closeSocket();
}

}  // namespace QXUTIL::ZEROMQ
