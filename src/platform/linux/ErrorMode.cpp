#include "platform/ErrorMode.h"

namespace keltop::platform {

void setErrorMode(std::uint32_t /*mode*/) noexcept {}

}  // namespace keltop::platform
