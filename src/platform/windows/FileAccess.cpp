#include "platform/FileAccess.h"

#include <windows.h>

// After it.
#include <aclapi.h>

#include <array>
#include <memory>

namespace keltop::platform {

namespace {

struct LocalFreeing {
  void operator()(void* block) const noexcept { ::LocalFree(block); }
};

bool isOneOfMany(PSID account) noexcept {
  constexpr std::array kMany = {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid};
  for (const WELL_KNOWN_SID_TYPE many : kMany) {
    if (::IsWellKnownSid(account, many) != FALSE) {
      return true;
    }
  }
  return false;
}

bool letsManyRead(ACL& list, DWORD number) noexcept {
  constexpr DWORD kReading = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;
  void* found = nullptr;
  if (::GetAce(&list, number, &found) == FALSE || static_cast<ACE_HEADER*>(found)->AceType != ACCESS_ALLOWED_ACE_TYPE) {
    return false;
  }
  auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(found);
  return (entry->Mask & kReading) != 0 && isOneOfMany(&entry->SidStart);
}

}  // namespace

bool othersMayRead(const std::string& path) noexcept {
  ACL* list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (::GetNamedSecurityInfoA(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list, nullptr,
                              &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const std::unique_ptr<void, LocalFreeing> owner(descriptor);
  if (list == nullptr) {
    return true;  // without a list everybody may do everything
  }
  for (DWORD number = 0; number < list->AceCount; ++number) {
    if (letsManyRead(*list, number)) {
      return true;
    }
  }
  return false;
}

}  // namespace keltop::platform
