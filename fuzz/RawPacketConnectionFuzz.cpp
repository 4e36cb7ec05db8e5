// The raw connection over the loopback device: every byte but the zeros is on the console, in order, between the two
// lines that tell of the peer, however the bytes came.
//
// Input: a byte of choices, a byte for how often the text is repeated, then the text that the peer sends.

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>

#include "servers/RawPacketConnection.h"
#include "support/Check.h"
#include "support/Connection.h"
#include "support/Console.h"
#include "support/Input.h"
#include "support/ObjectFolder.h"

namespace keltop::fuzz {

namespace {

constexpr std::uint8_t kInPieces = 1;
constexpr std::uint8_t kReset = 2;

/// Enough for texts that are longer than what is read ahead.
constexpr std::size_t kLongestText = 300'000;

/// Sends what it is given while the connection runs, in pieces of different sizes; then closes or resets it.
void sendInPieces(Connection& peers, const std::string& text, bool reset) {
  std::size_t at = 0;
  for (std::size_t piece = 1; at < text.size(); piece = piece * 5 % 65'537 + 1) {
    peers.send(std::string_view(text).substr(at, piece));
    at += piece;
  }
  if (reset) {
    peers.client.setLinger(true, 0);
    peers.client.close();
  } else {
    peers.client.shutdownSend();
  }
}

std::string withoutZeros(std::string text) {
  std::erase(text, '\0');
  return text;
}

/// A reset may overtake bytes, and even the look at the peer's address. What is shown is a beginning of what was sent.
void checkReset(bool ran, const std::string& console, const std::string& peer, const std::string& shownText) {
  if (!ran) {
    checkEqual("the console of a connection that was reset at once", "", console);
    return;
  }
  const std::string begin = "\r\nConnect from " + peer + "\n";
  const std::string end = "\r\nClosing connection to " + peer + "\n";
  check(console.starts_with(begin) && console.ends_with(end), "a reset connection's lines: " + shown(console));
  const std::string middle = console.substr(begin.size(), console.size() - begin.size() - end.size());
  const std::size_t error = middle.rfind("Error: ");
  check(error != std::string::npos, "no error line: " + shown(middle));
  check(shownText.starts_with(middle.substr(0, error)), "bytes that were not sent: " + shown(middle));
}

void run(Input input) {
  static Console console;
  (void)objectFolder();
  const std::uint8_t choices = input.byte();
  const std::size_t times = input.byte();
  const std::string piece = input.rest();
  std::string text = piece;
  for (std::size_t i = 0; i < times * times && text.size() + piece.size() < kLongestText; ++i) {
    text += piece;
  }
  Connection peers;
  const std::string peer = peers.client.address().toString();
  std::thread sender;
  const bool reset = (choices & kReset) != 0;
  if ((choices & kInPieces) != 0 || reset || text.size() > 60'000) {
    sender = std::thread([&] { sendInPieces(peers, text, reset); });
  } else {
    peers.send(text);
    peers.client.shutdownSend();
  }
  const bool ran = serves([&] { RawPacketConnection(peers.server).run(); });
  if (sender.joinable()) {
    sender.join();
  }
  const std::string shownText = withoutZeros(text);
  if (reset) {
    checkReset(ran, console.take(), peer, shownText);
    return;
  }
  check(ran, "the connection failed");
  checkEqual("the console", "\r\nConnect from " + peer + "\n" + shownText + "\r\nDisconnect from " + peer + "\n",
             console.take());
  peers.server.close();
  checkEqual("what the peer was sent", "", peers.received());
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
