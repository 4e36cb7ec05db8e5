#include "net/SecureTypes.h"

#include <openssl/err.h>

#include <array>

namespace keltop::net {

std::string takeSecureError() {
  const unsigned long first = ERR_get_error();  // the others tell where it was noticed on the way back
  ERR_clear_error();
  if (first == 0) {
    return "unknown error";
  }
  std::array<char, 256> text = {};
  ERR_error_string_n(first, text.data(), text.size());
  return text.data();
}

}  // namespace keltop::net
