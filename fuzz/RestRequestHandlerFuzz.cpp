// The HTTP handler, run by the network library over the loopback device. A request made of the input's parts must be
// shown to the letter; the input as it stands must get one answer at most, and a console text of bounded length.
//
// Input: a byte of choices; then the bytes that the client sends or, for a made request, the method, the path, the
// query, the number of headers, their names and values, each text ended by a zero byte, and the body.

#include <Poco/Net/HTTPServerConnection.h>
#include <Poco/Net/HTTPServerParams.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "servers/RestRequestHandler.h"
#include "servers/RestRequestHandlerFactory.h"
#include "support/Check.h"
#include "support/Connection.h"
#include "support/Console.h"
#include "support/Input.h"

namespace keltop::fuzz {

namespace {

constexpr std::uint8_t kMadeRequest = 1;
constexpr std::uint8_t kMoreBehindIt = 2;
constexpr std::uint8_t kLongBody = 4;

constexpr std::size_t kLongestBody = 40'000;
constexpr std::size_t kMostHeaders = 20;
constexpr std::size_t kLongestName = 40;
constexpr std::size_t kLongestMethod = 20;

/// A request, and what the console must show of it.
struct MadeRequest {
  std::string sent;
  std::string decodedPath;
  std::string shownHead;
  std::string query;
  std::string body;
};

std::string lettersOf(const std::string& text, std::size_t most) {
  static constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string letters;
  for (const char character : text.substr(0, most)) {
    letters += kLetters[static_cast<unsigned char>(character) % kLetters.size()];
  }
  return letters;
}

bool isPlain(char character) {
  return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') || character == '.';
}

void makePath(const std::string& text, MadeRequest& request, std::string& path) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  path = "/";
  request.decodedPath = "/";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool foreign = byte <= 0x20 || byte >= 0x7F;
    const char plain = foreign || isPlain(character) ? character : '_';
    request.decodedPath += plain;
    path += foreign ? std::string{'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]} : std::string{plain};
  }
}

MadeRequest makeRequest(Input& input, bool longBody) {
  MadeRequest request;
  const std::string method = "M" + lettersOf(input.text(), kLongestMethod);
  std::string path;
  makePath(input.text().substr(0, 1000), request, path);
  request.query = lettersOf(input.text(), 1000);
  request.shownHead = method + " " + path + (request.query.empty() ? "" : "?" + request.query) + " HTTP/1.1\n";
  const std::size_t headers = input.byte() % kMostHeaders;
  for (std::size_t i = 0; i < headers; ++i) {
    // No name twice: the library puts headers of one name together.
    const std::string name = "X" + std::to_string(i) + "-" + lettersOf(input.text(), kLongestName);
    request.shownHead += name + ": v" + lettersOf(input.text(), kLongestName) + "\n";
  }
  const std::string piece = input.rest();
  request.body = piece;
  while (longBody && !piece.empty() && request.body.size() + piece.size() < kLongestBody) {
    request.body += piece;
  }
  request.shownHead += "Content-Length: " + std::to_string(request.body.size()) + "\n";
  for (const char character : request.shownHead) {
    request.sent += character == '\n' ? "\r\n" : std::string{character};
  }
  request.sent += "\r\n" + request.body;
  return request;
}

void serveRequests(const Poco::Net::StreamSocket& socket) {
  static const auto factory = Poco::makeShared<RestRequestHandlerFactory>();
  Poco::Net::HTTPServerConnection(socket, Poco::makeAuto<Poco::Net::HTTPServerParams>(), factory).run();
}

std::string withoutDate(std::string text) {
  const std::size_t date = text.rfind("\r\nDate: ");
  check(date != std::string::npos, "no date in " + shown(text));
  const std::size_t end = text.find("\r\n", date + 2);
  check(end == date + 37, "not a date in " + shown(text));
  return text.erase(date, end - date);
}

std::string answerHeaders(const std::string& server, std::string_view connection) {
  return std::string("\r\nConnection: ")
      .append(connection)
      .append("\r\nContent-Language: en\r\nUser-Agent: Vantrel/8.0.26 KELTOP\r\nAccess-Control-Allow-Origin: *\r\n")
      .append("Location: " + server + "\r\n\r\n");
}

void checkMade(const MadeRequest& request, const std::string& client, const std::string& server,
               const std::string& console, const std::string& answer) {
  const std::string expected = "Connected:\n  Client: " + client + "\n  Server: " + server +
                               "\n  Path: " + request.decodedPath + "\n  Query: " + request.query + "\n\r\nRequest:\n" +
                               request.shownHead + "\n" + (request.body.empty() ? "" : request.body + "\n") +
                               "\r\nResponse:\n200 OK HTTP/1.1" + answerHeaders(server, "close") + "\r\n\n";
  checkEqual("the console", expected, withoutDate(console));
  checkEqual("the answer", "HTTP/1.1 200 OK" + answerHeaders(server, "Close"), withoutDate(answer));
}

/// The first line of an answer without its version, which is the client's, whatever that is.
std::string statusOf(const std::string& answer) {
  const std::string line = answer.substr(0, answer.find("\r\n"));
  const std::size_t blank = line.find(' ');
  return blank == std::string::npos ? "" : line.substr(blank + 1);
}

/// What holds for whatever a client sends.
void checkAny(std::size_t sent, bool ran, const std::string& console, std::string answer) {
  constexpr std::size_t kOwnTexts = 1000;
  constexpr std::size_t kTimesShown = 5;  // decoded, and encoded again with three characters for one
  check(console.size() <= kTimesShown * sent + kOwnTexts, "an endless console text");
  check(answer.size() <= kOwnTexts, "an endless answer: " + shown(answer));
  if (statusOf(answer) == "100 Continue") {
    answer.erase(0, answer.find("\r\n\r\n") + 4);
  }
  const std::string status = statusOf(answer);
  if (status == "200 OK") {
    check(answer.find("\r\n\r\n") == answer.size() - 4, "more than a head: " + shown(answer));
    check(console.starts_with("Connected:\n  Client: 127.0.0.1:"), "the console's begin: " + shown(console));
    check(console.ends_with("\r\n\r\n\r\n\n"), "the console's end: " + shown(console));
    check(console.find("\r\nResponse:\n200 OK ") != std::string::npos, "no response shown");
    check(ran, "an answer and a failure");
  } else {
    check(console.empty() || console.starts_with("Connected:\n"), "the console without an answer: " + shown(console));
    check(!console.ends_with("\r\n\r\n\r\n\n"), "shown as answered, and is not: " + shown(console));
    check(answer.empty() || status.starts_with('4') || status.starts_with('5'),
          "an answer of another kind: " + shown(answer));
  }
}

void run(Input input) {
  static Console console;
  const std::uint8_t choices = input.byte();
  const bool made = (choices & kMadeRequest) != 0;
  const MadeRequest request = made ? makeRequest(input, (choices & kLongBody) != 0) : MadeRequest{.sent = input.rest()};
  Connection peers;
  const std::string client = peers.client.address().toString();
  const std::string server = peers.server.address().toString();
  peers.send(request.sent);
  if (made && (choices & kMoreBehindIt) != 0) {
    peers.send("GET /second HTTP/1.1\r\nHost: a\r\n\r\n");
  }
  peers.client.shutdownSend();
  const bool ran = serves([&] { serveRequests(peers.server); });
  peers.server.close();
  const std::string answer = peers.received();
  if (made) {
    check(ran, "the request failed");
    checkMade(request, client, server, console.take(), answer);
  } else {
    checkAny(request.sent.size(), ran, console.take(), answer);
  }
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
