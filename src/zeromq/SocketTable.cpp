#include "zeromq/SocketTable.h"

#include "platform/NoDestructor.h"

namespace QXUTIL::ZEROMQ {

SocketTable& socketTable() {
  static keltop::platform::NoDestructor<SocketTable> instance;
  return instance.get();
}

}  // namespace QXUTIL::ZEROMQ
