#include "view/HttpArchive.h"

#include <Poco/Ascii.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/NumberFormatter.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "product/Version.h"
#include "view/Exchange.h"
#include "view/Json.h"
#include "view/Overviews.h"

namespace keltop::view {

namespace {

constexpr std::size_t kHeadAtHand = std::size_t{1} << 20U;
constexpr double kMicrosecondsInMillisecond = 1000;

/// RFC 3986: of the characters that may stand in a path or a query, those that are no letters or digits.
constexpr std::string_view kUriMarks = "-._~!$&'()*+,;=:@/?";

/// A target as a path that is valid whatever it is: what must not stand in an address is escaped.
std::string uriPath(std::string_view target) {
  std::string path;
  if (!target.starts_with('/')) {
    path += '/';
  }
  for (std::size_t i = 0; i < target.size(); ++i) {
    const char character = target[i];
    const bool escape = character == '%' && i + 2 < target.size() && Poco::Ascii::isHexDigit(target[i + 1]) &&
                        Poco::Ascii::isHexDigit(target[i + 2]);
    if (escape || Poco::Ascii::isAlphaNumeric(character) || kUriMarks.find(character) != std::string_view::npos) {
      path += character;
    } else {
      path.append("%").append(Poco::NumberFormatter::formatHex(static_cast<unsigned char>(character), 2));
    }
  }
  return path;
}

/// Milliseconds with their fraction, as a JSON number.
void writeMilliseconds(JsonWriter& json, Microseconds time) {
  json.number(static_cast<double>(time) / kMicrosecondsInMillisecond);
}

void writeHeaders(JsonWriter& json, const Message& message) {
  json.name("headers").beginArray();
  for (const HeaderLine& line : message.headers) {
    json.beginObject().name("name").text(line.name).name("value").text(line.value).endObject();
  }
  json.endArray().name("cookies").beginArray().endArray();
  json.name("headersSize").number(std::uint64_t{message.head.size()});
  json.name("bodySize").number(message.body.wireTotal);
}

std::string_view mimeType(const Message& message) noexcept {
  return message.header("content-type").value_or("application/octet-stream");
}

/// The body's text, or base64 where it is none; `encoding` names the member that says so.
void writeContent(JsonWriter& json, const Message& message, std::string_view encoding) {
  const std::string_view content = message.body.content();
  const std::string_view part = content.substr(0, kArchivedBody);
  json.name("mimeType").text(mimeType(message)).name("text");
  if (isText(part)) {
    json.text(part);
  } else {
    json.base64(part).name(encoding).text("base64");
  }
  const std::uint64_t size = message.body.chunked ? content.size() : message.body.wireTotal;
  if (size > part.size()) {
    json.name("comment").text("The first " + std::to_string(part.size()) + " of " + std::to_string(size) + " bytes.");
  }
}

void writeRequest(JsonWriter& json, const Connection& connection, bool secure, const Message& request) {
  json.name("request").beginObject();
  json.name("method").text(request.first);
  json.name("url").text((secure ? "https://" : "http://") + connection.own + uriPath(request.second));
  json.name("_target").text(request.second).name("httpVersion").text(request.third);
  writeHeaders(json, request);
  json.name("queryString").beginArray();
  for (const auto& [name, value] : readForm(queryOf(request.second))) {
    json.beginObject().name("name").text(name).name("value").text(value).endObject();
  }
  json.endArray();
  if (request.body.wireTotal > 0) {
    json.name("postData").beginObject();
    writeContent(json, request, "_encoding");
    json.endObject();
  }
  json.endObject();
}

std::int64_t statusOf(const Message& answer) noexcept {
  std::int64_t status = 0;
  (void)std::from_chars(answer.second.data(), answer.second.data() + answer.second.size(), status);
  return status;
}

/// An answer that never came is one with the status 0, as browsers have it.
void writeAnswer(JsonWriter& json, const Message& answer) {
  json.name("response").beginObject();
  json.name("status").number(statusOf(answer)).name("statusText").text(answer.third);
  json.name("httpVersion").text(answer.first);
  writeHeaders(json, answer);
  const std::string_view content = answer.body.content();
  json.name("content").beginObject();
  json.name("size").number(answer.body.chunked ? std::uint64_t{content.size()} : answer.body.wireTotal);
  writeContent(json, answer, "encoding");
  json.endObject();
  json.name("redirectURL").text("").endObject();
}

/// When the last byte of the request came, and the first and the last of the answer went.
struct Times {
  Microseconds received = 0;
  Microseconds firstSent = 0;
  Microseconds lastSent = 0;
};

Times timesOf(const TrafficLog& log, const Connection& connection) {
  Times times{connection.begin, connection.end, connection.end};
  bool sent = false;
  std::uint64_t number = 0;
  for (;;) {
    const auto pieces = log.piecesAfter(connection.id, number, 500, 0);
    if (pieces.empty()) {
      return times;
    }
    for (const Piece& piece : pieces) {
      if (piece.direction == Direction::sent) {
        times.firstSent = sent ? times.firstSent : piece.time;
        times.lastSent = piece.time;
        sent = true;
      } else if (!sent) {
        times.received = piece.time;
      }
    }
    number = pieces.back().number;
  }
}

void writeTimes(JsonWriter& json, const TrafficLog& log, const Connection& connection) {
  const Times times = timesOf(log, connection);
  json.name("startedDateTime")
      .text(Poco::DateTimeFormatter::format(Poco::Timestamp(connection.begin), "%Y-%m-%dT%H:%M:%sZ"));
  json.name("time");
  writeMilliseconds(json, times.lastSent - connection.begin);
  json.name("timings").beginObject().name("send");
  writeMilliseconds(json, times.received - connection.begin);
  json.name("wait");
  writeMilliseconds(json, std::max<Microseconds>(times.firstSent - times.received, 0));
  json.name("receive");
  writeMilliseconds(json, times.lastSent - times.firstSent);
  json.endObject();
}

}  // namespace

std::string archivedExchange(const TrafficLog& log, bool secure, std::uint64_t id) {
  const auto connection = log.find(id);
  if (!connection || connection->refused || connection->received.lost > 0 || connection->received.total == 0) {
    return {};
  }
  const std::string received = log.bytes(id, Direction::received, kHeadAtHand + kArchivedBody);
  const std::string sent = log.bytes(id, Direction::sent, kHeadAtHand + kArchivedBody);
  const Exchange exchange =
      readExchange(streamOf(*connection, Direction::received, received), streamOf(*connection, Direction::sent, sent));
  if (!exchange.request) {
    return {};
  }
  std::string text;
  JsonWriter json(text);
  json.beginObject();
  writeTimes(json, log, *connection);
  writeRequest(json, *connection, secure, *exchange.request);
  writeAnswer(json, exchange.answer.value_or(Message{}));
  json.name("cache").beginObject().endObject();
  json.name("connection").text(std::to_string(id));
  json.name("_peer").text(connection->peer).endObject();
  return text;
}

void writeHttpArchive(const TrafficLog& log, bool secure, std::ostream& to) {
  std::string head;
  JsonWriter json(head);
  json.beginObject().name("log").beginObject().name("version").text("1.2");
  json.name("creator").beginObject().name("name").text("keltop").name("version").text(kTraceVersion).endObject();
  json.name("entries").beginArray();
  to << head;
  bool first = true;
  for (const std::uint64_t id : log.ids()) {
    const std::string exchange = archivedExchange(log, secure, id);
    if (!exchange.empty()) {
      to << (first ? "\n" : ",\n") << exchange;
      first = false;
    }
    if (!to.good()) {
      return;  // nobody takes it any more
    }
  }
  to << "\n]}}\n";
}

}  // namespace keltop::view
