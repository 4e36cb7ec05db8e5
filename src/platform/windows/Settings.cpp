#include "platform/Settings.h"

#include <windows.h>

#include <array>
#include <atomic>

namespace keltop::platform {

namespace {

constexpr const char* kSettingsKey = "Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\tarvik";
constexpr const char* kDataLocationValue = "DataLocation";
constexpr const char* kFallbackDrive = "C:";
constexpr const char* kFallbackFolder = "\\vs";
constexpr DWORD kLongestValue = 1023;

std::atomic<DataLocationSource> replaced = nullptr;

/// The value's text, or nothing when the key or the value is missing.
std::string readSetting(const char* key, const char* value) {
  HKEY opened = nullptr;
  if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, KEY_READ | KEY_WOW64_32KEY, &opened) != ERROR_SUCCESS) {
    return {};
  }
  // One byte more than is asked for: a stored text need not end with a zero.
  std::array<BYTE, kLongestValue + 1> text = {};
  DWORD length = kLongestValue;
  const LSTATUS result = ::RegQueryValueExA(opened, value, nullptr, nullptr, text.data(), &length);
  ::RegCloseKey(opened);
  return result == ERROR_SUCCESS ? std::string(reinterpret_cast<const char*>(text.data())) : std::string();
}

}  // namespace

char pathSeparator() noexcept {
  return '\\';
}

std::string dataLocation() {
  if (const DataLocationSource source = replaced.load(); source != nullptr) {
    return source();
  }
  std::string location = readSetting(kSettingsKey, kDataLocationValue);
  return location.empty() ? std::string(kFallbackDrive).append(kFallbackFolder) : location;
}

void setDataLocationSource(DataLocationSource source) noexcept {
  replaced.store(source);
}

}  // namespace keltop::platform
