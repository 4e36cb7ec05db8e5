#include "net/SecureSocket.h"

#include <Poco/Net/SSLException.h>
#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace keltop::net {

namespace {

using Poco::Timespan;
using Poco::Net::SSLException;
using std::chrono::steady_clock;

constexpr auto kHandshakeLimit = std::chrono::seconds(10);
constexpr const char* kHandshakeTooSlow = "no TLS handshake within 10 seconds";

/// What is received and sent at a time: two records of the greatest size.
constexpr std::size_t kPiece = std::size_t{33} * 1024;

/// During a handshake, what a socket that can be written takes without waiting.
constexpr std::size_t kHandshakePiece = 4096;

Timespan timeUntil(steady_clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - steady_clock::now());
  return {std::max<Timespan::TimeDiff>(left.count(), 0) * Timespan::MILLISECONDS};
}

}  // namespace

MakeAcceptedSocket makeSecureSockets(const SecureIdentity& identity, HandshakeFailed failed) {
  return [context = makeServerContext(identity), failed = std::move(failed)](const NewConnection& connection) {
    return Poco::AutoPtr<AcceptedSocket>(new SecureSocket(connection, context, failed));
  };
}

SecureSocket::SecureSocket(const NewConnection& connection, std::shared_ptr<SSL_CTX> context, HandshakeFailed failed)
    : AcceptedSocket(connection), context_(std::move(context)), failed_(std::move(failed)) {}

SecureSocket::~SecureSocket() {
  sayFarewell();
}

bool SecureSocket::begin() {
  handshakeLimit_ = steady_clock::now() + kHandshakeLimit;
  session_.reset(SSL_new(context_.get()));
  StreamOwner received(BIO_new(BIO_s_mem()));
  StreamOwner toSend(BIO_new(BIO_s_mem()));
  if (!session_ || !received || !toSend) {
    throw SSLException(takeSecureError());
  }
  received_ = received.release();
  toSend_ = toSend.release();
  SSL_set_bio(session_.get(), received_, toSend_);
  SSL_set_accept_state(session_.get());
  if (!failed_) {
    return true;
  }
  shakeHands();
  if (!failure_) {
    return true;
  }
  try {
    std::rethrow_exception(failure_);
  } catch (const Poco::Exception& error) {
    failed_(error);
  }
  return false;
}

bool SecureSocket::poll(const Timespan& timeout, int mode) {
  if ((mode & SELECT_READ) == 0) {
    return AcceptedSocket::poll(timeout, mode);
  }
  const Time deadline = steady_clock::now() + std::chrono::microseconds(timeout.totalMicroseconds());
  while (!somethingToGive()) {
    const Time limit = shaken_ ? deadline : std::min(deadline, handshakeLimit_);
    if (!waitForPeer(limit, mode) && steady_clock::now() >= deadline) {
      return false;
    }
  }
  return true;
}

void SecureSocket::close() {
  sayFarewell();
  AcceptedSocket::close();
}

SecureSocket::ShutdownResult SecureSocket::shutdownSend() {
  sayFarewell();
  return AcceptedSocket::shutdownSend();
}

int SecureSocket::receiveSome(char* buffer, int length, int /*flags*/) {
  shakeHands();
  for (;;) {
    if (const int count = readWhatCame(buffer, length); count > 0) {
      return count;
    }
    if (failure_) {
      std::rethrow_exception(failure_);
    }
    if (ended_) {
      return 0;
    }
    takeFromPeer();
  }
}

int SecureSocket::sendSome(const char* bytes, int length, int /*flags*/) {
  shakeHands();
  if (failure_) {
    std::rethrow_exception(failure_);
  }
  ERR_clear_error();
  const int taken = SSL_write(session_.get(), bytes, std::min(length, static_cast<int>(kPiece)));
  if (taken <= 0) {
    throw SSLException(takeSecureError());
  }
  giveToPeer();
  return taken;
}

/// Waits for the handshake's end, which its failure is as well.
void SecureSocket::shakeHands() {
  while (!handshakeOver()) {
    (void)waitForPeer(handshakeLimit_, SELECT_READ);
  }
}

