#include "posts/RequestPath.h"

#include <Poco/Ascii.h>

#include <cstddef>

namespace keltop {

namespace {

/// "%" and two digits.
constexpr std::size_t kEscapeLength = 3;

/// What may stand in a path beside letters and digits.
constexpr std::string_view kPathMarks = "/-._~!$&'()*+,;=:@";

bool mayStandInPath(char character) {
  return Poco::Ascii::isAlphaNumeric(static_cast<unsigned char>(character)) ||
         kPathMarks.find(character) != std::string_view::npos;
}

std::string escape(char character) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(character);
  return {'%', kDigits[byte / kDigits.size()], kDigits[byte % kDigits.size()]};
}

bool endsWithEscape(std::string_view text) noexcept {
  return text.size() >= kEscapeLength && text[text.size() - kEscapeLength] == '%';
}

}  // namespace

std::string requestPath(std::string_view url, std::string_view path) {
  // The URL up to its query or fragment ends with the path as it was typed: a byte of the path is a byte or an escape
  // there. The two are walked together from their ends, since where the path begins depends on the kind of URL.
  std::string_view typed = url.substr(0, url.find_first_of("?#"));
  std::string encoded(path.ends_with('/') ? "" : "/");
  for (std::size_t at = path.size(); at > 0; --at) {
    const char character = path[at - 1];
    const bool escaped = endsWithEscape(typed);
    const std::size_t length = escaped ? kEscapeLength : 1;
    if (mayStandInPath(character)) {
      encoded.insert(encoded.begin(), character);
    } else {
      encoded.insert(0, escaped ? typed.substr(typed.size() - length) : escape(character));
    }
    typed.remove_suffix(length);
  }
  return encoded;
}

}  // namespace keltop
