#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "net/TrafficWatcher.h"

namespace keltop {

/// Keeps what a watcher is told.
class TrafficLog : public net::TrafficWatcher {
 public:
  struct Connection {
    std::string peer;
    std::string own;
    std::string received;
    std::string sent;
    std::string refused;
    std::optional<net::ConnectionEnd> end;
    int ends = 0;
  };

  std::uint64_t opened(const Poco::Net::SocketAddress& peer, const Poco::Net::SocketAddress& own) noexcept override {
    const std::lock_guard<std::mutex> guard(guard_);
    Connection& made = connections_[++last_];
    made.peer = peer.toString();
    made.own = own.toString();
    return last_;
  }
  void received(std::uint64_t connection, std::string_view bytes) noexcept override {
    const std::lock_guard<std::mutex> guard(guard_);
    connections_.at(connection).received += bytes;
  }
  void sent(std::uint64_t connection, std::string_view bytes) noexcept override {
    const std::lock_guard<std::mutex> guard(guard_);
    connections_.at(connection).sent += bytes;
  }
  void refused(std::uint64_t connection, std::string_view reason) noexcept override {
    const std::lock_guard<std::mutex> guard(guard_);
    connections_.at(connection).refused = reason;
  }
  void ended(std::uint64_t connection, net::ConnectionEnd how) noexcept override {
    const std::lock_guard<std::mutex> guard(guard_);
    connections_.at(connection).end = how;
    ++connections_.at(connection).ends;
  }

  /// The connections by number, from 1 on.
  [[nodiscard]] std::map<std::uint64_t, Connection> connections() const {
    const std::lock_guard<std::mutex> guard(guard_);
    return connections_;
  }

 private:
  mutable std::mutex guard_;
  std::uint64_t last_ = 0;
  std::map<std::uint64_t, Connection> connections_;
};

}  // namespace keltop
