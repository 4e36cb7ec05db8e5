// A page whose traffic is told by lines on standard input, for the tests and pictures that need many connections or
// exact ones: "open PEER OWN", "received ID HEX", "sent ID HEX", "refused ID REASON", "ended ID HOW". Ends with the
// input.

#include <Poco/HexBinaryDecoder.h>
#include <Poco/MemoryStream.h>
#include <Poco/Net/Net.h>
#include <Poco/StreamCopier.h>

#include <iostream>
#include <sstream>
#include <string>

#include "view/PageServer.h"
#include "view/TrafficLog.h"

namespace {

std::string fromHex(const std::string& hex) {
  Poco::MemoryInputStream stream(hex.data(), static_cast<std::streamsize>(hex.size()));
  Poco::HexBinaryDecoder decoder(stream);
  std::string bytes;
  Poco::StreamCopier::copyToString(decoder, bytes);
  return bytes;
}

keltop::net::ConnectionEnd endOf(const std::string& how) {
  using keltop::net::ConnectionEnd;
  if (how == "reset") {
    return ConnectionEnd::reset;
  }
  if (how == "failed") {
    return ConnectionEnd::failed;
  }
  return how == "here" ? ConnectionEnd::closedHere : ConnectionEnd::closedByPeer;
}

void tell(keltop::view::TrafficLog& log, const std::string& line) {
  std::istringstream words(line);
  std::string what;
  std::string peer;
  std::string text;
  words >> what;
  if (what == "open") {
    words >> peer >> text;
    (void)log.opened(Poco::Net::SocketAddress(peer), Poco::Net::SocketAddress(text));
    return;
  }
  std::uint64_t id = 0;
  words >> id >> std::ws;
  std::getline(words, text);
  if (what == "received") {
    log.received(id, fromHex(text));
  } else if (what == "sent") {
    log.sent(id, fromHex(text));
  } else if (what == "refused") {
    log.refused(id, text);
  } else if (what == "ended") {
    log.ended(id, endOf(text));
  }
}

}  // namespace

int main(int count, char** arguments) {
  Poco::Net::initializeNetwork();
  keltop::view::TrafficLog log;
  const bool raw = count > 1 && std::string(arguments[1]) == "raw";
  keltop::view::PageServer server(log, {.raw = raw, .port = 8080}, count > 2 ? arguments[2] : "0");
  std::cout << server.port() << std::endl;
  std::string line;
  while (std::getline(std::cin, line)) {
    tell(log, line);
  }
  return 0;
}
