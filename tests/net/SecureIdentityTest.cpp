#include <Poco/Net/DNS.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/NetworkInterface.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "net/SecureIdentity.h"
#include "support/OnWindows.h"
#include "support/TemporaryFolder.h"

namespace keltop::net {

namespace {

using NamesOwner = std::unique_ptr<GENERAL_NAMES, Freeing<GENERAL_NAMES_free>>;

template <typename Write>
std::string pem(Write write) {
  const StreamOwner stream(BIO_new(BIO_s_mem()));
  EXPECT_EQ(write(stream.get()), 1);
  char* text = nullptr;
  const auto size = static_cast<std::size_t>(BIO_get_mem_data(stream.get(), &text));
  return {text, size};
}

std::string certificatePem(const SecureIdentity& identity) {
  return pem([&](BIO* stream) { return PEM_write_bio_X509(stream, identity.certificate()); });
}

std::string keyPem(const SecureIdentity& identity) {
  return pem([&](BIO* stream) {
    return PEM_write_bio_PrivateKey(stream, identity.key(), nullptr, nullptr, 0, nullptr, nullptr);
  });
}

std::string encryptedKeyPem(const SecureIdentity& identity, bool traditional) {
  std::string word = "coffee";
  return pem([&](BIO* stream) {
    const auto write = traditional ? PEM_write_bio_PrivateKey_traditional : PEM_write_bio_PrivateKey;
    return write(stream, identity.key(), EVP_aes_128_cbc(), reinterpret_cast<unsigned char*>(word.data()),
                 static_cast<int>(word.size()), nullptr, nullptr);
  });
}

/// What loading such a file says.
std::string refusal(const std::string& text) {
  try {
    (void)SecureIdentity::read(text, "x.pem");
  } catch (const SecureFileException& error) {
    return error.displayText();
  }
  return "nothing";
}

struct Names {
  std::set<std::string> hosts;
  std::set<std::string> addresses;
};

Names namesOf(const SecureIdentity& identity) {
  Names found;
  const NamesOwner names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(identity.certificate(), NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    int type = 0;
    const auto* const value =
        static_cast<const ASN1_STRING*>(GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(names.get(), i), &type));
    const unsigned char* const bytes = ASN1_STRING_get0_data(value);
    const int size = ASN1_STRING_length(value);
    if (type == GEN_DNS) {
      found.hosts.emplace(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    } else if (type == GEN_IPADD) {
      found.addresses.insert(Poco::Net::IPAddress(bytes, static_cast<poco_socklen_t>(size)).toString());
    } else {
      ADD_FAILURE() << "a name of type " << type;
    }
  }
  return found;
}

long secondsFromNow(const ASN1_TIME* time) {
  int days = 0;
  int seconds = 0;
  EXPECT_EQ(ASN1_TIME_diff(&days, &seconds, nullptr, time), 1);
  return days * 86400L + seconds;
}

std::string extension(const SecureIdentity& identity, int kind) {
  const int index = X509_get_ext_by_NID(identity.certificate(), kind, -1);
  if (index < 0) {
    return "none";
  }
  X509_EXTENSION* const found = X509_get_ext(identity.certificate(), index);
  const std::string text = pem([&](BIO* stream) { return X509V3_EXT_print(stream, found, 0, 0); });
  return (X509_EXTENSION_get_critical(found) != 0 ? "critical, " : "") + text;
}

}  // namespace

TEST(SecureIdentity, itsOwnIsOnTheCurveAndSignedByItself) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  std::array<char, 64> curve = {};
  std::size_t length = 0;
  ASSERT_EQ(EVP_PKEY_get_group_name(own.key(), curve.data(), curve.size(), &length), 1);
  EXPECT_STREQ(curve.data(), "prime256v1");
  EXPECT_EQ(X509_get_version(own.certificate()), 2);
  EXPECT_EQ(X509_verify(own.certificate(), own.key()), 1);
  EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(own.certificate()), X509_get_issuer_name(own.certificate())), 0);
  EXPECT_EQ(X509_get_signature_nid(own.certificate()), NID_ecdsa_with_SHA256);
  EXPECT_TRUE(own.chain().empty());
}

TEST(SecureIdentity, itsOwnIsValidFromAnHourAgoForThirtyDays) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  const long from = secondsFromNow(X509_get0_notBefore(own.certificate()));
  EXPECT_LE(from, -3600);
  EXPECT_GT(from, -3600 - 60);
  EXPECT_EQ(secondsFromNow(X509_get0_notAfter(own.certificate())) - from, 30 * 86400L);
}

TEST(SecureIdentity, itsOwnNamesTheMachineAndItsAddresses) {
  const Names names = namesOf(SecureIdentity::makeOwn());
  EXPECT_EQ(names.hosts, (std::set<std::string>{Poco::Net::DNS::hostName(), "localhost"}));
  std::set<std::string> local = {"127.0.0.1"};
  for (const auto& network : Poco::Net::NetworkInterface::list()) {
    const std::string address = network.address().toString();
    local.insert(address.substr(0, address.find('%')));  // which interface it belongs to is not in a certificate
  }
  EXPECT_EQ(names.addresses, local);
}

TEST(SecureIdentity, itsOwnIsForAServerAndSignsNothing) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  EXPECT_EQ(extension(own, NID_basic_constraints), "critical, CA:FALSE");
  EXPECT_EQ(extension(own, NID_key_usage), "critical, Digital Signature");
  EXPECT_EQ(extension(own, NID_ext_key_usage), "TLS Web Server Authentication");
  EXPECT_NE(extension(own, NID_subject_key_identifier), "none");
}

