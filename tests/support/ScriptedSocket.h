#pragma once

#include <Poco/Net/StreamSocket.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace keltop {

/// A socket that does what a script says, by way of the test's own implementation of the library's interface. The
/// implementation refers to the script.
template <typename Impl>
class ScriptedSocket : public Poco::Net::StreamSocket {
 public:
  template <typename Script>
  explicit ScriptedSocket(Script& script) : Poco::Net::StreamSocket(new Impl(script)) {}
};

/// Gives what is received: the bytes, or as many of them as are asked for.
inline int receiveInto(void* buffer, int length, const std::string& bytes) {
  const std::size_t count = std::min(bytes.size(), static_cast<std::size_t>(length));
  std::copy_n(bytes.data(), count, static_cast<char*>(buffer));
  return static_cast<int>(count);
}

/// A step of a script that fails.
template <typename Result = void, typename Error>
std::function<Result()> failing(Error error) {
  return [error = std::move(error)]() -> Result { throw error; };
}

}  // namespace keltop
