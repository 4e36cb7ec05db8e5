#include "view/PageHandler.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Timespan.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "view/ConnectionJson.h"
#include "view/Exchange.h"
#include "view/HttpArchive.h"
#include "view/PageFiles.h"
#include "view/PageServer.h"
#include "view/RequestCheck.h"

namespace keltop::view {

namespace {

using Poco::Net::HTTPResponse;
using Request = Poco::Net::HTTPServerRequest;
using Response = Poco::Net::HTTPServerResponse;

constexpr std::string_view kJson = "application/json";
constexpr std::size_t kPart = std::size_t{64} << 10U;

/// How often a stream of events looks for news: what comes is on the page in a fraction of what an eye notices, and a
/// flood costs a listener no call for each browser.
constexpr auto kEventsPeriod = std::chrono::milliseconds(40);

/// After so long without news a comment is sent, which shows whether the browser is still there.
constexpr auto kQuiet = std::chrono::seconds(10);

/// A browser that takes nothing for so long is dropped; it comes back by itself and gets what it missed.
constexpr int kEventsPatienceSeconds = 3;

/// How long a browser waits before it comes back, in milliseconds.
constexpr int kComeBack = 500;

constexpr std::string_view kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'";

void setSafetyHeaders(Response& response) {
  response.set("Content-Security-Policy", std::string(kPolicy));
  response.set("X-Content-Type-Options", "nosniff");
  response.set("X-Frame-Options", "DENY");
  response.set("Referrer-Policy", "no-referrer");
  response.set("Cross-Origin-Resource-Policy", "same-origin");
  response.set("Cross-Origin-Opener-Policy", "same-origin");
  response.set("Cache-Control", "no-store");
}

void sendText(Response& response, std::string_view type, std::string_view text) {
  response.setContentType(std::string(type));
  response.sendBuffer(text.data(), text.size());
}

void sendError(Response& response, HTTPResponse::HTTPStatus status) {
  response.setStatusAndReason(status);
  sendText(response, "text/plain; charset=utf-8", HTTPResponse::getReasonForStatus(status) + "\n");
}

std::string_view typeOf(std::string_view name) noexcept {
  if (name.ends_with(".html")) {
    return "text/html; charset=utf-8";
  }
  if (name.ends_with(".css")) {
    return "text/css; charset=utf-8";
  }
  return name.ends_with(".svg") ? "image/svg+xml" : "text/javascript; charset=utf-8";
}

/// All of a text as a number.
std::optional<std::uint64_t> numberOf(std::string_view text) noexcept {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// The first value of that name in the query; empty where there is none.
std::string valueOf(std::string_view target, std::string_view name) {
  const auto values = readForm(queryOf(target));
  const auto found = std::ranges::find_if(values, [name](const auto& one) { return one.first == name; });
  return found == values.end() ? std::string() : found->second;
}

std::uint64_t numberIn(std::string_view target, std::string_view name) {
  return numberOf(valueOf(target, name)).value_or(0);
}

void setDownload(Response& response, const std::string& fileName) {
  response.setContentType("application/octet-stream");
  response.set("Content-Disposition", "attachment; filename=\"" + fileName + "\"");
}

/// Counts a stream of events as long as it lives.
class EventStream {
 public:
  explicit EventStream(std::atomic<int>& count) : count_(count), allowed_(++count <= kMostEventStreams) {}
  ~EventStream() { --count_; }
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;
  [[nodiscard]] bool allowed() const noexcept { return allowed_; }

 private:
  std::atomic<int>& count_;
  bool allowed_;
};

/// The change that a returning browser has seen last; 0 where it comes from another run of the program.
std::uint64_t lastSeen(const Request& request, const std::string& run) {
  const std::string last = request.get("Last-Event-ID", "");
  return last.starts_with(run + "-") ? numberOf(std::string_view(last).substr(run.size() + 1)).value_or(0) : 0;
}

void sendChanges(PageContext& context, std::uint64_t change, std::ostream& to) {
  auto told = std::chrono::steady_clock::now();
  do {
    while (const auto changes = changesJson(context.log, context.overviews, change)) {
      to << "event: changes\nid: " << context.run << '-' << change << "\ndata: " << *changes << "\n\n" << std::flush;
      told = std::chrono::steady_clock::now();
      if (!to.good() || context.log.waitForClose(std::chrono::milliseconds(0))) {
        return;
      }
    }
    if (std::chrono::steady_clock::now() - told >= kQuiet) {
      to << ":\n\n" << std::flush;
      told = std::chrono::steady_clock::now();
    }
  } while (to.good() && !context.log.waitForClose(kEventsPeriod));
}

void sendEvents(PageContext& context, Request& request, Response& response) {
  const EventStream stream(context.eventStreams);
  if (!stream.allowed()) {
    sendError(response, HTTPResponse::HTTP_SERVICE_UNAVAILABLE);
    return;
  }
  if (auto* const served = dynamic_cast<Poco::Net::HTTPServerRequestImpl*>(&request)) {
    served->socket().setSendTimeout(Poco::Timespan(kEventsPatienceSeconds, 0));
  }
  response.setContentType("text/event-stream");
  std::ostream& to = response.send();
  if (request.getMethod() == Request::HTTP_HEAD) {
    return;
  }
  to << "retry: " << kComeBack << "\nevent: hello\ndata: " << helloJson(context.listener, context.run) << "\n\n"
     << std::flush;
  sendChanges(context, lastSeen(request, context.run), to);
}

void sendArchive(const PageContext& context, Response& response) {
  setDownload(response, "keltop.har");
  writeHttpArchive(context.log, context.listener.secure, response.send());
}

/// A stream as far as it is kept, or as many of its first bytes as were asked for.
void sendStream(const PageContext& context, std::uint64_t id, Direction direction, std::uint64_t most,
                Response& response) {
  const auto connection = context.log.find(id);
  if (!connection) {
    sendError(response, HTTPResponse::HTTP_NOT_FOUND);
    return;
  }
  const StreamSize size = connection->stream(direction);
  std::uint64_t left = most == 0 ? size.total - size.lost : std::min(most, size.total - size.lost);
  setDownload(response,
              "keltop-" + std::to_string(id) + (direction == Direction::received ? "-received" : "-sent") + ".bin");
  response.setContentLength64(static_cast<Poco::Int64>(left));
  std::ostream& to = response.send();
  TrafficLog::Place place;
  while (left > 0 && to.good()) {
    const auto part =
        context.log.next(id, direction, place, static_cast<std::size_t>(std::min<std::uint64_t>(left, kPart)));
    if (!part || part->empty()) {
      return;  // dropped meanwhile: the browser sees that it is shorter than announced
    }
    to << *part;
    left -= part->size();
  }
}

void sendBody(const PageContext& context, std::uint64_t id, Response& response) {
  const auto connection = context.log.find(id);
  const std::string received =
      connection ? context.log.bytes(id, Direction::received, connection->received.total) : std::string();
  const Exchange exchange =
      connection ? readExchange(streamOf(*connection, Direction::received, received), {}) : Exchange();
  if (!exchange.request || connection->received.lost > 0) {
    sendError(response, HTTPResponse::HTTP_NOT_FOUND);
    return;
  }
  setDownload(response, "keltop-" + std::to_string(id) + "-body.bin");
  const std::string_view content = exchange.request->body.content();
  response.sendBuffer(content.data(), content.size());
}

/// What is below "/connections/": ID, and the part of the connection.
void sendConnection(PageContext& context, std::string_view path, std::string_view target, Response& response) {
  const std::size_t slash = std::min(path.find('/'), path.size());
  const auto id = numberOf(path.substr(0, slash));
  const std::string_view part = path.substr(slash);
  if (!id) {
    return sendError(response, HTTPResponse::HTTP_NOT_FOUND);
  }
  if (part == "/received") {
    sendStream(context, *id, Direction::received, numberIn(target, "most"), response);
  } else if (part == "/sent") {
    sendStream(context, *id, Direction::sent, numberIn(target, "most"), response);
  } else if (part == "/body") {
    sendBody(context, *id, response);
  } else if (part == "/pieces") {
    sendText(response, kJson, piecesJson(context.log, *id, numberIn(target, "after")));
  } else if (const auto json = connectionJson(context.log, context.overviews, *id); json && part.empty()) {
    sendText(response, kJson, *json);
  } else {
    sendError(response, HTTPResponse::HTTP_NOT_FOUND);
  }
}

void sendFile(std::string_view name, Response& response) {
  const auto files = pageFiles();
  const auto file = std::ranges::find(files, name.empty() ? "index.html" : name, &PageFile::name);
  if (file == files.end()) {
    sendError(response, HTTPResponse::HTTP_NOT_FOUND);
  } else {
    sendText(response, typeOf(file->name), file->content);
  }
}

void answer(PageContext& context, Request& request, Response& response) {
  constexpr std::string_view kConnections = "/connections/";
  const std::string& target = request.getURI();
  const std::string_view path = std::string_view(target).substr(0, target.find_first_of("?#"));
  if (path == "/events") {
    sendEvents(context, request, response);
  } else if (path == "/har") {
    sendArchive(context, response);
  } else if (path == "/search") {
    sendText(response, kJson, searchJson(context.log, valueOf(target, "text"), numberIn(target, "after")));
  } else if (path.starts_with(kConnections)) {
    sendConnection(context, path.substr(kConnections.size()), target, response);
  } else if (path.starts_with('/')) {
    sendFile(path.substr(1), response);
  } else {
    sendError(response, HTTPResponse::HTTP_NOT_FOUND);
  }
}

}  // namespace

void PageHandler::handleRequest(Request& request, Response& response) {
  setSafetyHeaders(response);
  const std::string& method = request.getMethod();
  if (!isFromHere(request, context_.port)) {
    sendError(response, HTTPResponse::HTTP_FORBIDDEN);
  } else if (method != Request::HTTP_GET && method != Request::HTTP_HEAD) {
    response.set("Allow", "GET, HEAD");
    sendError(response, HTTPResponse::HTTP_METHOD_NOT_ALLOWED);
  } else {
    answer(context_, request, response);
  }
}

Poco::Net::HTTPRequestHandler* PageHandlerFactory::createRequestHandler(const Request& /*request*/) {
  return new PageHandler(context_);  // NOLINT(cppcoreguidelines-owning-memory): the library deletes it
}

}  // namespace keltop::view
