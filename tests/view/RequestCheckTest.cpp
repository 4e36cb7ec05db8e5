#include <gtest/gtest.h>

#include <string>

#include "view/RequestCheck.h"

namespace keltop::view {
namespace {

constexpr std::uint16_t kPort = 8081;

Poco::Net::HTTPRequest fromHost(const std::string& host) {
  Poco::Net::HTTPRequest request;
  request.set("Host", host);
  return request;
}

TEST(RequestCheck, takesTheOwnNamesWithThePort) {
  for (const char* host : {"127.0.0.1:8081", "localhost:8081", "LOCALHOST:8081", "[::1]:8081"}) {
    EXPECT_TRUE(isFromHere(fromHost(host), kPort)) << host;
  }
  EXPECT_TRUE(isFromHere(fromHost("localhost"), 80));
}

TEST(RequestCheck, refusesEveryOtherHost) {
  for (const char* host :
       {"", "localhost", "127.0.0.1", "127.0.0.1:8080", "evil.example:8081", "127.0.0.1.evil.example:8081",
        "localhost.:8081", "127.0.0.1:8081:8081", "[::1]", "127.0.0.2:8081", "user@localhost:8081", "127.1:8081"}) {
    EXPECT_FALSE(isFromHere(fromHost(host), kPort)) << host;
  }
  EXPECT_FALSE(isFromHere(Poco::Net::HTTPRequest(), kPort));
}

TEST(RequestCheck, refusesASecondHost) {
  Poco::Net::HTTPRequest request = fromHost("localhost:8081");
  request.add("Host", "evil.example");
  EXPECT_FALSE(isFromHere(request, kPort));
}

TEST(RequestCheck, refusesOtherOrigins) {
  for (const auto& [origin, taken] : {std::pair<const char*, bool>("http://127.0.0.1:8081", true),
                                      {"http://localhost:8081", true},
                                      {"http://127.0.0.1:9000", false},
                                      {"https://127.0.0.1:8081", false},
                                      {"http://evil.example", false},
                                      {"null", false},
                                      {"", false}}) {
    Poco::Net::HTTPRequest request = fromHost("127.0.0.1:8081");
    request.set("Origin", origin);
    EXPECT_EQ(isFromHere(request, kPort), taken) << origin;
  }
}

TEST(RequestCheck, refusesRequestsOfOtherSites) {
  for (const auto& [site, taken] : {std::pair<const char*, bool>("same-origin", true),
                                    {"none", true},
                                    {"same-site", false},
                                    {"cross-site", false},
                                    {"", false}}) {
    Poco::Net::HTTPRequest request = fromHost("127.0.0.1:8081");
    request.set("Sec-Fetch-Site", site);
    EXPECT_EQ(isFromHere(request, kPort), taken) << site;
  }
}

}  // namespace
}  // namespace keltop::view
