#pragma once

#include <Poco/Net/HTTPRequest.h>

#include <cstdint>

namespace keltop::view {

/// Whether a request for the page may be answered. The page is for the user of this machine alone, and shows what
/// nobody else should see: a web site must reach it neither under a name of its own that leads to this machine nor by a
/// request from its pages.
///
/// The `Host` must be 127.0.0.1, localhost or [::1] with the port. `Origin` and `Sec-Fetch-Site` (Fetch Metadata
/// Request Headers, W3C), where they are given, must name this page or nobody.
[[nodiscard]] bool isFromHere(const Poco::Net::HTTPRequest& request, std::uint16_t port);

}  // namespace keltop::view
