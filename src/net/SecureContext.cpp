#include "net/SecureContext.h"

#include <Poco/Net/SSLException.h>

#include <algorithm>

namespace keltop::net {

namespace {

constexpr const char* kCiphersBefore13 = "ECDHE+AESGCM:ECDHE+CHACHA20";

constexpr auto kOptions = SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET |
                          SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA;

/// An idle connection keeps no buffers.
constexpr long kMode = SSL_MODE_RELEASE_BUFFERS;

bool agreeOn(SSL_CTX* context) {
  SSL_CTX_set_options(context, kOptions);
  SSL_CTX_set_mode(context, kMode);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  return SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 && SSL_CTX_set_num_tickets(context, 0) == 1 &&
         SSL_CTX_set_cipher_list(context, kCiphersBefore13) == 1;
}

bool identify(SSL_CTX* context, const SecureIdentity& identity) {
  const auto add = [context](const CertificateOwner& next) {
    return SSL_CTX_add1_chain_cert(context, next.get()) == 1;
  };
  return SSL_CTX_use_certificate(context, identity.certificate()) == 1 &&
         SSL_CTX_use_PrivateKey(context, identity.key()) == 1 &&
         std::all_of(identity.chain().begin(), identity.chain().end(), add);
}

}  // namespace

std::shared_ptr<SSL_CTX> makeServerContext(const SecureIdentity& identity) {
  ContextOwner context(SSL_CTX_new(TLS_server_method()));
  if (!context || !agreeOn(context.get()) || !identify(context.get(), identity)) {
    throw Poco::Net::SSLException(takeSecureError());
  }
  return {context.release(), SSL_CTX_free};
}

}  // namespace keltop::net
