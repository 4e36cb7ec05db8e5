// Both posts, from the switches to the wire and the console. Payload, request and transcript are compared with ones put
// together here; what the network library makes of a response that is not plain is bounded only.
//
// Input: a byte of choices, a byte that says which switches are given; the protocol's word, the address, the values in
// the order of kKeys, each ended by a zero byte; then what the peer answers.

#include <Poco/Exception.h>
#include <Poco/JSONString.h>
#include <Poco/URI.h>
#include <dlfcn.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <string_view>

#include "posts/PostISI.h"
#include "posts/PostRSI.h"
#include "support/Check.h"
#include "support/Console.h"
#include "support/EscapedXml.h"
#include "support/FakeNetwork.h"
#include "support/Input.h"

using keltop::fuzz::FakeNetwork;

/// Names are looked up nowhere: digits are read as an address, every other name is the loopback device's.
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
  using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto system = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  addrinfo numeric = hints != nullptr ? *hints : addrinfo{};
  numeric.ai_flags = AI_NUMERICHOST;
  if (name == nullptr || *name == '\0' || std::string_view(name).starts_with("no")) {
    return EAI_NONAME;
  }
  return system(name, service, &numeric, found) == 0 ? 0 : system("127.0.0.1", service, &numeric, found);
}

extern "C" int connect(int socket, const sockaddr* address, socklen_t /*length*/) {
  return FakeNetwork::instance().connect(socket, address->sa_family == AF_INET6);
}

namespace keltop::fuzz {

namespace {

constexpr std::uint8_t kInventory = 1;
constexpr std::uint8_t kRaw = 2;
constexpr std::uint8_t kRefused = 4;
constexpr std::uint8_t kTimedOut = 8;
constexpr std::uint8_t kTwice = 16;

constexpr std::array<const char*, 8> kKeys = {"ROOM", "FNAME", "LNAME", "ID", "CODE", "ITEM", "COUNT", "CATEGORY"};

/// Stands for a digit in an expected text, where the date and the time are; and for itself, which a path may hold.
constexpr char kDigit = '\0';
constexpr std::string_view kDate("\0\0\0\0\0\0\0\0", 8);
constexpr std::string_view kTime("\0\0:\0\0:\0\0", 8);
constexpr std::string_view kHeaderDate("\0\0\0\0-\0\0-\0\0T\0\0:\0\0:\0\0Z", 20);

bool fits(std::string_view expected, std::string_view actual) {
  if (expected.size() != actual.size()) {
    return false;
  }
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const bool digit = expected[i] == kDigit && std::isdigit(static_cast<unsigned char>(actual[i])) != 0;
    if (!digit && expected[i] != actual[i]) {
      return false;
    }
  }
  return true;
}

void checkFits(std::string_view what, std::string_view expected, std::string_view actual) {
  if (!fits(expected, actual)) {
    checkEqual(what, expected, actual);
    fail(what);
  }
}

/// Blanks, a sign, digits; kept within 32 bits.
std::string modelNumber(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) {
    ++at;
  }
  const bool negative = at < text.size() && text[at] == '-';
  at += at < text.size() && (text[at] == '-' || text[at] == '+') ? 1 : 0;
  std::int64_t number = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && number < 10'000'000'000; ++at) {
    number = number * 10 + (text[at] - '0');
  }
  number = negative ? -number : number;
  return std::to_string(number > 2147483647 ? 2147483647 : number < -2147483648 ? -2147483648 : number);
}

/// The values that are posted, as texts.
class Values {
 public:
  explicit Values(const SwitchMap& switches) : switches_(switches) {}
  [[nodiscard]] std::string text(const char* key, const std::string& otherwise) const {
    const std::string* value = findSwitch(switches_, key);
    return value != nullptr && !value->empty() ? *value : otherwise;
  }
  [[nodiscard]] std::string number(const char* key, const std::string& otherwise) const {
    return modelNumber(text(key, otherwise));
  }

 private:
  const SwitchMap& switches_;
};

