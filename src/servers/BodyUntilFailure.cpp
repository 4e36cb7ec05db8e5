#include "servers/BodyUntilFailure.h"

#include <Poco/Exception.h>

#include <algorithm>

namespace keltop {

std::streamsize BodyUntilFailure::xsgetn(char_type* text, std::streamsize length) {
  std::streamsize count = 0;
  try {
    std::streambuf& source = *body_.rdbuf();
    while (count < length && !traits_type::eq_int_type(source.sgetc(), traits_type::eof())) {
      // Only what is there: asking for more would receive again, and lose this where that fails.
      count += source.sgetn(text + count, std::min(source.in_avail(), length - count));
    }
  } catch (const Poco::Exception&) {
    // The end, as far as it came.
  }
  return count;
}

BodyUntilFailure::int_type BodyUntilFailure::underflow() {
  if (xsgetn(&one_, 1) == 0) {
    return traits_type::eof();
  }
  setg(&one_, &one_, &one_ + 1);
  return traits_type::to_int_type(one_);
}

}  // namespace keltop
