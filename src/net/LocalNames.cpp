#include "net/LocalNames.h"

#include <Poco/Exception.h>
#include <Poco/Net/DNS.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/NetworkInterface.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

namespace keltop::net {

namespace {

using Poco::Net::IPAddress;

constexpr const char* kLocalName = "localhost";

/// A name that a certificate can hold as a DNS name.
bool isHostName(std::string_view name) noexcept {
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
  };
  return !name.empty() && std::all_of(name.begin(), name.end(), fits);
}

std::vector<std::string> localHosts() {
  std::vector<std::string> names;
  try {
    if (std::string name = Poco::Net::DNS::hostName(); isHostName(name) && name != kLocalName) {
      names.push_back(std::move(name));
    }
  } catch (const Poco::Exception&) {
    // A machine without a name.
  }
  names.emplace_back(kLocalName);
  return names;
}

std::set<IPAddress> localAddresses() {
  std::set<IPAddress> addresses = {IPAddress("127.0.0.1")};
  try {
    for (const auto& network : Poco::Net::NetworkInterface::list()) {
      addresses.insert(network.address());
    }
  } catch (const Poco::Exception&) {
    // What the system does not tell is not in the certificate.
  }
  return addresses;
}

}  // namespace

LocalNames localNames() {
  LocalNames names = {.hosts = localHosts(), .addresses = {}};
  for (const IPAddress& address : localAddresses()) {
    names.addresses.emplace_back(static_cast<const char*>(address.addr()), address.length());
  }
  return names;
}

}  // namespace keltop::net
