#pragma once

// Before the TLS library's: they take back the names that the system's headers make macros of on Windows.
#include <Poco/Foundation.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace keltop::net {

/// Gives an object of the TLS library back to it.
template <auto Free>
struct Freeing {
  template <typename Object>
  void operator()(Object* object) const noexcept {
    Free(object);
  }
};

using CertificateOwner = std::unique_ptr<X509, Freeing<X509_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, Freeing<EVP_PKEY_free>>;
using ContextOwner = std::unique_ptr<SSL_CTX, Freeing<SSL_CTX_free>>;
using SessionOwner = std::unique_ptr<SSL, Freeing<SSL_free>>;
using StreamOwner = std::unique_ptr<BIO, Freeing<BIO_free>>;

/// What the TLS library says of its last failure on this thread, in its own words; its memory of it is emptied.
[[nodiscard]] std::string takeSecureError();

}  // namespace keltop::net
