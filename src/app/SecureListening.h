#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "net/ListeningSocket.h"
#include "product/SwitchMap.h"

namespace keltop {

/// A listener behind TLS, as the switch "TLS" asks for it.
class SecureListening {
 public:
  /// Nothing without the switch. Its value names the file that holds certificate and key; without one they are made
  /// now. The library's exception where they cannot be had, SecureFileException for a file.
  [[nodiscard]] static std::optional<SecureListening> fromSwitches(const SwitchMap& switches);

  /// Shows the certificate's fingerprint, and says it where other accounts may read the key's file.
  void announce(std::ostream& console) const;

  /// How the server's connections get their sockets.
  [[nodiscard]] const net::MakeAcceptedSocket& makeSocket() const noexcept { return make_; }

 private:
  SecureListening() = default;

  net::MakeAcceptedSocket make_;
  std::string fingerprint_;
  std::string openFile_;  ///< the file that others may read, empty when they may not
};

}  // namespace keltop
