#include "platform/Settings.h"

#include <atomic>
#include <cstdlib>

#include "platform/linux/DataLocation.h"

namespace keltop::platform {

namespace {

constexpr const char* kDataLocationVariable = "KELTOP_DATA_LOCATION";
constexpr const char* kSettingsFile = "/etc/tarvik.conf";

std::atomic<DataLocationSource> replaced = nullptr;

}  // namespace

char pathSeparator() noexcept {
  return '/';
}

std::string dataLocation() {
  const DataLocationSource source = replaced.load();
  return source != nullptr ? source() : dataLocationFrom(std::getenv(kDataLocationVariable), kSettingsFile);
}

void setDataLocationSource(DataLocationSource source) noexcept {
  replaced.store(source);
}

}  // namespace keltop::platform
