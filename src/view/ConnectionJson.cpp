#include "view/ConnectionJson.h"

#include <Poco/Ascii.h>

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "product/Version.h"
#include "view/Exchange.h"
#include "view/Json.h"

namespace keltop::view {

namespace {

constexpr std::size_t kConnectionsInOneEvent = 256;
constexpr std::size_t kTicks = 48;

/// How much of a connection is read to show it, and how much of a part is shown; downloads give all of it.
constexpr std::size_t kReceivedAtHand = std::size_t{1} << 20U;
constexpr std::size_t kSentAtHand = std::size_t{256} << 10U;
constexpr std::size_t kShownBody = std::size_t{256} << 10U;
constexpr std::size_t kShownRest = std::size_t{4} << 10U;

constexpr std::size_t kPiecesInOneAnswer = 500;
constexpr std::size_t kShownPiece = std::size_t{2} << 10U;

std::string_view wordOf(State state) noexcept {
  switch (state) {
    case State::open:
      return "open";
    case State::closedByPeer:
      return "closed by peer";
    case State::closedHere:
      return "closed";
    case State::reset:
      return "reset";
    case State::failed:
      break;
  }
  return "failed";
}

std::string_view wordOf(Overview::Kind kind) noexcept {
  switch (kind) {
    case Overview::Kind::silent:
      return "silent";
    case Overview::Kind::http:
      return "http";
    case Overview::Kind::tls:
      return "tls";
    case Overview::Kind::bytes:
      break;
  }
  return "bytes";
}

std::string_view wordOf(BodyEnd end) noexcept {
  switch (end) {
    case BodyEnd::complete:
      return "complete";
    case BodyEnd::coming:
      return "coming";
    case BodyEnd::shorter:
      return "shorter";
    case BodyEnd::broken:
      return "broken";
    case BodyEnd::unannounced:
      break;
  }
  return "unannounced";
}

void writeNumberOrNull(JsonWriter& json, const std::optional<std::uint64_t>& value) {
  value ? json.number(*value) : json.null();
}

/// The times of its first pieces after its begin, and their sizes: negative what was sent.
void writeTicks(JsonWriter& json, const TrafficLog& log, const Connection& connection) {
  json.name("ticks").beginArray();
  for (const Piece& piece : log.piecesAfter(connection.id, 0, kTicks, 0)) {
    const auto length = static_cast<std::int64_t>(piece.length);
    json.number(piece.time - connection.begin).number(piece.direction == Direction::received ? length : -length);
  }
  json.endArray();
}

void writeOverview(JsonWriter& json, const Overview& overview) {
  json.name("kind").bytes(wordOf(overview.kind));
  if (overview.kind == Overview::Kind::http) {
    json.name("method").bytes(overview.method).name("target").bytes(overview.target);
    json.name("bodyEnd").bytes(wordOf(*overview.bodyEnd)).name("bodySize").number(overview.bodySize);
    json.name("announced");
    writeNumberOrNull(json, overview.announced);
    json.name("rest").number(overview.restSize);
  } else {
    json.name("first").bytes(overview.first);
  }
  if (!overview.status.empty()) {
    json.name("status").bytes(overview.status);
  }
}

void writeSummary(JsonWriter& json, const TrafficLog& log, const Connection& connection, const Overview& overview) {
  json.name("id").number(connection.id).name("peer").bytes(connection.peer);
  json.name("begin").number(connection.begin).name("end").number(connection.end);
  json.name("state").bytes(wordOf(connection.state));
  if (connection.refused) {
    json.name("refusal").bytes(connection.refusal);
  }
  json.name("in").number(connection.received.total).name("out").number(connection.sent.total);
  json.name("lost").number(connection.received.lost + connection.sent.lost);
  writeOverview(json, overview);
  writeTicks(json, log, connection);
}

void writeBeginning(JsonWriter& json, std::string_view bytes, std::size_t most) {
  json.name("bytes").bytes(bytes.substr(0, most));
}

void writeMessage(JsonWriter& json, const Message& message) {
  json.beginObject();
  json.name("first").bytes(message.first).name("second").bytes(message.second).name("third").bytes(message.third);
  json.name("headSize").number(std::uint64_t{message.head.size()}).name("headers").beginArray();
  for (const HeaderLine& line : message.headers) {
    json.beginArray().bytes(line.name).bytes(line.value).endArray();
  }
  json.endArray().name("body").beginObject();
  const Body& body = message.body;
  json.name("end").bytes(wordOf(body.end)).name("chunked").boolean(body.chunked).name("announced");
  writeNumberOrNull(json, body.announced);
  json.name("wireSize").number(body.wireTotal).name("size");
  json.number(body.chunked ? std::uint64_t{body.decoded.size()} : body.wireTotal);
  writeBeginning(json, body.content(), kShownBody);
  json.endObject().name("rest").beginObject().name("size").number(message.restTotal);
  writeBeginning(json, message.rest, kShownRest);
  json.endObject().endObject();
}

void writeQuery(JsonWriter& json, std::string_view target) {
  json.name("query").beginArray();
  for (const auto& [name, value] : readForm(queryOf(target))) {
    json.beginArray().bytes(name).bytes(value).endArray();
  }
  json.endArray();
}

void writeExchange(JsonWriter& json, const Exchange& exchange, bool withRequest) {
  if (exchange.request && withRequest) {
    json.name("request");
    writeMessage(json, *exchange.request);
    writeQuery(json, exchange.request->second);
  }
  json.name("interim").beginArray();
  for (const std::string_view head : exchange.interim) {
    json.bytes(head);
  }
  json.endArray();
  if (exchange.answer) {
    json.name("answer");
    writeMessage(json, *exchange.answer);
  }
}

class Needle {
 public:
  explicit Needle(std::string text) : text_(std::move(text)), search_(text_.begin(), text_.end(), Hash(), Same()) {}
  ~Needle() = default;
  Needle(const Needle&) = delete;
  Needle& operator=(const Needle&) = delete;

