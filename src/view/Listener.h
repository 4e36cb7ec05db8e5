#pragma once

#include <cstdint>

namespace keltop::view {

/// The listener whose traffic is shown.
struct Listener {
  bool raw = false;  ///< shows bytes, and understands none
  std::uint16_t port = 0;
};

}  // namespace keltop::view
