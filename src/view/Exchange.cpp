#include "view/Exchange.h"

#include <Poco/Ascii.h>
#include <Poco/Exception.h>
#include <Poco/MemoryStream.h>
#include <Poco/Net/HTTPChunkedStream.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSession.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace keltop::view {

namespace {

using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

/// The length of a head: to the end of its first empty line, where the library's server stops reading it. Nothing where
/// there is none.
std::optional<std::size_t> headLength(const Stream& stream) noexcept {
  const std::string_view bytes = stream.bytes;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = bytes.find('\n', begin);
    if (end == std::string_view::npos) {
      // The library takes what came before the end for the head.
      const bool all = stream.ended && bytes.size() == stream.total && !bytes.empty();
      return all ? std::optional(bytes.size()) : std::nullopt;
    }
    const std::string_view line = bytes.substr(begin, end - begin);
    if (line.empty() || line == "\r") {
      return end + 1;
    }
    begin = end + 1;
  }
}

bool isBlank(char character) noexcept {
  return character == ' ' || character == '\t';
}

std::string_view trim(std::string_view text) noexcept {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return text.substr(0, 0);
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// Takes a line off the text, with its end; lines that begin with a blank continue the one before (RFC 9112, 5.2).
std::string_view takeLine(std::string_view& text, bool folded) noexcept {
  std::size_t end = text.find('\n');
  while (folded && end != std::string_view::npos && end + 1 < text.size() && isBlank(text[end + 1])) {
    end = text.find('\n', end + 1);
  }
  const std::string_view line = text.substr(0, end == std::string_view::npos ? end : end + 1);
  text.remove_prefix(line.size());
  return line;
}

/// Splits a line in three words; in a request the second keeps its blanks, in an answer the third.
void splitFirstLine(std::string_view line, bool request, Message& message) {
  line = trim(line);
  const std::size_t first = std::min(line.find_first_of(" \t"), line.size());
  message.first = line.substr(0, first);
  line = trim(line.substr(first));
  const std::size_t second = std::min(request ? line.find_last_of(" \t") : line.find_first_of(" \t"), line.size());
  message.second = trim(line.substr(0, second));
  message.third = trim(line.substr(second));
}

void splitHead(std::string_view head, bool request, Message& message) {
  message.head = head;
  splitFirstLine(takeLine(head, false), request, message);
  while (!head.empty()) {
    const std::string_view line = takeLine(head, true);
    if (trim(line).empty()) {
      break;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
      message.headers.push_back({trim(line), {}});
    } else {
      message.headers.push_back({line.substr(0, colon), trim(line.substr(colon + 1))});
    }
  }
}

/// A socket from which the library's session receives the bytes at hand.
class MemorySocketImpl : public Poco::Net::StreamSocketImpl {
 public:
  MemorySocketImpl(std::string_view bytes, std::size_t& received) : bytes_(bytes), received_(received) {}

  int receiveBytes(void* buffer, int length, int /*flags*/) override {
    const std::size_t count = std::min(bytes_.size() - received_, static_cast<std::size_t>(length));
    std::memcpy(buffer, bytes_.data() + received_, count);
    received_ += count;
    ranDry_ = ranDry_ || count == 0;
    return static_cast<int>(count);
  }
  void close() override {}
  void setReceiveTimeout(const Poco::Timespan& /*timeout*/) override {}
  void setSendTimeout(const Poco::Timespan& /*timeout*/) override {}
  [[nodiscard]] bool ranDry() const noexcept { return ranDry_; }

 protected:
  ~MemorySocketImpl() override = default;

 private:
  std::string_view bytes_;
  std::size_t& received_;
  bool ranDry_ = false;
};

class MemorySocket : public Poco::Net::StreamSocket {
 public:
  explicit MemorySocket(MemorySocketImpl* impl) : Poco::Net::StreamSocket(impl) {}
};

class MemorySession : public Poco::Net::HTTPSession {
 public:
  explicit MemorySession(const MemorySocket& socket) : Poco::Net::HTTPSession(socket) {}
  ~MemorySession() override = default;
  [[nodiscard]] std::size_t unread() const { return static_cast<std::size_t>(buffered()); }
};

/// Decodes with the library's reader, and counts what of the bytes belongs to the body.
void decodeChunks(Body& body, bool whole) {
  constexpr std::size_t kPart = 8192;
  std::size_t received = 0;
  // The socket shares its ownership; it is asked while the session has it.
  auto* const impl = new MemorySocketImpl(body.wire, received);  // NOLINT(cppcoreguidelines-owning-memory)
  const MemorySocket socket(impl);
  MemorySession session(socket);
  bool failed = false;
  try {
    Poco::Net::HTTPChunkedInputStream chunks(session);
    std::array<char, kPart> part{};
    while (chunks.read(part.data(), kPart) || chunks.gcount() > 0) {
      body.decoded.append(part.data(), static_cast<std::size_t>(chunks.gcount()));
    }
  } catch (const Poco::Exception&) {
    failed = true;  // it ends within a chunk
  }
  const std::string_view taken = body.wire.substr(0, received - std::min(received, session.unread()));
  if (impl->ranDry() || failed) {
    body.end = whole ? BodyEnd::shorter : BodyEnd::coming;
  } else if (taken.ends_with('\n')) {
    body.end = BodyEnd::complete;
    body.wireTotal = taken.size();
  } else {
    body.end = BodyEnd::broken;
  }
}

std::optional<std::uint64_t> announcedLength(const HTTPMessage& parsed) {
  try {
    if (parsed.hasContentLength() && parsed.getContentLength64() >= 0) {
      return static_cast<std::uint64_t>(parsed.getContentLength64());
    }
  } catch (const Poco::Exception&) {  // not a number
  }
  return std::nullopt;
}

/// What follows the head: the body, and what is behind it.
void splitBody(const HTTPMessage& parsed, bool withoutBody, const Stream& stream, Message& message) {
  Body& body = message.body;
  body.wire = stream.bytes.substr(message.head.size());
  body.wireTotal = stream.total - message.head.size();
  if (parsed.getChunkedTransferEncoding()) {
    body.chunked = true;
    decodeChunks(body, stream.ended && stream.bytes.size() == stream.total);
  } else if ((body.announced = announcedLength(parsed))) {
    body.end = body.wireTotal >= *body.announced ? BodyEnd::complete
               : stream.ended                    ? BodyEnd::shorter
                                                 : BodyEnd::coming;
    body.wireTotal = std::min(body.wireTotal, *body.announced);
  } else if (withoutBody) {
    body.wireTotal = 0;
  } else {
    body.end = BodyEnd::unannounced;
  }
  body.wire = body.wire.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(body.wire.size(), body.wireTotal)));
  message.rest = stream.bytes.substr(message.head.size() + body.wire.size());
  message.restTotal = stream.total - message.head.size() - body.wireTotal;
}

