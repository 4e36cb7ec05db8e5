#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "semaphore/Mutex.h"

namespace QXUTIL::ZEROMQ {

/// Stands for no error.
inline constexpr std::string_view kNone = "None";

/// What all sockets of the process share.
struct SharedState {
  /// Nothing in this program ever makes a context, on purpose: every connection fails and every push is lost, and the
  /// trace files remain the record. Whoever puts one here makes all of it work.
  std::atomic<void*> context = nullptr;
  std::atomic<std::int32_t> contextUsers = 0;  ///< one per living ZContext
  std::atomic<std::int32_t> liveSockets = 0;   ///< one per socket connected or bound and not yet closed
  SEMAPHORE::Mutex contextMutex;
};

/// Made on first use and never destroyed: the trace writer uses it before main and until the process ends.
[[nodiscard]] SharedState& sharedState();

}  // namespace QXUTIL::ZEROMQ
