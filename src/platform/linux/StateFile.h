#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/ByteLock.h"
#include "platform/linux/FileDescriptor.h"

namespace keltop::platform {

enum class ObjectType : std::uint32_t { event = 1, mutex = 2, semaphore = 3 };

/// What there is to know of an object. `value` is an event's signal (0, 1), a semaphore's count (0 to `limit`) or, of
/// a mutex, whether an owner has not released it (0, 1).
struct ObjectState {
  ObjectType type = ObjectType::event;
  std::uint32_t value = 0;
  std::uint32_t limit = 1;
};

/// One open file that holds a named object's state, and the kernel's locks on it.
///
/// Every account can write such a file, so nothing in it is trusted: the state is read with plain reads and checked
/// each time. What must survive the death of a process without its doing is held by the kernel: locks on single bytes
/// of the open file description, which vanish with it.
///
/// The layout, 24 bytes in the machine's byte order: "KELTOBJ1", the type, the value, the limit, and a number that is
/// only written to wake those who watch the file.
class StateFile {
 public:
  /// The bytes that are locked; they lie past the content, where a lock hinders no read or write.
  enum class LockByte : std::int64_t {
    state = 4096,  ///< exclusive: somebody changes the state, or which file bears the name
    life = 4097,   ///< shared: a handle is open. Nobody holds it: the object is dead, whatever the content says
    owner = 4098,  ///< exclusive: a mutex has an owner
  };

  explicit StateFile(FileDescriptor file) noexcept : file_(std::move(file)) {}

  /// A new file in that folder, not yet under any name, readable and writable for all, which already holds the state
  /// and the life lock. Errors as errno has them in the second part.
  [[nodiscard]] static std::pair<std::optional<StateFile>, int> createUnnamed(const std::string& folder,
                                                                              const ObjectState& state) noexcept;

  /// Opens a file under its name; never follows a link, never creates.
  [[nodiscard]] static std::pair<std::optional<StateFile>, int> open(const std::string& path) noexcept;

  /// Gives the file a name; 0, or errno (EEXIST when the name is taken).
  [[nodiscard]] int linkTo(const std::string& path) const;

  /// The state, or nothing when the content is not exactly one that this program writes.
  [[nodiscard]] std::optional<ObjectState> read() const noexcept;

  /// Makes the content that state and nothing else, whatever it was.
  [[nodiscard]] bool initialize(const ObjectState& state) const noexcept;

  [[nodiscard]] bool writeValue(std::uint32_t value) const noexcept;

  /// Wakes those who watch the file, without changing the state.
  void touch() const noexcept;

  [[nodiscard]] bool tryLockExclusive(LockByte byte) const noexcept;
  [[nodiscard]] bool tryLockShared(LockByte byte) const noexcept;
  void unlock(LockByte byte) const noexcept;
  [[nodiscard]] bool lockedElsewhere(LockByte byte) const noexcept;

  /// Takes the state lock, waiting for a bounded time: a stopped or hostile holder gives false, never a hang.
  [[nodiscard]] bool lockState(std::chrono::milliseconds patience = kLockPatience) const noexcept;

  /// Device and inode: which file this is, under whatever name.
  using Identity = std::pair<dev_t, ino_t>;
  [[nodiscard]] std::optional<Identity> identity() const noexcept;

  /// Which file bears that name now.
  [[nodiscard]] static std::optional<Identity> identityOf(const std::string& path) noexcept;

  /// Opens the file's mode for all accounts; only its owner can, so the result does not matter.
  void openToAll() const noexcept;

  [[nodiscard]] int descriptor() const noexcept { return file_.get(); }

 private:
  FileDescriptor file_;
};

/// Holds the state lock of a file for a scope.
class StateLock {
 public:
  explicit StateLock(const StateFile& file) noexcept : file_(file), held_(file.lockState()) {}
  ~StateLock() {
    if (held_) {
      file_.unlock(StateFile::LockByte::state);
    }
  }
  StateLock(const StateLock&) = delete;
  StateLock& operator=(const StateLock&) = delete;
  [[nodiscard]] bool held() const noexcept { return held_; }

 private:
  const StateFile& file_;
  bool held_;
};

}  // namespace keltop::platform
