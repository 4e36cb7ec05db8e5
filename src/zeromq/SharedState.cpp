#include "zeromq/SharedState.h"

#include "platform/NoDestructor.h"

namespace QXUTIL::ZEROMQ {

SharedState& sharedState() {
  static keltop::platform::NoDestructor<SharedState> instance;
  return instance.get();
}

}  // namespace QXUTIL::ZEROMQ
