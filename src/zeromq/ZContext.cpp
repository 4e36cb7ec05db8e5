#include "zeromq/ZContext.h"

#include <cstdint>

#include "semaphore/ScopedLock.h"
#include "zeromq/Library.h"
#include "zeromq/SharedState.h"

namespace QXUTIL::ZEROMQ {

namespace {

constexpr std::uint32_t kEndPatience = 50;

}  // namespace

ZContext::ZContext() {
  ++sharedState().contextUsers;
}

ZContext::~ZContext() {
  SharedState& shared = sharedState();
  if (--shared.contextUsers != 0 || shared.context.load() == nullptr) {
    return;
  }
  const SEMAPHORE::ScopedLock lock(shared.contextMutex, kEndPatience);
  if (lock.held() && shared.liveSockets == 0) {
    if (void* const context = shared.context.exchange(nullptr); context != nullptr) {
      endContext(context);
    }
  }
}

}  // namespace QXUTIL::ZEROMQ
