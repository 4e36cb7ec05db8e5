// What the live page gives of traffic, told to the log in pieces: events, each connection, its pieces and the archive
// must be valid JSON in ASCII, and the bytes must come back whole.
//
// Input: a byte of choices; then, for the received and the sent stream, two bytes for the length of the first and the
// bytes, which are cut into pieces of a length that the choices give.

#include <Poco/JSON/Parser.h>
#include <Poco/Net/SocketAddress.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/Check.h"
#include "view/ConnectionJson.h"
#include "view/HttpArchive.h"
#include "view/Overviews.h"
#include "view/TrafficLog.h"

namespace keltop::fuzz {

namespace {

constexpr std::uint8_t kRaw = 1;
constexpr std::uint8_t kEnded = 2;
constexpr std::uint8_t kPieces = 4;
constexpr std::uint8_t kRefused = 8;
constexpr std::size_t kPiece = 7;

void checkJson(std::string_view what, const std::string& json) {
  for (const char character : json) {
    check(character >= ' ' && character < '\x7F', what);
  }
  // The library's parser takes a zero character for the end of a text.
  std::string parsed = json;
  for (std::size_t at = 0; (at = parsed.find("\\u0000", at)) != std::string::npos; ++at) {
    const std::size_t end = parsed.find_last_not_of('\\', at);
    if ((at - std::min(at, end)) % 2 == 1) {
      parsed[at + 5] = '1';
    }
  }
  try {
    (void)Poco::JSON::Parser().parse(parsed);
  } catch (const Poco::Exception& error) {
    fail(std::string(what).append(" is no JSON: ").append(error.displayText()).append("\n").append(shown(json)));
  }
}

void tell(view::TrafficLog& log, std::uint64_t id, std::string_view bytes, bool received, std::size_t piece) {
  while (!bytes.empty()) {
    const std::string_view part = bytes.substr(0, piece);
    bytes.remove_prefix(part.size());
    received ? log.received(id, part) : log.sent(id, part);
  }
}

}  // namespace

void run(std::string_view input) {
  if (input.size() < 3) {
    return;
  }
  const auto choices = static_cast<std::uint8_t>(input[0]);
  const std::size_t length = static_cast<unsigned char>(input[1]) * 256U + static_cast<unsigned char>(input[2]);
  const std::string_view received = input.substr(3, length);
  const std::string_view sent = input.substr(3 + received.size());
  view::TrafficLog log({std::size_t{1} << 20U, 1 << 16, 10});
  view::Overviews overviews(log, (choices & kRaw) != 0);
  const auto id = log.opened(Poco::Net::SocketAddress("10.0.0.7:1"), Poco::Net::SocketAddress("10.0.0.2:2"));
  const std::size_t piece = (choices & kPieces) != 0 ? kPiece : input.size();
  tell(log, id, received, true, piece);
  tell(log, id, sent, false, piece);
  if ((choices & kRefused) != 0) {
    log.refused(id, received);
  }
  if ((choices & kEnded) != 0) {
    log.ended(id, net::ConnectionEnd::closedHere);
  }
  std::uint64_t change = 0;
  checkJson("an event", view::changesJson(log, overviews, change).value_or(""));
  checkJson("a connection", view::connectionJson(log, overviews, id).value_or(""));
  checkJson("the pieces", view::piecesJson(log, id, 0));
  checkJson("a search", view::searchJson(log, std::string(received.substr(0, 5)), 0));
  if (const std::string exchange = view::archivedExchange(log, id); !exchange.empty()) {
    checkJson("an exchange", exchange);
  }
  checkEqual("what was received", received, log.bytes(id, view::Direction::received, received.size() + 1));
  checkEqual("what was sent", sent, log.bytes(id, view::Direction::sent, sent.size() + 1));
}

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
