#pragma once

#include <string>
#include <string_view>

namespace keltop {

/// The path that the two HTTP ways ask for, as it stands in the request line. `path` is the path of `url` with its
/// escapes resolved. What may not stand in a path (RFC 3986, 3.3) is encoded, as `url` has it where it is encoded
/// there.
///
/// The path always ends with a slash, on purpose.
[[nodiscard]] std::string requestPath(std::string_view url, std::string_view path);

}  // namespace keltop