/// A form in which each [name] is replaced by its value.
std::string filled(std::string_view form, const std::map<std::string, std::string, std::less<>>& values) {
  std::string text;
  for (;;) {
    const std::size_t open = form.find('[');
    text += form.substr(0, open);
    if (open == std::string_view::npos) {
      return text;
    }
    const std::size_t close = form.find(']', open);
    text += values.find(form.substr(open + 1, close - open - 1))->second;
    form.remove_prefix(close + 1);
  }
}

constexpr std::string_view kProlog = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n";
constexpr std::string_view kUserXml =
    "\t\t<user id=\"[id]\">\n\t\t\t<fname>[first]</fname>\n\t\t\t<lname>[last]</lname>\n\t\t</user>\n";
constexpr std::string_view kRoomStatusXml =
    "<room_status>\n\t<room number=\"[room]\" date=\"[date]\" time=\"[time]\" description=\"test room\" attempt=\"1\" "
    "status=\"[code]\" sequence=\"1\">\n\t\t<status code=\"[code]\" description=\"Coffee\"/>\n[user]\t</room>\n"
    "</room_status>\n";
constexpr std::string_view kInventoryXml =
    "<inventory>\n\t<room number=\"[room]\" date=\"[date]\" time=\"[time]\" description=\"test room\" attempt=\"1\" "
    "sequence=\"1\">\n[user]\t\t<item id=\"[item]\" quantity=\"[count]\" description=\"clean\" price=\"1.00\" "
    "catid=\"[category]\"/>\n\t</room>\n</inventory>\n";
constexpr std::string_view kUserJson =
    "      \"user\": {\n        \"fname\": [first],\n        \"id\": [id],\n        \"lname\": [last]\n      }\n"
    "    }\n  }\n}";
constexpr std::string_view kRoomStatusJson =
    "{\n  \"room_status\": {\n    \"room\": {\n      \"attempt\": 1,\n      \"code\": [code],\n"
    "      \"date\": \"[date]\",\n      \"description\": \"Coffee\",\n      \"room\": [room],\n"
    "      \"time\": \"[time]\",\n[user]";
constexpr std::string_view kInventoryJson =
    "{\n  \"inventory\": {\n    \"room\": {\n      \"attempt\": 1,\n      \"date\": \"[date]\",\n"
    "      \"description\": \"clean\",\n      \"id\": [item],\n      \"price\": \"1.00\",\n"
    "      \"quantity\": [count],\n      \"room\": [room],\n      \"time\": \"[time]\",\n[user]";

std::string modelPayload(const SwitchMap& switches, bool inventory, std::uint32_t protocol) {
  const Values values(switches);
  const bool json = protocol == 1;
  const auto written = [json](const std::string& text) { return json ? Poco::toJSON(text) : escapedXml(text); };
  std::map<std::string, std::string, std::less<>> all = {{"room", written(values.text("ROOM", "7101"))},
                                                         {"first", written(values.text("FNAME", "Orvin"))},
                                                         {"last", written(values.text("LNAME", "Talbeck"))},
                                                         {"id", values.number("ID", "1000")},
                                                         {"code", values.number("CODE", "1")},
                                                         {"item", values.number("ITEM", "100")},
                                                         {"count", values.number("COUNT", "1")},
                                                         {"category", values.number("CATEGORY", "10")},
                                                         {"date", std::string(kDate)},
                                                         {"time", std::string(kTime)}};
  all["user"] = filled(json ? kUserJson : kUserXml, all);
  if (json) {
    return filled(inventory ? kInventoryJson : kRoomStatusJson, all);
  }
  return std::string(kProlog) + filled(inventory ? kInventoryXml : kRoomStatusXml, all) +
         (protocol == 0 ? "</xml>\r\n" : "\r\n");
}

std::uint32_t modelProtocol(std::string word) {
  for (char& character : word) {
    character = character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
  }
  return word == "xml" ? 3 : word == "json" ? 1 : 0;
}

/// One post: what was asked for, and what came of it.
struct Case {
  SwitchMap switches;
  bool inventory = false;
  bool raw = false;
  int error = 0;
  std::string url;
  std::string answer;
  std::string agent;
  std::string type;
  std::string payload;
  std::string console;
  std::optional<std::string> sent;
};