/// As far as it goes with what has been received.
bool SecureSocket::handshakeOver() {
  if (shaken_ || failure_) {
    return true;
  }
  ERR_clear_error();
  const int result = SSL_do_handshake(session_.get());
  const int reason = SSL_get_error(session_.get(), result);
  try {
    if (reason == SSL_ERROR_SSL || reason == SSL_ERROR_SYSCALL) {
      fail(std::make_exception_ptr(SSLException(takeSecureError())));
    }
    giveToPeer();  // also the alert that says why it failed
    if (reason == SSL_ERROR_WANT_READ && cutOff_) {
      throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
    }
    if (reason == SSL_ERROR_WANT_READ && steady_clock::now() >= handshakeLimit_) {
      throw SSLException(kHandshakeTooSlow);
    }
    shaken_ = reason == SSL_ERROR_NONE;
  } catch (const Poco::Exception&) {
    fail(std::current_exception());
  }
  return shaken_ || failure_;
}

/// Bytes, the peer's end, or a failure; a record that is not complete yet is none of them.
bool SecureSocket::somethingToGive() {
  if (!handshakeOver()) {
    return false;
  }
  if (failure_ || ended_) {
    return true;
  }
  char first = 0;
  ERR_clear_error();
  const int result = SSL_peek(session_.get(), &first, 1);
  if (result > 0) {
    return true;
  }
  noteResult(result);
  return failure_ || ended_;
}

/// From as many records as have come whole; 0 where none has, or where the end or a failure has been noted.
int SecureSocket::readWhatCame(char* buffer, int length) {
  int count = 0;
  while (count < length && !failure_ && !ended_) {
    ERR_clear_error();
    const int result = SSL_read(session_.get(), buffer + count, length - count);
    if (result <= 0) {
      noteResult(result);
      break;
    }
    count += result;
  }
  return count;
}

/// Of a read that gave nothing.
void SecureSocket::noteResult(int result) {
  switch (SSL_get_error(session_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      ended_ = cutOff_;
      break;
    case SSL_ERROR_ZERO_RETURN:
      ended_ = true;
      break;
    default:
      fail(std::make_exception_ptr(SSLException(takeSecureError())));
      break;
  }
  try {
    giveToPeer();  // an alert, or the answer to a change of keys
  } catch (const Poco::Exception&) {
    fail(std::current_exception());
  }
}

/// True when something has been received, or the connection has failed.
bool SecureSocket::waitForPeer(Time until, int mode) {
  try {
    if (!AcceptedSocket::poll(timeUntil(until), mode)) {
      return false;
    }
    takeFromPeer();
  } catch (const Poco::Exception&) {
    fail(std::current_exception());
  }
  return true;
}

void SecureSocket::takeFromPeer() {
  std::array<char, kPiece> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by the receive
  const int count = AcceptedSocket::receiveSome(piece.data(), static_cast<int>(piece.size()), 0);
  cutOff_ = count == 0;
  if (count > 0 && BIO_write(received_, piece.data(), count) != count) {
    throw Poco::OutOfMemoryException();
  }
}

void SecureSocket::giveToPeer() {
  std::array<char, kPiece> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by the read
  while (BIO_ctrl_pending(toSend_) > 0) {
    const std::size_t room = shaken_ ? piece.size() : kHandshakePiece;
    const int count = BIO_read(toSend_, piece.data(), static_cast<int>(room));
    for (int sent = 0; sent < count;) {
      if (!shaken_ && !AcceptedSocket::poll(timeUntil(handshakeLimit_), SELECT_WRITE)) {
        throw SSLException(kHandshakeTooSlow);
      }
      sent += AcceptedSocket::sendSome(piece.data() + sent, count - sent, 0);
    }
  }
}

/// TLS's close notify (RFC 8446, section 6.1), once. Nobody waits for a peer that does not read.
void SecureSocket::sayFarewell() noexcept {
  if (!shaken_ || failure_ || std::exchange(farewell_, true) || !initialized()) {
    return;
  }
  try {
    ERR_clear_error();
    (void)SSL_shutdown(session_.get());
    if (AcceptedSocket::poll(Timespan(), SELECT_WRITE)) {
      giveToPeer();
    }
  } catch (const Poco::Exception&) {
    // The peer has gone already.
  }
  ERR_clear_error();
}

void SecureSocket::fail(std::exception_ptr failure) noexcept {
  if (failure_) {
    return;
  }
  failure_ = std::move(failure);
  if (shaken_) {
    return;
  }
  try {
    std::rethrow_exception(failure_);
  } catch (const Poco::Exception& error) {
    tellRefused(error.displayText());
  }
}

}  // namespace keltop::net
