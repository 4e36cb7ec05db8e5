#include "platform/OpenAccess.h"

#include <windows.h>

#include <new>

#include "platform/windows/LastError.h"

namespace keltop::platform {

namespace {

/// The attributes come first, so that the rule's address is theirs.
struct Rule {
  SECURITY_ATTRIBUTES attributes = {};
  SECURITY_DESCRIPTOR descriptor = {};
};

static_assert(sizeof(SECURITY_ATTRIBUTES) == 24);

}  // namespace

OpenAccess::OpenAccess() noexcept {
  static_assert(sizeof(Rule) <= sizeof storage_);
  Rule& rule = *::new (static_cast<void*>(storage_)) Rule;
  ready_ = ::InitializeSecurityDescriptor(&rule.descriptor, SECURITY_DESCRIPTOR_REVISION) != FALSE &&
           ::SetSecurityDescriptorDacl(&rule.descriptor, TRUE, nullptr, FALSE) != FALSE;
  if (!ready_) {
    keepLastError();
  }
  rule.attributes = {sizeof rule.attributes, &rule.descriptor, FALSE};
}

}  // namespace keltop::platform