/// The rest of a text behind an expected beginning.
std::string behind(std::string_view what, const std::string& expected, const std::string& text) {
  checkFits(what, expected, text.substr(0, expected.size()));
  return text.substr(expected.size());
}

/// One line, and nothing behind it, that reports a failure at one of these places.
void checkReport(const std::string& text, std::initializer_list<const char*> beginnings) {
  for (const char* beginning : beginnings) {
    if (text.starts_with(beginning) && text.ends_with('\n')) {
      return;
    }
  }
  fail("not a report that can come here: " + shown(text));
}

std::string ownReport(const Case& post) {
  return post.inventory ? "PostISI(911) Error: " : "PostRSI(674) Error: ";
}

void checkRaw(const Case& post, const Poco::URI& uri) {
  std::string rest =
      behind("the target", "Post(1025) " + uri.getHost() + " " + std::to_string(uri.getPort()) + "\n", post.console);
  if (!post.sent) {
    checkReport(rest, {post.error == ETIMEDOUT ? "Post(1040) Error: " : "Post(1035) Error: ", ownReport(post).c_str()});
    return;
  }
  const std::string request = "POST " + uri.getPath() + " HTTP/1:1\r\nContent-Type: " + post.type +
                              "\r\nAgent: " + post.agent +
                              "\r\nContent-Length: " + std::to_string(post.payload.size()) + "\r\n\r\n" + post.payload;
  checkFits("the raw request", request, *post.sent);
  rest = behind("the raw request's text", "Posting:\r\n" + request + "\n", rest);
  const std::string first = post.answer.substr(0, 2048);
  checkEqual("the raw response",
             post.answer.empty() ? "Post(1089) Zerio bytes read\n"
                                 : "\r\nReceived:\r\n" + first.substr(0, first.find('\0')) + "\n",
             rest);
}

/// The console text of a response that is plain: a status line, headers, and a body that ends with the connection.
std::optional<std::string> plainResponse(const std::string& answer) {
  static const std::regex head(
      "HTTP/1\\.1 (2[0-9][0-9]|[345][0-9][0-9]) ([A-Za-z]{1,20})\r\n((X-[A-Za-z]{1,9}: [a-z]{1,20}\r\n)*)\r\n");
  std::smatch found;
  if (!std::regex_search(answer, found, head, std::regex_constants::match_continuous) || found[1] == "204" ||
      found[1] == "304") {
    return {};
  }
  return "\r\nReceived response\nHTTP/1.1 " + found[2].str() + " " + found[1].str() + "\r\n" + found[3].str() + "\r\n" +
         found.suffix().str() + "\r\n";
}

/// The path as it was typed: what follows scheme and authority (RFC 3986, 3), up to query or fragment.
std::string typedPath(const std::string& url) {
  std::string typed = url.substr(0, url.find_first_of("?#"));
  const std::size_t scheme = typed.find_first_of(":/");
  if (typed.find_first_of("/.") != 0 && scheme != std::string::npos && typed[scheme] == ':') {
    typed = typed.substr(scheme + 1);
    if (typed.starts_with("//")) {
      const std::size_t path = typed.find('/', 2);
      typed = path == std::string::npos ? "" : typed.substr(path);
    }
  }
  return typed;
}

/// The path that is asked for: each byte that a path may hold as itself, every other one encoded, as it was typed where
/// it was encoded already; and a slash.
std::string modelPath(const std::string& url) {
  static const std::regex plain("[A-Za-z0-9/._~!$&'()*+,;=:@-]");
  const std::string typed = typedPath(url);
  std::string path;
  for (std::size_t at = 0; at < typed.size();) {
    const std::size_t length = typed[at] == '%' ? 3 : 1;
    const std::string piece = typed.substr(at, length);
    const int byte = length == 3 ? std::stoi(piece.substr(1), nullptr, 16) : static_cast<unsigned char>(piece[0]);
    const std::string character(1, static_cast<char>(byte));
    if (std::regex_match(character, plain)) {
      path += character;
    } else if (length == 3) {
      path += piece;
    } else {
      path += '%';
      path += "0123456789ABCDEF"[byte >> 4];
      path += "0123456789ABCDEF"[byte & 15];
    }
    at += length;
  }
  return path.ends_with('/') ? path : path + "/";
}

