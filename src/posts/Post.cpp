#include "posts/Post.h"

#include <Poco/Net/StreamSocket.h>
#include <Poco/URI.h>

#include <string_view>
#include <utility>

#include "posts/HttpPost.h"
#include "posts/Posting.h"
#include "posts/Protocol.h"
#include "posts/RawPost.h"
#include "posts/RequestPath.h"
#include "product/ConsoleStream.h"

namespace keltop {

namespace {

constexpr unsigned kSiteNoData = 976;
constexpr unsigned kSiteNoUrl = 985;

std::string_view contentType(std::uint32_t protocol) noexcept {
  switch (protocol) {
    case kProtocolJson:
      return "application/json";
    case kProtocolForm:
      return "application/x-www-form-urlencoded";
    default:
      return "text/xml";
  }
}

/// The place of the colon in a plain-HTTP address decides, not the scheme's name, on purpose: whatever has another
/// character there goes by HTTPS.
bool goesByHttps(std::string_view url) noexcept {
  constexpr std::size_t kShortest = 6;
  constexpr std::size_t kColon = 4;
  return url.size() >= kShortest && url[kColon] != ':';
}

}  // namespace

void Post(const SwitchMap& switches, std::uint32_t protocol, std::string userAgent, const std::string& body) {
  if (body.empty()) {
    printSiteLine(kPostRoutine, kSiteNoData, "Error: No data to post");
    return;
  }
  const std::string* url = findSwitch(switches, "URL");
  if (url == nullptr || url->empty()) {
    printSiteLine(kPostRoutine, kSiteNoUrl, "Error: No URL given");
    return;
  }
  const Poco::URI uri(*url);
  Posting posting = {.host = uri.getHost(),
                     .port = uri.getPort(),
                     .path = uri.getPath(),
                     .contentType = contentType(protocol),
                     .userAgent = std::move(userAgent),
                     .body = body};
  if (findSwitch(switches, "RAW") != nullptr) {
    Poco::Net::StreamSocket socket;
    postRaw(socket, posting);
    return;
  }
  posting.path = requestPath(*url, posting.path);
  postHttp(goesByHttps(*url) ? kHttps : kPlainHttp, posting);
}

}  // namespace keltop
