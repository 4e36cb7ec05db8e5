#pragma once

#include <cstdint>

namespace keltop::view {

/// The listener whose traffic is shown.
struct Listener {
  bool raw = false;     ///< shows bytes, and understands none
  bool secure = false;  ///< behind TLS; what is shown is what was inside
  std::uint16_t port = 0;
};

}  // namespace keltop::view
