#include "app/SecureListening.h"

#include <Poco/Exception.h>

#include <algorithm>

#include "net/SecureIdentity.h"
#include "net/SecureSocket.h"
#include "platform/FileAccess.h"
#include "product/ConsoleStream.h"

namespace keltop {

namespace {

/// A file whose name begins with "/" or "-" is not taken for the value of a switch, but for a switch. A certificate
/// that nobody asked for would be used in its place.
void refuseFileTakenForSwitch(const SwitchMap& switches) {
  const auto namesAFile = [](const SwitchMap::value_type& entry) {
    return entry.first.find_first_of("/\\.") != std::string::npos;
  };
  if (std::any_of(switches.begin(), switches.end(), namesAFile)) {
    throw Poco::InvalidArgumentException(R"(a file whose name begins with "/" or "-" has to follow ~tls, not -tls)");
  }
}

void showFailure(const Poco::Exception& error) {
  ConsoleStream() << "Error: " << error.displayText() << std::endl;
}

}  // namespace

std::optional<SecureListening> SecureListening::fromSwitches(const SwitchMap& switches) {
  const std::string* const file = findSwitch(switches, "TLS");
  if (file == nullptr) {
    return std::nullopt;
  }
  if (file->empty()) {
    refuseFileTakenForSwitch(switches);
  }
  const net::SecureIdentity identity =
      file->empty() ? net::SecureIdentity::makeOwn() : net::SecureIdentity::load(*file);
  SecureListening found;
  // A raw connection shows by itself what becomes of it.
  const bool raw = findSwitch(switches, "RAW") != nullptr;
  found.make_ = net::makeSecureSockets(identity, raw ? nullptr : net::HandshakeFailed(showFailure));
  found.fingerprint_ = identity.fingerprint();
  if (!file->empty() && platform::othersMayRead(*file)) {
    found.openFile_ = *file;
  }
  return found;
}

void SecureListening::announce(std::ostream& console) const {
  console << "TLS certificate SHA-256: " << fingerprint_ << "\r\n" << std::endl;
  if (!openFile_.empty()) {
    console << "Other accounts may read the private key in " << openFile_ << "\r\n" << std::endl;
  }
}

}  // namespace keltop
