#pragma once

#include <Poco/Exception.h>

#include <string>
#include <string_view>
#include <vector>

#include "net/SecureTypes.h"

namespace keltop::net {

/// A file that no certificate and key could be had from; the message says which file and why.
class SecureFileException : public Poco::Exception {
 public:
  SecureFileException(const std::string& path, const std::string& reason) : Poco::Exception(path + ": " + reason) {}

  [[nodiscard]] const char* name() const noexcept override { return "TLS file"; }
};

/// Who a TLS server says it is: a certificate, the certificates that lead from it to an authority, and the private key.
/// The key is in memory only, and nothing here shows it.
class SecureIdentity {
 public:
  /// A new key (EC P-256) with a certificate that it signs itself: valid from an hour ago for 30 days, so that a
  /// client whose clock is slow takes it, in the name of this machine, of localhost and of every local address.
  /// The library's exception where the TLS library refuses.
  [[nodiscard]] static SecureIdentity makeOwn();

  /// From a file in PEM form (RFC 7468): the certificate is the first one in it, the others are its chain, and the
  /// first private key must be its own. Nobody is asked for a passphrase. Throws SecureFileException.
  [[nodiscard]] static SecureIdentity load(const std::string& path);

  /// The same from the text of such a file, which `path` names in messages.
  [[nodiscard]] static SecureIdentity read(std::string_view text, const std::string& path);

  /// The SHA-256 of the certificate (its DER form), as pairs of upper-case hexadecimal digits with colons.
  [[nodiscard]] std::string fingerprint() const;

  [[nodiscard]] X509* certificate() const noexcept { return certificate_.get(); }
  [[nodiscard]] EVP_PKEY* key() const noexcept { return key_.get(); }
  [[nodiscard]] const std::vector<CertificateOwner>& chain() const noexcept { return chain_; }

 private:
  SecureIdentity() = default;

  CertificateOwner certificate_;
  std::vector<CertificateOwner> chain_;
  KeyOwner key_;
};

}  // namespace keltop::net
