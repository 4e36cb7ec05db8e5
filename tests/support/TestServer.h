#pragma once

#include <Poco/Net/Net.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace keltop {

/// What a server of the tests says, how, and how it ends.
struct ServerScript {
  enum class Speech { kPlain, kTls, kTlsWithoutNotify };
  enum class End { kClose, kReset, kStall };

  Speech speech = Speech::kPlain;
  End end = End::kClose;
  /// 0 for the newest version that both sides speak.
  int tlsVersion = 0;
  /// What the request ends with: it is read to there before the answer is sent.
  std::string requestEnd;
  std::string answer;
};

/// Takes one connection and does what the script says. One that stalls keeps its connection open for as long as the
/// server lives.
class TestServer {
 public:
  explicit TestServer(ServerScript script) : script_(std::move(script)), listening_(address()) {
    serving_ = std::async(std::launch::async, [this] { serve(); });
  }
  ~TestServer() {
    over_.set_value();
    serving_.get();
  }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return listening_.address().port(); }

 private:
  template <auto Free>
  struct Freeing {
    template <typename Object>
    void operator()(Object* object) const noexcept {
      Free(object);
    }
  };
  using Context = std::unique_ptr<SSL_CTX, Freeing<SSL_CTX_free>>;
  using Session = std::unique_ptr<SSL, Freeing<SSL_free>>;

  static Poco::Net::SocketAddress address() { return {"127.0.0.1", 0}; }

  /// With a certificate that nobody should trust.
  [[nodiscard]] Context makeContext() const {
    Context context(SSL_CTX_new(TLS_server_method()));
    const std::unique_ptr<EVP_PKEY, Freeing<EVP_PKEY_free>> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const std::unique_ptr<X509, Freeing<X509_free>> certificate(X509_new());
    constexpr long kHour = 3600;
    (void)X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kHour);
    (void)X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kHour);
    (void)X509_set_pubkey(certificate.get(), key.get());
    EXPECT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
    EXPECT_EQ(SSL_CTX_use_certificate(context.get(), certificate.get()), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey(context.get(), key.get()), 1);
    (void)SSL_CTX_ctrl(context.get(), SSL_CTRL_SET_MAX_PROTO_VERSION, script_.tlsVersion, nullptr);
    return context;
  }

  template <typename Receive>
  void readRequest(Receive receive) const {
    std::string request;
    std::array<char, 4096> piece = {};
    while (!request.ends_with(script_.requestEnd)) {
      const int count = receive(piece.data(), static_cast<int>(piece.size()));
      ASSERT_GT(count, 0) << request;
      request.append(piece.data(), static_cast<std::size_t>(count));
    }
  }

  void serve() {
    Poco::Net::StreamSocket connection = listening_.acceptConnection();
    const Context context = makeContext();
    const Session session(SSL_new(context.get()));
    if (script_.speech == ServerScript::Speech::kPlain) {
      readRequest([&](char* into, int length) { return connection.receiveBytes(into, length); });
      connection.sendBytes(script_.answer.data(), static_cast<int>(script_.answer.size()));
    } else {
      serveSecurely(session.get(), connection);
    }
    if (script_.end == ServerScript::End::kStall) {
      over_.get_future().wait();
    } else if (script_.end == ServerScript::End::kReset) {
      connection.setLinger(true, 0);
    } else if (script_.speech == ServerScript::Speech::kTls) {
      (void)SSL_shutdown(session.get());
    }
    connection.close();
  }

  void serveSecurely(SSL* session, const Poco::Net::StreamSocket& connection) const {
    ASSERT_EQ(SSL_set_fd(session, static_cast<int>(connection.impl()->sockfd())), 1);
    ASSERT_EQ(SSL_accept(session), 1);
    readRequest([session](char* into, int length) { return SSL_read(session, into, length); });
    if (!script_.answer.empty()) {
      ASSERT_GT(SSL_write(session, script_.answer.data(), static_cast<int>(script_.answer.size())), 0);
    }
  }

  ServerScript script_;
  Poco::Net::ServerSocket listening_;
  std::promise<void> over_;
  std::future<void> serving_;
};

}  // namespace keltop
