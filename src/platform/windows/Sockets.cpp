#include "platform/Sockets.h"

// Before <windows.h>, which would bring its predecessor.
#include <winsock2.h>

#include <algorithm>
#include <limits>

namespace keltop::platform {

namespace {

/// The system limits neither sockets nor threads to less; the threads' stacks are only set aside.
constexpr std::size_t kMostConnections = 4096;

}  // namespace

bool prepareListenSocket(SocketNumber socket) noexcept {
  const BOOL exclusive = TRUE;
  (void)::setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive),
                     sizeof exclusive);
  u_long nonBlocking = 1;
  (void)::ioctlsocket(socket, static_cast<long>(FIONBIO), &nonBlocking);
  return false;
}

AcceptResult acceptWaiting(SocketNumber listening, AcceptedConnection& connection) noexcept {
  int length = AcceptedConnection::kLongestAddress;
  const SOCKET accepted = ::accept(listening, reinterpret_cast<sockaddr*>(connection.peer.data()), &length);
  if (accepted == INVALID_SOCKET) {
    const int error = ::WSAGetLastError();
    return error == WSAEMFILE || error == WSAENOBUFS ? AcceptResult::noRoom : AcceptResult::none;
  }
  if (length < static_cast<int>(sizeof(sockaddr_in))) {
    (void)::closesocket(accepted);  // reset before it was accepted: not even its address is left
    return AcceptResult::none;
  }
  u_long nonBlocking = 0;  // it has the listening socket's way of not waiting
  (void)::ioctlsocket(accepted, static_cast<long>(FIONBIO), &nonBlocking);
  connection.socket = accepted;
  connection.peerLength = static_cast<std::uint32_t>(length);
  return AcceptResult::accepted;
}

bool acceptedSocketsInheritOptions() noexcept {
  return false;
}

/// A listening socket cannot be shut down there; who waits on it wakes when its time is over.
void stopListening(SocketNumber /*listening*/) noexcept {}

/// Shutting down the receiving direction wakes nobody there, and loses the bytes that have come. So nobody waits any
/// more: whoever begins to receive is told that there is nothing, and whoever waits already is called back.
void endTraffic(SocketNumber connection) noexcept {
  u_long nonBlocking = 1;
  (void)::ioctlsocket(connection, static_cast<long>(FIONBIO), &nonBlocking);
  (void)::shutdown(connection, SD_SEND);
  (void)::CancelIoEx(reinterpret_cast<HANDLE>(connection), nullptr);
}

std::optional<bool> waitForSocket(SocketNumber socket, SocketWait wait, std::int64_t limit) noexcept {
  WSAPOLLFD waited = {};
  waited.fd = socket;
  waited.events = static_cast<SHORT>((wait.forReading ? POLLRDNORM : 0) | (wait.forWriting ? POLLWRNORM : 0));
  const auto bounded = std::clamp<std::int64_t>(limit, 0, std::numeric_limits<INT>::max());
  const int ready = ::WSAPoll(&waited, 1, static_cast<INT>(bounded));
  return ready == SOCKET_ERROR ? std::nullopt : std::optional<bool>(ready > 0);
}

std::size_t raiseConnectionLimit() noexcept {
  return kMostConnections;
}

}  // namespace keltop::platform
