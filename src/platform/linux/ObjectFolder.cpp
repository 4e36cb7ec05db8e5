#include "platform/linux/ObjectFolder.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/KernelObjects.h"
#include "platform/NoDestructor.h"

namespace keltop::platform {

namespace {

constexpr const char* kFolderVariable = "KELTOP_OBJECT_DIR";
constexpr const char* kSharedMemoryFolder = "/dev/shm";
constexpr const char* kTemporaryFolder = "/tmp";
constexpr std::string_view kFilePrefix = "keltop.";
constexpr std::size_t kLongestFileName = 255;

/// How often a name may change hands between two looks at it before that is an error.
constexpr int kMostRetries = 1000;

std::string objectFolder() {
  if (const char* folder = std::getenv(kFolderVariable); folder != nullptr && *folder != '\0') {
    return folder;
  }
  return ::access(kSharedMemoryFolder, W_OK | X_OK) == 0 ? kSharedMemoryFolder : kTemporaryFolder;
}

/// The name as one path component, each name a different one: what could be taken for something else is written as
/// "%" and two hexadecimal digits.
std::string fileNameOf(const std::string& name) {
  static constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string fileName(kFilePrefix);
  for (const char character : name) {
    if (kPlain.find(character) != std::string_view::npos) {
      fileName += character;
    } else {
      const auto byte = static_cast<unsigned char>(character);
      fileName += {'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
  }
  return fileName;
}

std::uint32_t errorOf(int systemError) noexcept {
  switch (systemError) {
    case ENOENT:
      return kErrorFileNotFound;
    case ENAMETOOLONG:
      return kErrorFilenameTooLong;
    case ENOMEM:
    case ENOSPC:
    case EMFILE:
    case ENFILE:
      return kErrorNotEnoughMemory;
    default:
      return kErrorAccessDenied;
  }
}

bool succeeded(std::uint32_t error) noexcept {
  return error == kNoError || error == kErrorAlreadyExists;
}

/// Decides, with the state lock held, what the file under the name is: a living object of the type asked for
/// (kErrorAlreadyExists), a dead one that was made new (kNoError), or an error. The life lock is held after a success.
std::uint32_t takeUp(const StateFile& file, const ObjectState& initial, bool create) {
  std::uint32_t error = kErrorAlreadyExists;
  if (file.lockedElsewhere(StateFile::LockByte::life)) {
    const std::optional<ObjectState> state = file.read();
    if (!state) {
      return kErrorInvalidData;
    }
    if (state->type != initial.type) {
      return kErrorInvalidHandle;
    }
  } else {
    // What a dead process left behind counts for nothing, not even as a name.
    if (!create) {
      return kErrorFileNotFound;
    }
    file.openToAll();
    if (!file.initialize(initial)) {
      return kErrorAccessDenied;
    }
    error = kNoError;
  }
  return file.tryLockShared(StateFile::LockByte::life) ? error : kErrorBusy;
}

/// A thread may own a mutex whose handle it has closed; when the last other holder is then killed, nobody removes the
/// file, and that ownership would pass into the next object in it. So that one gets a file of its own.
bool ownedPastDeath(const StateFile& file) noexcept {
  return !file.lockedElsewhere(StateFile::LockByte::life) && file.lockedElsewhere(StateFile::LockByte::owner);
}

/// This process's named objects by file, so that its handles to one object share one.
class Registry {
 public:
  NamedResult find(const std::string& name, const ObjectState& initial, bool create);

 private:
  /// One look at the name; nothing means that it changed hands meanwhile and is to be looked at again.
  std::optional<NamedResult> look(const std::string& path, const std::string& folder, const ObjectState& initial,
                                  bool create);
  std::optional<NamedResult> createFresh(const std::string& path, const std::string& folder,
                                         const ObjectState& initial);
  NamedResult share(StateFile file, const std::string& path, ObjectType type, std::uint32_t error);

  std::mutex guard_;
  std::map<StateFile::Identity, std::weak_ptr<NamedObject>> objects_;
};

NamedResult Registry::find(const std::string& name, const ObjectState& initial, bool create) {
  const std::lock_guard<std::mutex> guard(guard_);
  std::erase_if(objects_, [](const auto& entry) { return entry.second.expired(); });
  const std::string fileName = fileNameOf(name);
  if (fileName.size() > kLongestFileName) {
    return {nullptr, kErrorFilenameTooLong};
  }
  const std::string folder = objectFolder();
  const std::string path = folder + "/" + fileName;
  for (int i = 0; i < kMostRetries; ++i) {
    if (std::optional<NamedResult> result = look(path, folder, initial, create)) {
      return std::move(*result);
    }
  }
  return {nullptr, kErrorBusy};
}

std::optional<NamedResult> Registry::look(const std::string& path, const std::string& folder,
                                          const ObjectState& initial, bool create) {
  auto [file, openError] = StateFile::open(path);
  if (!file) {
    return openError == ENOENT && create ? createFresh(path, folder, initial)
                                         : NamedResult{nullptr, errorOf(openError)};
  }
  std::uint32_t error = kErrorBusy;
  {
    const StateLock lock(*file);
    if (!lock.held()) {
      return NamedResult{nullptr, error};
    }
    // Its last user may have removed the file between the opening and the lock.
    if (StateFile::identityOf(path) != file->identity()) {
      return std::nullopt;
    }
    if (create && ownedPastDeath(*file) && ::unlink(path.c_str()) == 0) {
      return std::nullopt;
    }
    error = takeUp(*file, initial, create);
  }
  return succeeded(error) ? share(std::move(*file), path, initial.type, error) : NamedResult{nullptr, error};
}

std::optional<NamedResult> Registry::createFresh(const std::string& path, const std::string& folder,
                                                 const ObjectState& initial) {
  auto [file, createError] = StateFile::createUnnamed(folder, initial);
  if (!file) {
    return NamedResult{nullptr, errorOf(createError)};
  }
  if (const int linkError = file->linkTo(path); linkError != 0) {
    return linkError == EEXIST ? std::nullopt : std::optional(NamedResult{nullptr, errorOf(linkError)});
  }
  return share(std::move(*file), path, initial.type, kNoError);
}

/// `file` holds the life lock, so the object cannot die meanwhile.
NamedResult Registry::share(StateFile file, const std::string& path, ObjectType type, std::uint32_t error) {
  const std::optional<StateFile::Identity> identity = file.identity();
  if (!identity) {
    return {nullptr, kErrorInvalidData};
  }
  std::weak_ptr<NamedObject>& entry = objects_[*identity];
  std::shared_ptr<NamedObject> object = entry.lock();
  if (!object || object->type() != type) {
    object = std::make_shared<NamedObject>(type, std::move(file), path);
    entry = object;
  } else if (error == kNoError) {
    object->renew();
  }
  return object->handleOpened() ? NamedResult{object, error} : NamedResult{nullptr, kErrorBusy};
}

Registry& registry() {
  static NoDestructor<Registry> instance;
  return instance.get();
}

}  // namespace

NamedResult createNamedObject(const std::string& name, const ObjectState& state) {
  return registry().find(name, state, true);
}

NamedResult openNamedObject(const std::string& name, ObjectType type) {
  return registry().find(name, ObjectState{type, 0, 1}, false);
}

}  // namespace keltop::platform
