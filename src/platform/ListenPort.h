#pragma once

namespace keltop::platform {

/// Whether a listening socket asks for address reuse. On Linux that lets a restart bind while old connections are
/// still in TIME-WAIT; on Windows the same option would let two programs share one port.
[[nodiscard]] bool reuseListenAddress() noexcept;

}  // namespace keltop::platform
