#include "posts/TlsSocket.h"

#include <Poco/Exception.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/Socket.h>
#include <openssl/err.h>

#include <array>
#include <utility>

namespace keltop {

namespace {

/// What TLS itself finds wrong, in its library's words.
[[noreturn]] void throwFailure() {
  std::array<char, 256> text = {};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  throw Poco::Net::SSLException(text.data());
}

}  // namespace

TlsSocket::TlsSocket(Poco::Net::Context::Ptr context, std::string host)
    : context_(std::move(context)), host_(std::move(host)) {}

TlsSocket::~TlsSocket() {
  TlsSocket::close();
}

void TlsSocket::connect(const Poco::Net::SocketAddress& address, const Poco::Timespan& timeout) {
  StreamSocketImpl::connect(address, timeout);
  setBlocking(false);  // waiting is done here, where an interrupted wait is not taken for one that ran out
  session_.reset(SSL_new(context_->sslContext()));
  if (session_ == nullptr || SSL_set_fd(session_.get(), static_cast<int>(sockfd())) != 1 ||
      SSL_ctrl(session_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, host_.data()) != 1) {
    throwFailure();
  }
  if (complete(timeout, [this] { return SSL_connect(session_.get()); }) == 0) {
    throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
  }
  // Servers that close without a farewell are common. In the handshake it is a failure all the same.
  (void)SSL_set_options(session_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
}

int TlsSocket::sendBytes(const void* data, int length, int /*flags*/) {
  if (length > 0 && complete(getSendTimeout(), [&] { return SSL_write(session_.get(), data, length); }) == 0) {
    throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
  }
  return length;
}

int TlsSocket::receiveBytes(void* buffer, int length, int /*flags*/) {
  return complete(getReceiveTimeout(), [&] { return SSL_read(session_.get(), buffer, length); });
}

void TlsSocket::close() {
  if (session_ != nullptr && SSL_is_init_finished(session_.get()) == 1) {
    (void)SSL_shutdown(session_.get());  // says farewell, and waits for none
    ERR_clear_error();
  }
  session_.reset();
  StreamSocketImpl::close();
}

template <typename Step>
int TlsSocket::complete(const Poco::Timespan& timeout, Step step) {
  for (;;) {
    ERR_clear_error();
    const int result = step();
    const int socketError = lastError();
    if (result > 0) {
      return result;
    }
    switch (SSL_get_error(session_.get(), result)) {
      case SSL_ERROR_WANT_READ:
        await(Poco::Net::Socket::SELECT_READ, timeout);
        break;
      case SSL_ERROR_WANT_WRITE:
        await(Poco::Net::Socket::SELECT_WRITE, timeout);
        break;
      case SSL_ERROR_ZERO_RETURN:
        return 0;
      case SSL_ERROR_SYSCALL:
        error(socketError);
        [[fallthrough]];
      default:
        throwFailure();
    }
  }
}

void TlsSocket::await(int mode, const Poco::Timespan& timeout) {
  if (!poll(timeout, mode)) {
    throw Poco::TimeoutException();
  }
}

}  // namespace keltop
