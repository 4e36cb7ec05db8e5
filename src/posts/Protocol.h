#pragma once

#include <cstdint>

namespace keltop {

/// The payload protocols, by the codes that the posts and the transport share.
inline constexpr std::uint32_t kProtocolJazz = 0;
inline constexpr std::uint32_t kProtocolJson = 1;
inline constexpr std::uint32_t kProtocolForm = 2;
inline constexpr std::uint32_t kProtocolXml = 3;

}  // namespace keltop
