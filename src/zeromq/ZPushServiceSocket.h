#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "zeromq/ZPush.h"
#include "zeromq/ZPushService.h"

namespace QXUTIL::ZEROMQ {

/// A push socket that counts its references: the first opens it, the last release closes it.
class ZPushService::ZPushServiceSocket : public ZPush {
 public:
  /// No "None" here, unlike the other sockets, on purpose.
  ZPushServiceSocket() : ZPush(std::string_view()) {}

  /// Counts a reference; connects when it is the first, and gives 0 otherwise.
  int connect(const std::string& endpoint) override;

  /// Gives up a reference. The last one closes the socket and gives the result of that; otherwise the result is the
  /// number of references before.
  virtual std::int32_t release();

 private:
  std::atomic<std::int32_t> references_ = 0;
};

}  // namespace QXUTIL::ZEROMQ
