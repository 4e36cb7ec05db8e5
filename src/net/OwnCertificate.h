#pragma once

#include "net/SecureTypes.h"

namespace keltop::net {

/// A certificate (X.509 version 3, RFC 5280) for the key, which also signs it: valid from an hour ago for 30 days, in
/// the name of this machine, of localhost and of every local address. Null where the TLS library refuses; it then knows
/// the error.
[[nodiscard]] CertificateOwner makeOwnCertificate(EVP_PKEY* key);

}  // namespace keltop::net