  [[nodiscard]] bool in(std::string_view hay) const {
    return std::search(hay.begin(), hay.end(), search_) != hay.end();
  }

 private:
  static char lower(char character) noexcept {
    return static_cast<char>(Poco::Ascii::toLower(static_cast<unsigned char>(character)));
  }
  struct Hash {
    std::size_t operator()(char character) const noexcept { return std::hash<char>()(lower(character)); }
  };
  struct Same {
    bool operator()(char one, char other) const noexcept { return lower(one) == lower(other); }
  };

  std::string text_;
  std::boyer_moore_horspool_searcher<std::string::const_iterator, Hash, Same> search_;
};

bool holds(const TrafficLog& log, const Connection& connection, const Needle& needle) {
  if (needle.in(connection.peer)) {
    return true;
  }
  const std::string received = log.bytes(connection.id, Direction::received, connection.received.total);
  const std::string sent = log.bytes(connection.id, Direction::sent, connection.sent.total);
  if (needle.in(received) || needle.in(sent)) {
    return true;
  }
  static const Needle kChunked("chunked");
  if (connection.received.lost > 0 || !kChunked.in(received)) {
    return false;
  }
  const Exchange exchange =
      readExchange(streamOf(connection, Direction::received, received), streamOf(connection, Direction::sent, sent));
  return exchange.request && exchange.request->body.chunked && needle.in(exchange.request->body.decoded);
}

}  // namespace

std::string helloJson(const Listener& listener, const std::string& run) {
  std::string text;
  JsonWriter json(text);
  json.beginObject().name("run").bytes(run).name("version").bytes(kTraceVersion);
  json.name("raw").boolean(listener.raw).name("secure").boolean(listener.secure);
  json.name("port").number(std::uint64_t{listener.port}).endObject();
  return text;
}

std::optional<std::string> changesJson(const TrafficLog& log, Overviews& overviews, std::uint64_t& change) {
  const std::vector<Connection> changed = log.changedAfter(change, kConnectionsInOneEvent);
  if (changed.empty()) {
    return std::nullopt;
  }
  const LogCounts counts = log.counts();
  std::string text;
  JsonWriter json(text);
  json.beginObject().name("seen").number(counts.seen).name("open").number(counts.open);
  json.name("droppedConnections").number(counts.droppedConnections);
  json.name("droppedBytes").number(counts.droppedBytes).name("connections").beginArray();
  for (const Connection& one : changed) {
    json.beginObject();
    writeSummary(json, log, one, overviews.of(one));
    json.endObject();
  }
  json.endArray().endObject();
  change = changed.back().change;
  return text;
}

std::optional<std::string> connectionJson(const TrafficLog& log, Overviews& overviews, std::uint64_t id) {
  const auto connection = log.find(id);
  if (!connection) {
    return std::nullopt;
  }
  const Overview overview = overviews.of(*connection);
  std::string text;
  JsonWriter json(text);
  json.beginObject();
  writeSummary(json, log, *connection, overview);
  json.name("own").bytes(connection->own).name("lostIn").number(connection->received.lost);
  json.name("lostOut").number(connection->sent.lost);
  const std::string received = log.bytes(id, Direction::received, kReceivedAtHand);
  const std::string sent = log.bytes(id, Direction::sent, kSentAtHand);
  if (connection->received.lost == 0 && connection->sent.lost == 0) {
    const Exchange exchange = readExchange(streamOf(*connection, Direction::received, received),
                                           streamOf(*connection, Direction::sent, sent));
    writeExchange(json, exchange, overview.kind == Overview::Kind::http);
  }
  json.endObject();
  return text;
}

std::string piecesJson(const TrafficLog& log, std::uint64_t id, std::uint64_t number) {
  std::string text;
  JsonWriter json(text);
  const std::vector<Piece> pieces = log.piecesAfter(id, number, kPiecesInOneAnswer, kShownPiece);
  json.beginObject().name("more").boolean(pieces.size() == kPiecesInOneAnswer).name("pieces").beginArray();
  for (const Piece& piece : pieces) {
    json.beginObject().name("number").number(piece.number).name("time").number(piece.time);
    json.name("sent").boolean(piece.direction == Direction::sent).name("offset").number(piece.offset);
    json.name("size").number(piece.length).name("bytes").bytes(piece.bytes).endObject();
  }
  json.endArray().endObject();
  return text;
}

std::string searchJson(const TrafficLog& log, const std::string& text, std::uint64_t change) {
  const Needle needle(text);
  std::string result;
  JsonWriter json(result);
  json.beginObject().name("ids").beginArray();
  for (const std::uint64_t last = log.counts().change; change < last;) {
    const std::vector<Connection> changed = log.changedAfter(change, kConnectionsInOneEvent);
    if (changed.empty()) {
      break;
    }
    for (const Connection& one : changed) {
      if (holds(log, one, needle)) {
        json.number(one.id);
      }
    }
    change = changed.back().change;
  }
  json.endArray().name("change").number(change).endObject();
  return result;
}

}  // namespace keltop::view
