#include "view/RequestCheck.h"

#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace keltop::view {

namespace {

constexpr std::uint16_t kHttpPort = 80;
constexpr std::array<std::string_view, 3> kNames{"127.0.0.1", "localhost", "[::1]"};

bool isOwnHost(const std::string& host, std::uint16_t port) {
  const std::string number = std::to_string(port);
  return std::ranges::any_of(kNames, [&](std::string_view name) {
    const std::string own(name);
    const std::string withPort = std::string(name).append(":").append(number);
    return Poco::icompare(host, withPort) == 0 || (port == kHttpPort && Poco::icompare(host, own) == 0);
  });
}

/// Whether every header of that name, there may be several, is as it should be.
template <typename Check>
bool everyOne(const Poco::Net::HTTPRequest& request, const std::string& name, Check check) {
  for (auto one = request.find(name); one != request.end() && Poco::icompare(one->first, name) == 0; ++one) {
    if (!check(one->second)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool isFromHere(const Poco::Net::HTTPRequest& request, std::uint16_t port) {
  static const std::string kScheme = "http://";
  return request.has("Host") &&
         everyOne(request, "Host", [=](const std::string& host) { return isOwnHost(host, port); }) &&
         everyOne(request, "Origin",
                  [=](const std::string& origin) {
                    return origin.starts_with(kScheme) && isOwnHost(origin.substr(kScheme.size()), port);
                  }) &&
         everyOne(request, "Sec-Fetch-Site",
                  [](const std::string& site) { return site == "same-origin" || site == "none"; });
}

}  // namespace keltop::view
