#pragma once

#include <cstddef>
#include <optional>
#include <utility>

#include "platform/linux/HolderSocket.h"
#include "platform/linux/KernelObject.h"

namespace keltop::platform {

/// An object with a name: the state lies in a file that every process of the machine can open. One per file and
/// process, shared by all of the process's handles, since the kernel's locks tell open files apart, not threads.
class NamedObject : public KernelObject {
 public:
  /// `file` holds the life lock. `place` is where the file lies.
  // cppcheck-suppress passedByValue ; moved from, into a constant member
  NamedObject(ObjectType type, StateFile file, ObjectPlace place) noexcept
      : KernelObject(type), file_(std::move(file)), place_(std::move(place)) {}

  /// A handle was opened. False when the object could not be kept alive.
  [[nodiscard]] bool handleOpened() noexcept;

  /// A further handle was opened, beside others of this process. False, and nothing counted, when there are none or
  /// the state is no longer one that this program writes.
  [[nodiscard]] bool handleAdded();

  /// The object came to life anew in the file: whoever still owned the old one owns nothing.
  void renew() noexcept;

  /// A thread may own a mutex whose handles this process has closed. Once nobody has one, nobody owns it either, and
  /// its descriptor goes.
  void endIfDead() noexcept;

  /// With the last handle of the last process the file goes too, where this account may remove it; what stays is
  /// recognised as dead by the missing life lock.
  void handleClosed() noexcept override;

 protected:
  [[nodiscard]] std::optional<ObjectState> readState() override;
  [[nodiscard]] bool writeValue(std::uint32_t value) override { return file_.writeValue(value); }
  [[nodiscard]] bool beginChange(std::chrono::milliseconds patience) override { return file_.lockState(patience); }
  void endChange() noexcept override { file_.unlock(StateFile::LockByte::state); }
  [[nodiscard]] bool claim() override { return file_.tryLockExclusive(StateFile::LockByte::owner); }
  void disclaim() noexcept override;
  [[nodiscard]] std::unique_ptr<Watch> watch() override;

 private:
  class FileWatch;

  StateFile file_;
  const ObjectPlace place_;
  std::size_t handles_ = 0;
  std::optional<HolderSocket> socket_;  ///< as long as there are handles; ends before the file does
};

}  // namespace keltop::platform
