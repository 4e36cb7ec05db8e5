#pragma once

namespace QXUTIL::ZEROMQ {

/// Counts as a user of the process's shared context. The last one to go ends the context, where there is one and no
/// socket is open; it waits at most 50 ms for its turn and otherwise leaves the context alone.
class ZContext {
 public:
  ZContext();
  virtual ~ZContext();
  ZContext(const ZContext&) = delete;
  ZContext& operator=(const ZContext&) = delete;
};

}  // namespace QXUTIL::ZEROMQ