template <typename Parsed>
bool parse(std::string_view head, Parsed& parsed) {
  try {
    Poco::MemoryInputStream stream(head.data(), static_cast<std::streamsize>(head.size()));
    parsed.read(stream);
    return true;
  } catch (const Poco::Exception&) {
    return false;
  }
}

std::optional<Message> readRequest(const Stream& received) {
  const auto length = headLength(received);
  HTTPRequest parsed;
  if (!length || !parse(received.bytes.substr(0, *length), parsed)) {
    return std::nullopt;
  }
  Message message;
  splitHead(received.bytes.substr(0, *length), true, message);
  // The methods for which the library reads no body that is not announced.
  const std::string& method = parsed.getMethod();
  const bool withoutBody =
      method == HTTPRequest::HTTP_GET || method == HTTPRequest::HTTP_HEAD || method == HTTPRequest::HTTP_DELETE;
  splitBody(parsed, withoutBody || received.total == *length, received, message);
  return message;
}

void readAnswer(Stream sent, Exchange& exchange) {
  constexpr int kFirstFinal = 200;
  for (;;) {
    const auto length = headLength(sent);
    HTTPResponse parsed;
    if (!length || !parse(sent.bytes.substr(0, *length), parsed)) {
      return;
    }
    if (parsed.getStatus() >= kFirstFinal) {
      exchange.answer.emplace();
      splitHead(sent.bytes.substr(0, *length), false, *exchange.answer);
      splitBody(parsed, sent.total == *length, sent, *exchange.answer);
      return;
    }
    exchange.interim.push_back(sent.bytes.substr(0, *length));
    sent.bytes.remove_prefix(*length);
    sent.total -= *length;
  }
}

std::string unescape(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  const auto digit = [](char character) {
    return Poco::Ascii::isDigit(character) ? character - '0' : Poco::Ascii::toLower(character) - 'a' + 10;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && Poco::Ascii::isHexDigit(text[i + 1]) &&
        Poco::Ascii::isHexDigit(text[i + 2])) {
      result += static_cast<char>(digit(text[i + 1]) * 16 + digit(text[i + 2]));
      i += 2;
    } else {
      result += text[i] == '+' ? ' ' : text[i];
    }
  }
  return result;
}

}  // namespace

std::optional<std::string_view> Message::header(std::string_view name) const noexcept {
  const auto found = std::ranges::find_if(headers, [name](const HeaderLine& line) {
    return std::ranges::equal(
        line.name, name, [](char a, char b) { return Poco::Ascii::toLower(a) == b; }, {},
        [](char c) { return static_cast<char>(Poco::Ascii::toLower(c)); });
  });
  return found == headers.end() ? std::nullopt : std::optional(found->value);
}

Exchange readExchange(const Stream& received, const Stream& sent) {
  Exchange exchange;
  exchange.request = readRequest(received);
  readAnswer(sent, exchange);
  return exchange;
}

bool isTlsHello(std::string_view bytes) noexcept {
  constexpr std::size_t kType = 5;
  return bytes.size() > kType && bytes[0] == '\x16' && bytes[1] == '\x03' && bytes[2] <= '\x04' &&
         bytes[kType] == '\x01';
}

std::vector<std::pair<std::string, std::string>> readForm(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> result;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('&'), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (part.empty()) {
      continue;
    }
    const std::size_t equals = std::min(part.find('='), part.size());
    result.emplace_back(unescape(part.substr(0, equals)), unescape(part.substr(std::min(equals + 1, part.size()))));
  }
  return result;
}

std::string_view queryOf(std::string_view target) noexcept {
  target = target.substr(0, target.find('#'));
  const std::size_t mark = target.find('?');
  return mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
}

}  // namespace keltop::view
