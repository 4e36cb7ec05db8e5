#pragma once

#include <ostream>
#include <string>

#include "view/TrafficLog.h"

namespace keltop::view {

/// How much of a body stands in the archive; the rest is said to be missing.
inline constexpr std::size_t kArchivedBody = std::size_t{4} << 20U;

/// Writes every HTTP exchange that is kept, the oldest first, in the format HAR 1.2: JSON that developer tools of
/// browsers open. `secure`: they came behind TLS. One exchange is held in memory at a time.
void writeHttpArchive(const TrafficLog& log, bool secure, std::ostream& to);

/// One exchange; empty where a connection has none.
[[nodiscard]] std::string archivedExchange(const TrafficLog& log, bool secure, std::uint64_t id);

}  // namespace keltop::view
