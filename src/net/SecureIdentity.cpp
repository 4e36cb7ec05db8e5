#include "net/SecureIdentity.h"

#include <Poco/Net/SSLException.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <fstream>
#include <system_error>
#include <utility>

#include "net/OwnCertificate.h"

namespace keltop::net {

namespace {

/// No chain is that long; a device that has no end is not read for ever.
constexpr std::size_t kLongestFile = std::size_t{1} << 20U;

/// What the first line of every kind of private key ends with.
constexpr std::string_view kEndOfKeyMark = "PRIVATE KEY-----";

/// The text of a file that holds a key: wiped when it is not needed any more.
class SecretText {
 public:
  explicit SecretText(std::size_t room) : bytes_(room) {}
  ~SecretText() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;

  [[nodiscard]] char* data() noexcept { return bytes_.data(); }
  [[nodiscard]] std::size_t room() const noexcept { return bytes_.size(); }

 private:
  std::vector<char> bytes_;
};

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  ERR_clear_error();
  throw SecureFileException(path, reason);
}

[[noreturn]] void failToRead(const std::string& path, int error) {
  fail(path, error == ENOENT ? "no such file" : "cannot be read, " + std::generic_category().message(error));
}

/// As many bytes of the file as there is room for.
std::size_t readFile(const std::string& path, SecretText& text) {
  errno = 0;
  std::ifstream file;
  file.rdbuf()->pubsetbuf(nullptr, 0);  // no second copy of the key
  file.open(path, std::ios::binary);
  if (!file) {
    failToRead(path, errno);
  }
  try {
    file.exceptions(std::ios::badbit);
    file.read(text.data(), static_cast<std::streamsize>(text.room()));
  } catch (const std::exception&) {
    failToRead(path, errno);
  }
  return static_cast<std::size_t>(file.gcount());
}

StreamOwner streamOf(std::string_view text) {
  return StreamOwner(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

/// Whether the search for a part of the file ended because there is no further one.
bool foundNoMore() noexcept {
  const unsigned long error = ERR_peek_last_error();
  return ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
}

std::vector<CertificateOwner> readCertificates(std::string_view text, const std::string& path) {
  std::vector<CertificateOwner> found;
  const StreamOwner stream = streamOf(text);
  while (CertificateOwner next{PEM_read_bio_X509(stream.get(), nullptr, nullptr, nullptr)}) {
    found.push_back(std::move(next));
  }
  if (!foundNoMore()) {
    fail(path, "a certificate cannot be read, " + takeSecureError());
  }
  ERR_clear_error();
  if (found.empty()) {
    fail(path, "holds no certificate");
  }
  return found;
}

/// In place of the TLS library's own way, which asks on the terminal.
int noteThatItIsEncrypted(char* /*passphrase*/, int /*room*/, int /*writing*/, void* encrypted) {
  *static_cast<bool*>(encrypted) = true;
  return -1;
}

KeyOwner readKey(std::string_view text, const std::string& path) {
  bool encrypted = false;
  const StreamOwner stream = streamOf(text);
  KeyOwner key(PEM_read_bio_PrivateKey(stream.get(), nullptr, noteThatItIsEncrypted, &encrypted));
  if (encrypted) {
    fail(path, "the private key is encrypted");
  }
  if (!key && text.find(kEndOfKeyMark) == std::string_view::npos) {
    fail(path, "holds no private key");
  }
  if (!key) {
    fail(path, "the private key cannot be read, " + takeSecureError());
  }
  return key;
}

}  // namespace

SecureIdentity SecureIdentity::makeOwn() {
  SecureIdentity made;
  made.key_.reset(EVP_EC_gen("P-256"));
  if (made.key_) {
    made.certificate_ = makeOwnCertificate(made.key_.get(), localNames());
  }
  if (!made.certificate_) {
    throw Poco::Net::SSLException("No certificate can be made", takeSecureError());
  }
  return made;
}

SecureIdentity SecureIdentity::load(const std::string& path) {
  SecretText text(kLongestFile);
  const std::size_t size = readFile(path, text);
  if (size == text.room()) {
    fail(path, "too long");
  }
  return read(std::string_view(text.data(), size), path);
}

SecureIdentity SecureIdentity::read(std::string_view text, const std::string& path) {
  ERR_clear_error();
  SecureIdentity found;
  found.chain_ = readCertificates(text, path);
  found.certificate_ = std::move(found.chain_.front());
  found.chain_.erase(found.chain_.begin());
  found.key_ = readKey(text, path);
  if (X509_check_private_key(found.certificate_.get(), found.key_.get()) != 1) {
    fail(path, "the private key does not fit the first certificate");
  }
  return found;
}

std::string SecureIdentity::fingerprint() const {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest = {};
  unsigned length = 0;
  if (X509_digest(certificate_.get(), EVP_sha256(), digest.data(), &length) != 1) {
    throw Poco::Net::SSLException("No fingerprint", takeSecureError());
  }
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    if (i > 0) {
      text += ':';
    }
    text += kDigits[digest[i] >> 4U];
    text += kDigits[digest[i] & 15U];
  }
  return text;
}

}  // namespace keltop::net
