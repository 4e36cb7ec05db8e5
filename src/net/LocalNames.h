#pragma once

#include <string>
#include <vector>

namespace keltop::net {

/// By what names this machine can be reached.
struct LocalNames {
  std::vector<std::string> hosts;      ///< the machine's own, where it has one, and localhost, the last
  std::vector<std::string> addresses;  ///< 4 or 16 bytes each, as on the wire
};

/// What the system does not tell is left out.
[[nodiscard]] LocalNames localNames();

}  // namespace keltop::net
