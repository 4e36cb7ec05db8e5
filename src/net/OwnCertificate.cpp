#include "net/OwnCertificate.h"

#include <openssl/bn.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <string>
#include <utility>

// Not the library: on Windows its headers bring the system's, which has macros of the names of the TLS library's types.

namespace keltop::net {

namespace {

using NamesOwner = std::unique_ptr<GENERAL_NAMES, Freeing<GENERAL_NAMES_free>>;
using NameOwner = std::unique_ptr<GENERAL_NAME, Freeing<GENERAL_NAME_free>>;
using NumberOwner = std::unique_ptr<BIGNUM, Freeing<BN_free>>;
using ExtensionOwner = std::unique_ptr<X509_EXTENSION, Freeing<X509_EXTENSION_free>>;

constexpr long kHour = 3600;
constexpr long kDay = 24 * kHour;
constexpr long kValidFrom = -kHour;  ///< for clients whose clocks are slow
constexpr long kValidUntil = kValidFrom + 30 * kDay;

constexpr long kVersion3 = 2;     ///< as the form counts versions
constexpr int kSerialBits = 127;  ///< positive, and of at most 20 bytes (RFC 5280, section 4.1.2.2)
constexpr std::size_t kLongestCommonName = ub_common_name;

bool addName(GENERAL_NAMES* names, int type, const void* bytes, std::size_t size) {
  NameOwner name(GENERAL_NAME_new());
  ASN1_STRING* const value = ASN1_STRING_type_new(type == GEN_DNS ? V_ASN1_IA5STRING : V_ASN1_OCTET_STRING);
  if (!name || value == nullptr) {
    ASN1_STRING_free(value);
    return false;
  }
  GENERAL_NAME_set0_value(name.get(), type, value);
  if (ASN1_STRING_set(value, bytes, static_cast<int>(size)) != 1 || sk_GENERAL_NAME_push(names, name.get()) < 1) {
    return false;
  }
  (void)name.release();
  return true;
}

bool addNames(X509* certificate, const LocalNames& local) {
  const NamesOwner names(GENERAL_NAMES_new());
  bool added = names != nullptr;
  for (const std::string& host : local.hosts) {
    added = added && addName(names.get(), GEN_DNS, host.data(), host.size());
  }
  for (const std::string& address : local.addresses) {
    added = added && addName(names.get(), GEN_IPADD, address.data(), address.size());
  }
  return added && X509_add1_ext_i2d(certificate, NID_subject_alt_name, names.get(), 0, 0) == 1;
}

/// It is its own issuer; the name is only for people to read.
bool nameItself(X509* certificate, const LocalNames& local) {
  const std::string& shown =
      local.hosts.front().size() <= kLongestCommonName ? local.hosts.front() : local.hosts.back();
  X509_NAME* const subject = X509_get_subject_name(certificate);
  return X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>(shown.data()),
                                    static_cast<int>(shown.size()), -1, 0) == 1 &&
         X509_set_issuer_name(certificate, subject) == 1;
}

/// Never the same for two certificates of one name, which clients that remember certificates refuse.
bool numberIt(X509* certificate) {
  const NumberOwner number(BN_new());
  return number && BN_rand(number.get(), kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
         BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr;
}

bool addUse(X509* certificate, int kind, const char* use) {
  X509V3_CTX about = {};
  X509V3_set_ctx_nodb(&about);
  X509V3_set_ctx(&about, certificate, certificate, nullptr, nullptr, 0);
  const ExtensionOwner extension(X509V3_EXT_conf_nid(nullptr, &about, kind, use));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

}  // namespace

CertificateOwner makeOwnCertificate(EVP_PKEY* key, const LocalNames& local) {
  CertificateOwner made(X509_new());
  const bool complete =
      made && X509_set_version(made.get(), kVersion3) == 1 && numberIt(made.get()) &&
      X509_gmtime_adj(X509_getm_notBefore(made.get()), kValidFrom) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(made.get()), kValidUntil) != nullptr && nameItself(made.get(), local) &&
      X509_set_pubkey(made.get(), key) == 1 && addUse(made.get(), NID_basic_constraints, "critical,CA:FALSE") &&
      addUse(made.get(), NID_key_usage, "critical,digitalSignature") &&
      addUse(made.get(), NID_ext_key_usage, "serverAuth") && addUse(made.get(), NID_subject_key_identifier, "hash") &&
      addNames(made.get(), local) && X509_sign(made.get(), key, EVP_sha256()) != 0;
  return complete ? std::move(made) : nullptr;
}

}  // namespace keltop::net
