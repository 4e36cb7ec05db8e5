#pragma once

#include <cstdint>
#include <string>

#include "product/SwitchMap.h"

namespace keltop {

/// Sends `body` to the address of the switch "URL" and prints the request and what came back: as a hand-written request
/// when there is a switch "RAW", else by HTTP or HTTPS, as the URL says. The protocol code selects the content type.
///
/// Failures of the exchange are printed; an address that cannot be read and, the raw way, a host that cannot be
/// resolved are the network library's exceptions.
void Post(const SwitchMap& switches, std::uint32_t protocol, std::string userAgent, const std::string& body);

}  // namespace keltop
