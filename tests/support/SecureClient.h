#pragma once

#include <Poco/Net/StreamSocket.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

#include "net/SecureTypes.h"

namespace keltop {

/// A client behind TLS that believes every certificate. What it has encrypted can be sent in pieces.
class SecureClient {
 public:
  /// Of that version, or of any.
  explicit SecureClient(int version = 0) : session_(SSL_new(context_.get())) {
    (void)SSL_set_min_proto_version(session_.get(), version);
    (void)SSL_set_max_proto_version(session_.get(), version);
    received_ = BIO_new(BIO_s_mem());
    toSend_ = BIO_new(BIO_s_mem());
    SSL_set_bio(session_.get(), received_, toSend_);
    SSL_set_connect_state(session_.get());
  }

  /// Its next message of the handshake, having received that; empty when it has nothing to say.
  std::string shakeHands(std::string_view received = {}) {
    take(received);
    (void)SSL_do_handshake(session_.get());
    return takeEncrypted();
  }

  [[nodiscard]] bool shaken() const { return SSL_is_init_finished(session_.get()) != 0; }

  /// The whole handshake over that connection.
  void shakeHands(Poco::Net::StreamSocket& connection) {
    for (std::string next = shakeHands();; next = shakeHands(receiveFrom(connection))) {
      sendTo(connection, next);
      if (shaken()) {
        return;
      }
    }
  }

  /// The record of that text.
  std::string encrypt(std::string_view text) {
    (void)SSL_write(session_.get(), text.data(), static_cast<int>(text.size()));
    return takeEncrypted();
  }

  /// The record that tells of new keys, which only TLS 1.3 has; else nothing.
  std::string changeKeys() {
    (void)SSL_key_update(session_.get(), SSL_KEY_UPDATE_REQUESTED);
    (void)SSL_do_handshake(session_.get());
    return takeEncrypted();
  }

  /// TLS's farewell, after which nothing more can be encrypted.
  std::string sayFarewell() {
    (void)SSL_shutdown(session_.get());
    return takeEncrypted();
  }

  /// The text of what was received; `ended` tells whether TLS's farewell came with it.
  std::string decrypt(std::string_view received, bool& ended) {
    take(received);
    std::string text;
    std::array<char, 1000> piece = {};
    int count = 0;
    while ((count = SSL_read(session_.get(), piece.data(), static_cast<int>(piece.size()))) > 0) {
      text.append(piece.data(), static_cast<std::size_t>(count));
    }
    ended = SSL_get_error(session_.get(), count) == SSL_ERROR_ZERO_RETURN;
    return text;
  }

  static void sendTo(Poco::Net::StreamSocket& connection, std::string_view bytes) {
    (void)connection.sendBytes(bytes.data(), static_cast<int>(bytes.size()));
  }

  /// One receive; empty at the end.
  static std::string receiveFrom(Poco::Net::StreamSocket& connection) {
    std::string bytes(65'536, '\0');
    bytes.resize(static_cast<std::size_t>(connection.receiveBytes(bytes.data(), static_cast<int>(bytes.size()))));
    return bytes;
  }

 private:
  void take(std::string_view received) {
    if (!received.empty()) {
      (void)BIO_write(received_, received.data(), static_cast<int>(received.size()));
    }
  }

  std::string takeEncrypted() {
    std::string bytes(BIO_ctrl_pending(toSend_), '\0');
    if (!bytes.empty()) {
      (void)BIO_read(toSend_, bytes.data(), static_cast<int>(bytes.size()));
    }
    return bytes;
  }

  net::ContextOwner context_{SSL_CTX_new(TLS_client_method())};
  net::SessionOwner session_;
  BIO* received_ = nullptr;
  BIO* toSend_ = nullptr;
};

}  // namespace keltop
