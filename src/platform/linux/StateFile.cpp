#include "platform/linux/StateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>

#include "platform/linux/ByteLock.h"

namespace keltop::platform {

namespace {

constexpr std::array<char, 8> kMagic = {'K', 'E', 'L', 'T', 'O', 'B', 'J', '1'};
constexpr mode_t kModeForAll = 0666;

struct Content {
  std::array<char, 8> magic = kMagic;
  std::uint32_t type = 0;
  std::uint32_t value = 0;
  std::uint32_t limit = 0;
  std::uint32_t wake = 0;
};
static_assert(sizeof(Content) == 24 && std::is_trivially_copyable_v<Content>);

bool writeAt(int file, const void* bytes, std::size_t length, std::size_t offset) noexcept {
  return ::pwrite(file, bytes, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

std::int64_t numberOf(StateFile::LockByte byte) noexcept {
  return static_cast<std::int64_t>(byte);
}

bool plausible(const Content& content) noexcept {
  if (content.magic != kMagic) {
    return false;
  }
  switch (static_cast<ObjectType>(content.type)) {
    case ObjectType::event:
    case ObjectType::mutex:
      return content.limit == 1 && content.value <= 1;
    case ObjectType::semaphore:
      return content.limit >= 1 &&
             content.limit <= static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()) &&
             content.value <= content.limit;
  }
  return false;
}

std::optional<StateFile::Identity> identityIn(const struct stat& status) noexcept {
  if (!S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return StateFile::Identity(status.st_dev, status.st_ino);
}

}  // namespace

std::pair<std::optional<StateFile>, int> StateFile::createUnnamed(const std::string& folder,
                                                                  const ObjectState& state) noexcept {
  StateFile file(FileDescriptor(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kModeForAll)));
  // The mode again, past the umask. All of it before the file has a name: nobody ever meets it half made.
  if (!file.file_.valid() || ::fchmod(file.descriptor(), kModeForAll) != 0 || !file.initialize(state) ||
      !file.tryLockShared(LockByte::life)) {
    return {std::nullopt, errno};
  }
  return {std::move(file), 0};
}

std::pair<std::optional<StateFile>, int> StateFile::open(const std::string& path) noexcept {
  // Without O_CREAT: fs.protected_regular refuses it on another account's file in a sticky folder.
  // O_NONBLOCK: a pipe under the name must not hang the opener.
  StateFile file(FileDescriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)));
  if (!file.file_.valid()) {
    return {std::nullopt, errno};
  }
  if (!file.identity()) {
    return {std::nullopt, EACCES};
  }
  return {std::move(file), 0};
}

int StateFile::linkTo(const std::string& path) const {
  const std::string self = "/proc/self/fd/" + std::to_string(descriptor());
  return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

std::optional<ObjectState> StateFile::read() const noexcept {
  struct stat status = {};
  Content content;
  if (::fstat(descriptor(), &status) != 0 || status.st_size != static_cast<off_t>(sizeof content) ||
      ::pread(descriptor(), &content, sizeof content, 0) != static_cast<ssize_t>(sizeof content) ||
      !plausible(content)) {
    return std::nullopt;
  }
  return ObjectState{static_cast<ObjectType>(content.type), content.value, content.limit};
}

bool StateFile::initialize(const ObjectState& state) const noexcept {
  Content content;
  content.type = static_cast<std::uint32_t>(state.type);
  content.value = state.value;
  content.limit = state.limit;
  return ::ftruncate(descriptor(), static_cast<off_t>(sizeof content)) == 0 &&
         writeAt(descriptor(), &content, sizeof content, 0);
}

bool StateFile::writeValue(std::uint32_t value) const noexcept {
  return writeAt(descriptor(), &value, sizeof value, offsetof(Content, value));
}

void StateFile::touch() const noexcept {
  const std::uint32_t wake = 0;
  (void)writeAt(descriptor(), &wake, sizeof wake, offsetof(Content, wake));
}

bool StateFile::tryLockExclusive(LockByte byte) const noexcept {
  return setByteLock(descriptor(), numberOf(byte), F_WRLCK);
}

bool StateFile::tryLockShared(LockByte byte) const noexcept {
  return setByteLock(descriptor(), numberOf(byte), F_RDLCK);
}

void StateFile::unlock(LockByte byte) const noexcept {
  (void)setByteLock(descriptor(), numberOf(byte), F_UNLCK);
}

bool StateFile::lockedElsewhere(LockByte byte) const noexcept {
  return byteLockedElsewhere(descriptor(), numberOf(byte)).value_or(true);
}

bool StateFile::lockState(std::chrono::milliseconds patience) const noexcept {
  return waitForByteLock(descriptor(), numberOf(LockByte::state), patience);
}

std::optional<StateFile::Identity> StateFile::identity() const noexcept {
  struct stat status = {};
  return ::fstat(descriptor(), &status) == 0 ? identityIn(status) : std::nullopt;
}

std::optional<StateFile::Identity> StateFile::identityOf(const std::string& path) noexcept {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0 ? identityIn(status) : std::nullopt;
}

void StateFile::openToAll() const noexcept {
  (void)::fchmod(descriptor(), kModeForAll);
}

}  // namespace keltop::platform
