#pragma once

#include "net/LocalNames.h"
#include "net/SecureTypes.h"

namespace keltop::net {

/// A certificate (X.509 version 3, RFC 5280) for the key, which also signs it: valid from an hour ago for 30 days, in
/// those names. Null where the TLS library refuses; it then knows the error.
[[nodiscard]] CertificateOwner makeOwnCertificate(EVP_PKEY* key, const LocalNames& local);

}  // namespace keltop::net
