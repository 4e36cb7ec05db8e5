#pragma once

#include <memory>

#include "net/SecureIdentity.h"
#include "net/SecureTypes.h"

namespace keltop::net {

/// What every TLS connection of a server shares: who it says it is, and what it agrees to.
///
/// TLS 1.2 and 1.3; of the older one's cipher suites only those with forward secrecy and authenticated encryption. No
/// renegotiation, no compression, no session tickets: each connection is of its own, and after a handshake the server
/// says nothing that nobody asked for, which a peer that only sends and closes would answer with a reset.
///
/// The library's exception where the TLS library refuses, a key that is too short for it for example.
[[nodiscard]] std::shared_ptr<SSL_CTX> makeServerContext(const SecureIdentity& identity);

}  // namespace keltop::net
