#include "platform/Sockets.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include "platform/linux/FileDescriptor.h"

namespace keltop::platform {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Descriptors that are not connections: standard streams, trace files, named objects, what the libraries open.
constexpr std::size_t kOtherDescriptors = 64;
constexpr std::size_t kFewestConnections = 16;

/// More threads than this serve nobody better, and their stacks would fill an address space that somebody has limited.
constexpr std::size_t kMostConnections = 8192;

int descriptorOf(SocketNumber socket) noexcept {
  return static_cast<int>(socket);
}

/// Gives the process's table of descriptors its last size. The system doubles it when it is full, and stops whoever
/// opens something for some 10 ms then: in the midst of a crowd that would make the backlog overflow.
void growDescriptorTable(std::size_t size) noexcept {
  const FileDescriptor highest(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, static_cast<int>(size) - 1));
}

AcceptResult resultOf(int error) noexcept {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return AcceptResult::noRoom;
    default:
      return AcceptResult::none;
  }
}

}  // namespace

bool prepareListenSocket(SocketNumber socket) noexcept {
  const int flags = ::fcntl(descriptorOf(socket), F_GETFL);
  (void)::fcntl(descriptorOf(socket), F_SETFL, flags | O_NONBLOCK);
  return true;
}

AcceptResult acceptWaiting(SocketNumber listening, AcceptedConnection& connection) noexcept {
  for (;;) {
    socklen_t length = AcceptedConnection::kLongestAddress;
    auto* const address = reinterpret_cast<sockaddr*>(connection.peer.data());
    const int accepted = ::accept4(descriptorOf(listening), address, &length, SOCK_CLOEXEC);
    if (accepted >= 0) {
      connection.socket = static_cast<SocketNumber>(accepted);
      connection.peerLength = length;
      return AcceptResult::accepted;
    }
    // accept(2) also gives errors of a connection that has failed while it waited: the next one may be sound.
    if (errno != EINTR && errno != ECONNABORTED && errno != EPROTO) {
      return resultOf(errno);
    }
  }
}

bool acceptedSocketsInheritOptions() noexcept {
  return true;
}

void stopListening(SocketNumber listening) noexcept {
  (void)::shutdown(descriptorOf(listening), SHUT_RDWR);
}

void endTraffic(SocketNumber connection) noexcept {
  (void)::shutdown(descriptorOf(connection), SHUT_RDWR);
}

std::optional<bool> waitForSocket(SocketNumber socket, SocketWait wait, std::int64_t limit) noexcept {
  pollfd waited = {descriptorOf(socket), 0, 0};
  waited.events = static_cast<short>((wait.forReading ? POLLIN : 0) | (wait.forWriting ? POLLOUT : 0));
  std::int64_t left = std::clamp<std::int64_t>(limit, 0, std::numeric_limits<int>::max());
  std::optional<steady_clock::time_point> deadline;
  for (;;) {
    const int ready = ::poll(&waited, 1, static_cast<int>(left));
    if (ready >= 0) {
      return ready > 0;
    }
    if (errno != EINTR) {
      return std::nullopt;
    }
    // The clock is asked only where a signal came: that the wait began a little earlier than now lengthens it little.
    if (!deadline) {
      deadline = steady_clock::now() + milliseconds(left);
    }
    left = std::max<std::int64_t>(0, std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count());
  }
}

std::size_t raiseConnectionLimit() noexcept {
  rlimit files = {};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return kFewestConnections;
  }
  if (files.rlim_cur < files.rlim_max) {
    const rlimit raised = {files.rlim_max, files.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
      files = raised;
    }
  }
  const auto descriptors = static_cast<std::size_t>(std::min<rlim_t>(files.rlim_cur, kMostConnections * 2));
  const std::size_t connections =
      std::clamp(descriptors - std::min(descriptors, kOtherDescriptors), kFewestConnections, kMostConnections);
  growDescriptorTable(std::min(descriptors, connections + kOtherDescriptors));
  return connections;
}

}  // namespace keltop::platform
