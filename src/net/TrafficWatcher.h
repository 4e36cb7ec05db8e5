#pragma once

#include <Poco/Net/SocketAddress.h>

#include <cstdint>
#include <string_view>

namespace keltop::net {

/// How a connection ended, as far as its socket noticed.
enum class ConnectionEnd { closedByPeer, closedHere, reset, failed };

/// Told by accepted sockets what goes over the wire, from any thread. It never blocks and never throws. The time of an
/// event is taken by the watcher when it is told.
///
/// Every byte that was received or sent is told once and in order, behind any encryption as it was before it. The
/// watcher must outlive every connection that was opened with it.
class TrafficWatcher {
 public:
  virtual ~TrafficWatcher() = default;

  /// A connection was accepted. Gives a number for the calls below.
  virtual std::uint64_t opened(const Poco::Net::SocketAddress& peer, const Poco::Net::SocketAddress& own) noexcept = 0;

  virtual void received(std::uint64_t connection, std::string_view bytes) noexcept = 0;
  virtual void sent(std::uint64_t connection, std::string_view bytes) noexcept = 0;

  /// The connection is not served, for that reason: a failed TLS handshake, for example.
  virtual void refused(std::uint64_t connection, std::string_view reason) noexcept = 0;

  /// The last call for that connection, made once.
  virtual void ended(std::uint64_t connection, ConnectionEnd how) noexcept = 0;
};

}  // namespace keltop::net
