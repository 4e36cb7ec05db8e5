#pragma once

#include <string_view>

namespace Poco {
class Exception;
}

namespace keltop {

/// Shows why a post failed, with the number of the place where it did.
void reportFailure(unsigned site, std::string_view message, const Poco::Exception& error);

}  // namespace keltop
