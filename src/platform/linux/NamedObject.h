#pragma once

#include <string>
#include <utility>

#include "platform/linux/KernelObject.h"

namespace keltop::platform {

/// An object with a name: the state lies in a file that every process of the machine can open. One per file and
/// process, shared by all of the process's handles, since the kernel's locks tell open files apart, not threads.
class NamedObject : public KernelObject {
 public:
  /// `file` holds the life lock. `path` is the name the file bears.
  // cppcheck-suppress passedByValue ; moved from, into a constant member
  NamedObject(ObjectType type, StateFile file, std::string path) noexcept
      : KernelObject(type), file_(std::move(file)), path_(std::move(path)) {}

  /// A further handle was opened; the first one was counted by whoever made the object. False when the object could
  /// not be kept alive.
  [[nodiscard]] bool handleOpened() noexcept;

  /// The object came to life anew in the file: whoever still owned the old one owns nothing.
  void renew() noexcept;

  /// With the last handle of the last process the file goes too, where this account may remove it; what stays is
  /// recognised as dead by the missing life lock.
  void handleClosed() noexcept override;

 protected:
  [[nodiscard]] std::optional<ObjectState> readState() override;
  [[nodiscard]] bool writeValue(std::uint32_t value) override { return file_.writeValue(value); }
  [[nodiscard]] bool beginChange() override { return file_.lockState(); }
  void endChange() noexcept override { file_.unlock(StateFile::LockByte::state); }
  [[nodiscard]] bool claim() override { return file_.tryLockExclusive(StateFile::LockByte::owner); }
  void disclaim() noexcept override;
  [[nodiscard]] std::unique_ptr<Watch> watch() override;

 private:
  class FileWatch;

  StateFile file_;
  const std::string path_;
  std::size_t handles_ = 0;
};

}  // namespace keltop::platform
