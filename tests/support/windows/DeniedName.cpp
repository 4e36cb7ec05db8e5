#include "support/DeniedName.h"

#include <windows.h>

namespace keltop {

/// A mutex whose access list is there and empty: nobody may open it.
DeniedName::DeniedName() {
  ACL nobody = {};
  ::InitializeAcl(&nobody, sizeof nobody, ACL_REVISION);
  SECURITY_DESCRIPTOR descriptor = {};
  ::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
  ::SetSecurityDescriptorDacl(&descriptor, TRUE, &nobody, FALSE);
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, &descriptor, FALSE};
  held_ = reinterpret_cast<std::uintptr_t>(::CreateMutexA(&attributes, FALSE, ("Global\\" + text_).c_str()));
}

DeniedName::~DeniedName() {
  ::CloseHandle(reinterpret_cast<HANDLE>(held_));
}

}  // namespace keltop
