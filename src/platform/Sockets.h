#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace keltop::platform {

/// The system's number of a socket, in the width that holds it on both systems.
using SocketNumber = std::uintptr_t;

/// Makes a socket that is not bound yet fit to listen: it never waits in accept, and a port in use is an error for
/// whoever comes second. Gives whether the library is to ask for address reuse when it binds.
///
/// Linux: it is, so that a restart can bind while old connections are still in TIME-WAIT. Windows: there that option
/// would let two programs share the port, and without any option another program's use of it would; the exclusive one
/// lets none.
[[nodiscard]] bool prepareListenSocket(SocketNumber socket) noexcept;

/// An accepted connection: its socket, which waits, and the peer's address as the system gives it (a sockaddr).
struct AcceptedConnection {
  static constexpr std::size_t kLongestAddress = 128;

  SocketNumber socket = 0;
  alignas(std::max_align_t) std::array<unsigned char, kLongestAddress> peer = {};
  std::uint32_t peerLength = 0;
};

enum class AcceptResult {
  accepted,
  none,    ///< nobody waits for being accepted
  noRoom,  ///< somebody may, but the process or the machine has no descriptor or memory left for it
};

/// Accepts a connection that waits on a prepared socket; never waits itself. The socket is the caller's to close.
[[nodiscard]] AcceptResult acceptWaiting(SocketNumber listening, AcceptedConnection& connection) noexcept;

/// True where an accepted socket has the listening one's time-outs and TCP_NODELAY from the beginning.
[[nodiscard]] bool acceptedSocketsInheritOptions() noexcept;

/// Stops listening: who waits on the socket is woken, and nobody is accepted any more.
void stopListening(SocketNumber listening) noexcept;

/// Ends both directions of a connection whose socket another thread uses, and leaves the socket open: a receive, one
/// that waits already too, gives what has come, and then the end or, on Windows, a failure; a send fails.
///
/// Windows: a receive that begins in the very moment may miss it, and waits its time out.
void endTraffic(SocketNumber connection) noexcept;

struct SocketWait {
  bool forReading = false;
  bool forWriting = false;
};

/// Waits until the socket can be read or written, has failed or was closed by its peer, at most that many milliseconds.
/// One system call, whatever signals come in between take nothing off the time. False: the time is over; nothing: the
/// system refused, for the reason that it gives for its last call.
[[nodiscard]] std::optional<bool> waitForSocket(SocketNumber socket, SocketWait wait, std::int64_t limit) noexcept;

/// Lets the process open as many sockets and files as the system allows it, and gives how many of them may be
/// connections, each with a thread of its own.
[[nodiscard]] std::size_t raiseConnectionLimit() noexcept;

}  // namespace keltop::platform
