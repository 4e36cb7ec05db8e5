#pragma once

#include <cstdint>

namespace keltop::platform {

/// Sees to it that a port in use is an error for whoever comes second. `socket` is the system's number of a socket that
/// is not bound yet.
///
/// Linux: address reuse, so that a restart can bind while old connections are still in TIME-WAIT. Windows: there that
/// option would let two programs share the port, and without any option another program's use of it would; the
/// exclusive one lets none.
void prepareListenSocket(std::uintptr_t socket) noexcept;

}  // namespace keltop::platform