void checkHttp(const Case& post) {
  const std::string path = modelPath(post.url);
  const std::string head =
      "POST " + path + " HTTP/1.1\r\nDate: " + std::string(kHeaderDate) + "\r\nUser-Agent: " + post.agent +
      "\r\nContent-Length: " + std::to_string(post.payload.size()) + "\r\nContent-Type: " + post.type + "\r\n";
  const std::string rest =
      behind("the request's text", "Sending request\n" + head + "\r\n" + post.payload, post.console);
  if (!post.sent) {
    checkReport(rest, {"Post(1286) Error: "});
    return;
  }
  const std::string wire = behind("the request", head, *post.sent);
  constexpr std::string_view kAdded = "Connection: Close\r\nHost: ";
  check(wire.starts_with(kAdded) && wire.find("\r\n", kAdded.size()) + 4 + post.payload.size() == wire.size(),
        "the request's end: " + shown(wire));
  checkFits("the request's body", "\r\n\r\n" + post.payload,
            wire.substr(wire.size() - std::min(wire.size(), post.payload.size() + 4)));
  if (const std::optional<std::string> plain = plainResponse(post.answer)) {
    checkEqual("the response", *plain, rest);
  } else if (rest.starts_with("\r\nReceived response\n")) {
    check(rest.ends_with("\r\n") && rest.size() <= 2 * post.answer.size() + 200, "the response: " + shown(rest));
  } else {
    checkReport(rest, {"Post(1257) Read timeout: ", "Post(1261) Read error: ", "Post(1286) Error: "});
  }
}

void checkHttps(const Case& post) {
  const std::string rest = behind("the request's text", "Posting:\r\n" + post.payload + "\n", post.console);
  checkReport(rest, {"Post(1192) Error: ", "Post(1163) Read timeout: ", "Post(1167) Read error: "});
}

void checkCase(const Case& post) {
  if (post.url.empty()) {
    checkEqual("the console", "Post(985) Error: No URL given\n", post.console);
    return;
  }
  try {
    const Poco::URI uri(post.url);
    if (post.raw) {
      checkRaw(post, uri);
    } else if (post.url.size() >= 6 && post.url[4] != ':') {
      checkHttps(post);
    } else {
      checkHttp(post);
    }
  } catch (const Poco::Exception& error) {
    checkEqual("the console", ownReport(post) + error.displayText() + "\n", post.console);
  }
}

Case makeCase(Input& input) {
  Case post;
  const std::uint8_t choices = input.byte();
  const std::uint8_t given = input.byte();
  post.inventory = (choices & kInventory) != 0;
  post.raw = (choices & kRaw) != 0;
  post.error = (choices & kRefused) != 0 ? ECONNREFUSED : (choices & kTimedOut) != 0 ? ETIMEDOUT : 0;
  const std::string word = input.text();
  post.url = input.text();
  post.switches = {{post.inventory ? "ISI" : "RSI", word}, {"URL", post.url}, {"DESCRIPTION", "not looked at"}};
  if (post.raw) {
    post.switches.emplace("RAW", "");
  }
  for (std::size_t i = 0; i < kKeys.size(); ++i) {
    if ((given >> i & 1) != 0) {
      post.switches.emplace(kKeys[i], input.text());
      post.switches.emplace((choices & kTwice) != 0 ? kKeys[i] : "OTHER", "later");
    }
  }
  post.answer = input.rest();
  const std::uint32_t protocol = modelProtocol(word);
  post.agent = std::string("Vantrel/8.0.26 ") + (post.inventory ? "ISI/201" : "RSI/201");
  post.type = protocol == 1 ? "application/json" : "text/xml";
  post.payload = modelPayload(post.switches, post.inventory, protocol);
  return post;
}

void run(Input input) {
  static Console console;
  FakeNetwork& network = FakeNetwork::instance();
  Case post = makeCase(input);
  network.failWith(post.error);
  network.answerWith(post.answer);
  (post.inventory ? PostISI : PostRSI)(post.switches);
  post.sent = network.received();
  post.console = console.take();
  checkCase(post);
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
