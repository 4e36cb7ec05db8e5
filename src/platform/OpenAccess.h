#pragma once

#include <cstddef>

namespace keltop::platform {

/// The access rule of every named object: all accounts may open it.
///
/// Windows: a security descriptor of revision 1 with a present, null access list, in security attributes that are not
/// inheritable. Linux: file mode 0666 whatever the umask says; cannot fail.
class OpenAccess {
 public:
  OpenAccess() noexcept;
  OpenAccess(const OpenAccess&) = delete;
  OpenAccess& operator=(const OpenAccess&) = delete;
  ~OpenAccess() = default;

  /// False when the system refused to build the rule; then no object may be created with it.
  [[nodiscard]] bool ready() const noexcept { return ready_; }

  /// The system's form of the rule, valid as long as this object; only the platform's own code looks at it.
  [[nodiscard]] const void* attributes() const noexcept { return storage_; }

 private:
  alignas(std::max_align_t) std::byte storage_[64] = {};
  bool ready_ = false;
};

}  // namespace keltop::platform
