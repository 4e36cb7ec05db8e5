#pragma once

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "posts/Posting.h"

namespace keltop {

/// What plain HTTP and HTTPS do differently.
struct HttpWay {
  std::unique_ptr<Poco::Net::HTTPClientSession> (*openSession)(const std::string& host, std::uint16_t port);
  /// Shows what is about to be sent; false when that failed, which has been reported.
  bool (*showRequest)(std::ostream& console, const Poco::Net::HTTPRequest& request, const std::string& body);
  std::string_view responseTitle;
  std::string_view headEnd;
  unsigned timeoutSite;
  unsigned readSite;
  unsigned showSite;
  unsigned waySite;
};

extern const HttpWay kPlainHttp;
extern const HttpWay kHttps;

/// How long a server may take to accept the connection, and for each piece that is sent or received.
inline constexpr std::chrono::microseconds kSessionTimeout = std::chrono::seconds(120);

/// Posts by HTTP or HTTPS and prints the request and the response. Whatever the network library fails with is printed.
void postHttp(const HttpWay& way, const Posting& posting, std::chrono::microseconds timeout = kSessionTimeout);

/// Prints a response. A failure of the library is reported, and goes no further.
void showResponse(std::ostream& console, const HttpWay& way, const Poco::Net::HTTPResponse& response,
                  std::string_view body);

}  // namespace keltop
