#pragma once

#include <Poco/Net/StreamSocket.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <string>

#include "support/Check.h"

namespace keltop::fuzz {

/// As the program does: the library sends without keeping the signal away.
inline void ignoreBrokenPipes() {
  check(std::signal(SIGPIPE, SIG_IGN) != SIG_ERR, "SIGPIPE cannot be ignored");
}

/// What the other end has sent until now, which must be closed for sending.
inline std::string receiveAll(const Poco::Net::StreamSocket& socket) {
  std::string all;
  std::array<char, 65536> piece = {};
  ssize_t count = 0;
  while ((count = ::recv(socket.impl()->sockfd(), piece.data(), piece.size(), 0)) > 0) {
    all.append(piece.data(), static_cast<std::size_t>(count));
  }
  return all;
}

}  // namespace keltop::fuzz
