#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "semaphore/Mutex.h"
#include "zeromq/ZPushServiceSocket.h"

namespace QXUTIL::ZEROMQ {

/// What all push services of the process share.
struct SocketTable {
  std::map<std::string, std::unique_ptr<ZPushService::ZPushServiceSocket>> sockets;  ///< by endpoint
  SEMAPHORE::Mutex mutex;               ///< guards the sockets; taken before the context mutex, never after it
  std::atomic<std::int32_t> users = 0;  ///< one per living ZPushService
};

/// Made on first use and never destroyed: the trace writer uses it before main and until the process ends.
[[nodiscard]] SocketTable& socketTable();

}  // namespace QXUTIL::ZEROMQ
