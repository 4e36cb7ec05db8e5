// What a TLS server's connection receives: a client's own messages, whole or spoilt, in pieces, and any other bytes. No
// byte is given that the client has not sent, in its order; an honest client's are all given; and the connection ends.
//
// Input: a byte of choices, then steps: a byte that says what is done, and what that takes.

#include <Poco/Exception.h>
#include <Poco/Timespan.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "net/ConnectionGroup.h"
#include "net/ListeningSocket.h"
#include "net/SecureSocket.h"
#include "support/Check.h"
#include "support/Input.h"
#include "support/SecureClient.h"
#include "support/Sockets.h"

namespace keltop::fuzz {

namespace {

using Poco::Timespan;
using Poco::Net::StreamSocket;

constexpr std::uint8_t kOldVersion = 1;
constexpr std::uint8_t kShakenFirst = 2;

enum Step : std::uint8_t { goOn, text, longText, anyBytes, spoil, leaveOut, piece, changeKeys, farewell, kSteps };

/// How long a connection may take to end when its peer has.
const Timespan kPatience(5, 0);

net::ListeningSocket& listener() {
  static Poco::AutoPtr<net::ListeningSocket> made = [] {
    ignoreBrokenPipes();
    auto listening =
        Poco::makeAuto<net::ListeningSocket>(std::make_shared<net::ConnectionGroup>(nullptr),
                                             net::makeSecureSockets(net::SecureIdentity::makeOwn(), nullptr), 1000);
    listening->listenOn(0, 64, {.send = kPatience, .receive = kPatience});
    return listening;
  }();
  return *made;
}

class Conversation {
 public:
  explicit Conversation(bool oldVersion)
      : client_(oldVersion ? TLS1_2_VERSION : TLS1_3_VERSION),
        plain_(Poco::Net::SocketAddress("127.0.0.1", listener().address().port())) {
    Poco::AutoPtr<net::AcceptedSocket> accepted;
    while (!accepted) {
      accepted = listener().next();
    }
    check(accepted->begin(), "a connection that does not begin");
    server_ = StreamSocket(accepted.duplicate());
  }

  void take(Step step, Input& input) {
    switch (step) {
      case goOn:
        shakeHands();
        break;
      case text:
      case longText:
        say(step == text ? input.text() : std::string(std::size_t{200} * input.byte(), 'x'));
        break;
      case anyBytes:
        honest_ = false;
        toSend_ += input.text();
        break;
      case spoil:
        if (const std::size_t at = input.byte(); at < toSend_.size()) {
          honest_ = false;
          toSend_[at] = static_cast<char>(toSend_[at] ^ (input.byte() | 1));
        }
        break;
      case leaveOut:
        if (const std::size_t at = input.byte(); at < toSend_.size()) {
          honest_ = false;
          toSend_.erase(at, std::size_t{1} + input.byte());
        }
        break;
      case piece:
        send(input.byte());
        break;
      case changeKeys:
        toSend_ += client_.changeKeys();
        break;
      case farewell:
        toSend_ += client_.sayFarewell();
        gone_ = true;
        break;
      case kSteps:
        break;
    }
  }

  /// Honest, as far as it goes.
  void shakeHands() {
    toSend_ += client_.shakeHands(answers());
    send(toSend_.size());
    look(Timespan());
  }

  [[nodiscard]] bool shaken() const { return client_.shaken(); }

  void end() {
    send(toSend_.size());
    plain_.shutdownSend();
    while (!ended_) {
      check(look(kPatience), "a connection that does not end with its peer");
    }
    if (honest_ && client_.shaken()) {
      checkEqual("what an honest client sent", said_, given_);
    }
  }

 private:
  void say(const std::string& words) {
    if (client_.shaken() && !gone_ && !words.empty()) {
      toSend_ += client_.encrypt(words);
      said_ += words;
    }
  }

  void send(std::size_t count) {
    count = std::min(count, toSend_.size());
    if (count > 0 && !ended_) {
      try {
        SecureClient::sendTo(plain_, std::string_view(toSend_).substr(0, count));
      } catch (const Poco::Exception&) {
        honest_ = false;  // the server has closed
      }
    }
    toSend_.erase(0, count);
    look(Timespan());
  }

  std::string answers() {
    return plain_.poll(Timespan(), StreamSocket::SELECT_READ) ? SecureClient::receiveFrom(plain_) : std::string();
  }

  /// As a handler: whether there was something.
  bool look(const Timespan& time) {
    std::array<char, 1000> bytes = {};
    try {
      if (ended_ || !server_.poll(time, StreamSocket::SELECT_READ)) {
        return ended_;
      }
      const int count = server_.receiveBytes(bytes.data(), static_cast<int>(bytes.size()));
      ended_ = count == 0;
      given_.append(bytes.data(), static_cast<std::size_t>(std::max(count, 0)));
    } catch (const Poco::Exception&) {
      ended_ = true;
    }
    check(said_.starts_with(given_), "bytes that were not sent: " + shown(given_));
    return true;
  }

  SecureClient client_;
  StreamSocket plain_;
  StreamSocket server_;
  std::string toSend_;
  std::string said_;
  std::string given_;
  bool honest_ = true;
  bool gone_ = false;
  bool ended_ = false;
};

void run(Input input) {
  const std::uint8_t choices = input.byte();
  Conversation conversation((choices & kOldVersion) != 0);
  for (int i = 0; (choices & kShakenFirst) != 0 && !conversation.shaken() && i < 10; ++i) {
    conversation.shakeHands();
  }
  while (!input.atEnd()) {
    conversation.take(static_cast<Step>(input.byte() % kSteps), input);
  }
  conversation.end();
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
