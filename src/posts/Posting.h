#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace keltop {

/// One payload with all that it takes to send it. The body's and the content type's text must outlive it.
struct Posting {
  std::string host;
  std::uint16_t port = 0;
  std::string path;
  std::string_view contentType;
  std::string userAgent;
  const std::string& body;
};

/// The name in front of the site numbers, and what stands before every body that is sent by HTTPS or raw.
inline constexpr std::string_view kPostRoutine = "Post";
inline constexpr std::string_view kPostingTitle = "Posting:\r\n";

}  // namespace keltop