TEST(SecureIdentity, noTwoOfItsOwnAreAlike) {
  const SecureIdentity one = SecureIdentity::makeOwn();
  const SecureIdentity other = SecureIdentity::makeOwn();
  EXPECT_NE(EVP_PKEY_eq(one.key(), other.key()), 1);
  EXPECT_NE(ASN1_INTEGER_cmp(X509_get0_serialNumber(one.certificate()), X509_get0_serialNumber(other.certificate())),
            0);
  EXPECT_NE(one.fingerprint(), other.fingerprint());
}

TEST(SecureIdentity, theFingerprintIsThatOfTheDerForm) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  unsigned char* der = nullptr;
  const int length = i2d_X509(own.certificate(), &der);
  ASSERT_GT(length, 0);
  std::array<unsigned char, 32> digest = {};
  ASSERT_EQ(EVP_Digest(der, static_cast<std::size_t>(length), digest.data(), nullptr, EVP_sha256(), nullptr), 1);
  OPENSSL_free(der);
  std::string expected;
  for (const unsigned char byte : digest) {
    std::array<char, 4> pair = {};
    (void)std::snprintf(pair.data(), pair.size(), "%02X:", byte);
    expected += pair.data();
  }
  expected.pop_back();
  EXPECT_EQ(own.fingerprint(), expected);
}

TEST(SecureIdentity, takesCertificateChainAndKeyInAnyOrder) {
  const SecureIdentity leaf = SecureIdentity::makeOwn();
  const SecureIdentity upper = SecureIdentity::makeOwn();
  const SecureIdentity root = SecureIdentity::makeOwn();
  const std::string certificates =
      certificatePem(leaf) + "a word between\n" + certificatePem(upper) + certificatePem(root);
  for (const std::string& text : {certificates + keyPem(leaf), keyPem(leaf) + certificates}) {
    const SecureIdentity found = SecureIdentity::read(text, "x.pem");
    EXPECT_EQ(found.fingerprint(), leaf.fingerprint());
    EXPECT_EQ(EVP_PKEY_eq(found.key(), leaf.key()), 1);
    ASSERT_EQ(found.chain().size(), 2U);
    EXPECT_EQ(X509_cmp(found.chain().at(0).get(), upper.certificate()), 0);
    EXPECT_EQ(X509_cmp(found.chain().at(1).get(), root.certificate()), 0);
  }
}

TEST(SecureIdentity, saysWhatAFileLacks) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  EXPECT_EQ(refusal(""), "TLS file: x.pem: holds no certificate");
  EXPECT_EQ(refusal(keyPem(own)), "TLS file: x.pem: holds no certificate");
  EXPECT_EQ(refusal(certificatePem(own)), "TLS file: x.pem: holds no private key");
}

TEST(SecureIdentity, refusesAKeyOfAnother) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  const SecureIdentity other = SecureIdentity::makeOwn();
  EXPECT_EQ(refusal(certificatePem(own) + keyPem(other)),
            "TLS file: x.pem: the private key does not fit the first certificate");
  EXPECT_EQ(refusal(certificatePem(other) + certificatePem(own) + keyPem(own)),
            "TLS file: x.pem: the private key does not fit the first certificate");
}

TEST(SecureIdentity, asksNobodyForAPassphrase) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  for (const bool traditional : {false, true}) {
    EXPECT_EQ(refusal(certificatePem(own) + encryptedKeyPem(own, traditional)),
              "TLS file: x.pem: the private key is encrypted");
  }
}

TEST(SecureIdentity, saysWhatIsDamaged) {
  const SecureIdentity own = SecureIdentity::makeOwn();
  std::string certificate = certificatePem(own);
  certificate.replace(certificate.find('\n') + 8, 4, "AAAA");
  EXPECT_TRUE(refusal(certificate + keyPem(own)).starts_with("TLS file: x.pem: a certificate cannot be read, error:"));
  EXPECT_TRUE(refusal(certificatePem(own).substr(0, 200)).starts_with("TLS file: x.pem: "));
  std::string key = keyPem(own);
  key.replace(key.find('\n') + 8, 4, "AAAA");
  EXPECT_TRUE(
      refusal(certificatePem(own) + key).starts_with("TLS file: x.pem: the private key cannot be read, error:"));
}

/// A failure that was dealt with must not turn up in what is said of the next one.
TEST(SecureIdentity, aRefusalLeavesNoErrorBehind) {
  (void)refusal("");
  EXPECT_EQ(ERR_peek_error(), 0U);
  (void)refusal(certificatePem(SecureIdentity::makeOwn()));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(SecureIdentity, loadsAFile) {
  const TemporaryFolder folder;
  const SecureIdentity own = SecureIdentity::makeOwn();
  writeContent(folder / "own.pem", certificatePem(own) + keyPem(own));
  EXPECT_EQ(SecureIdentity::load(folder / "own.pem").fingerprint(), own.fingerprint());
}

TEST(SecureIdentity, saysWhichFileCannotBeRead) {
  const TemporaryFolder folder;
  const auto said = [](const std::string& path) -> std::string {
    try {
      (void)SecureIdentity::load(path);
    } catch (const SecureFileException& error) {
      return error.displayText();
    }
    return "nothing";
  };
  EXPECT_EQ(said(folder / "none.pem"), "TLS file: " + (folder / "none.pem") + ": no such file");
  const std::string itself = folder.path().string();
  EXPECT_EQ(said(itself),
            "TLS file: " + itself + ": cannot be read, " + (onWindows() ? "Permission denied" : "Is a directory"));
  writeContent(folder / "long.pem", std::string(std::size_t{1} << 20U, 'x'));
  EXPECT_EQ(said(folder / "long.pem"), "TLS file: " + (folder / "long.pem") + ": too long");
}

}  // namespace keltop::net
