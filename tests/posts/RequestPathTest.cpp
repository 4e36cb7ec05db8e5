#include <Poco/URI.h>
#include <gtest/gtest.h>

#include <string>

#include "posts/RequestPath.h"

namespace keltop {
namespace {

std::string pathOf(const std::string& url) {
  return requestPath(url, Poco::URI(url).getPath());
}

TEST(RequestPath, endsWithASlash) {
  EXPECT_EQ(pathOf("http://h"), "/");
  EXPECT_EQ(pathOf("http://h/"), "/");
  EXPECT_EQ(pathOf("http://h/a?b/c#d/e"), "/a/");
  EXPECT_EQ(pathOf("http://h/a%2f?b"), "/a/");
  EXPECT_EQ(pathOf("abc"), "abc/");
}

TEST(RequestPath, keepsWhatMayNotStandInAPathEncodedAsItWas) {
  EXPECT_EQ(pathOf("http://h/a%20b%3f%3F%23%25%0d%0A%e4%00"), "/a%20b%3f%3F%23%25%0d%0A%e4%00/");
  EXPECT_EQ(pathOf("http://h%20/%2520?%20"), "/%2520/");
  EXPECT_EQ(pathOf("%20"), "%20/");
  EXPECT_EQ(pathOf("http://h/%e4#c"), "/%e4/");
}

TEST(RequestPath, encodesWhatWasTypedPlain) {
  EXPECT_EQ(pathOf("http://h/a b\r\n\"<>\\^`{|}[]\x7f\xe4"), "/a%20b%0D%0A%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D%7F%E4/");
}

TEST(RequestPath, resolvesWhatMayStandInAPath) {
  EXPECT_EQ(pathOf("http://h/%41%7a%30-%2d%2E%5F%7E%2f"), "/Az0--._~/");
  EXPECT_EQ(pathOf("http://h/!$&'()*+,;=:@%21%24%26%27%28%29%2A%2B%2C%3B%3D%3A%40"), "/!$&'()*+,;=:@!$&'()*+,;=:@/");
}

}  // namespace
}  // namespace keltop
