#include "platform/linux/ObjectFolder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/KernelObjects.h"
#include "platform/NoDestructor.h"
#include "platform/linux/FolderLock.h"
#include "platform/linux/HolderSocket.h"

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

/// What is looked for, and where.
struct Search {
  ObjectPlace place;
  std::string folder;
  ObjectState initial;
  bool create = false;
};

/// The place of a name: its key tells the folder by file system and path, so that it is the same after the folder was
/// removed and made again, and another one for those who see another folder under that path.
ObjectPlace placeOf(const std::string& folder, const std::string& fileName) {
  ObjectPlace place = {folder + "/" + fileName, {}, 0};
  struct stat status = {};
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(folder, error);
  if (!error && ::stat(folder.c_str(), &status) == 0) {
    place.device = status.st_dev;
    place.key = std::to_string(status.st_dev) + ":" + real.string() + "/" + fileName;
  }
  return place;
}

/// This process's named objects by file, so that its handles to one object share one.
class Registry {
 public:
  NamedResult find(const std::string& name, const ObjectState& initial, bool create);

 private:
  std::optional<NamedResult> findHere(const std::string& path, ObjectType type);
  NamedResult findOnMachine(const Search& search);
  /// One look at the name; nothing means that it changed hands meanwhile and is to be looked at again.
  std::optional<NamedResult> look(const Search& search);
  std::optional<NamedResult> lookAt(StateFile file, const Search& search);
  std::optional<NamedResult> askHolders(const Search& search);
  std::optional<NamedResult> createFresh(const Search& search);
  NamedResult share(StateFile file, const Search& search, std::uint32_t error);

  std::mutex guard_;
  std::map<StateFile::Identity, std::weak_ptr<NamedObject>> objects_;
  std::map<std::string, std::weak_ptr<NamedObject>> byPath_;  ///< the same, by where they were found
};

NamedResult Registry::find(const std::string& name, const ObjectState& initial, bool create) {
  const std::lock_guard<std::mutex> guard(guard_);
  const std::string fileName = fileNameOf(name);
  if (fileName.size() > kLongestFileName) {
    return {nullptr, kErrorFilenameTooLong};
  }
  const std::string folder = objectFolder();
  if (std::optional<NamedResult> held = findHere(folder + "/" + fileName, initial.type)) {
    return std::move(*held);
  }
  for (const auto& entry : objects_) {
    if (const std::shared_ptr<NamedObject> object = entry.second.lock()) {
      object->endIfDead();
    }
  }
  const auto expired = [](const auto& entry) { return entry.second.expired(); };
  std::erase_if(objects_, expired);
  std::erase_if(byPath_, expired);
  return findOnMachine({placeOf(folder, fileName), folder, initial, create});
}

/// An object that this process holds needs no look at the machine: whatever became of its file, it is the one.
std::optional<NamedResult> Registry::findHere(const std::string& path, ObjectType type) {
  const auto entry = byPath_.find(path);
  std::shared_ptr<NamedObject> object = entry == byPath_.end() ? nullptr : entry->second.lock();
  if (!object || object->type() != type || !object->handleAdded()) {
    return std::nullopt;
  }
  return NamedResult{std::move(object), kErrorAlreadyExists};
}

NamedResult Registry::findOnMachine(const Search& search) {
  // cppcheck-suppress unreadVariable ; its scope is what counts
  const FolderLock lock(search.folder);
  for (int i = 0; i < kMostRetries; ++i) {
    if (std::optional<NamedResult> result = look(search)) {
      return std::move(*result);
    }
  }
  return {nullptr, kErrorBusy};
}

std::optional<NamedResult> Registry::look(const Search& search) {
  auto [file, openError] = StateFile::open(search.place.path);
  if (file) {
    return lookAt(std::move(*file), search);
  }
  if (std::optional<NamedResult> held = askHolders(search)) {
    return held;
  }
  return openError == ENOENT && search.create ? createFresh(search) : NamedResult{nullptr, errorOf(openError)};
}

/// Looks at the file that was found under the name.
std::optional<NamedResult> Registry::lookAt(StateFile file, const Search& search) {
  std::uint32_t error = kErrorBusy;
  {
    const StateLock lock(file);
    if (!lock.held()) {
      return NamedResult{nullptr, error};
    }
    // Its last user may have removed the file between the opening and the lock.
    if (StateFile::identityOf(search.place.path) != file.identity()) {
      return std::nullopt;
    }
    if (!file.lockedElsewhere(StateFile::LockByte::life)) {
      // A dead file: somebody may have put it in the place of a living object's.
      if (std::optional<NamedResult> held = askHolders(search)) {
        return held;
      }
    }
    if (search.create && ownedPastDeath(file) && ::unlink(search.place.path.c_str()) == 0) {
      return std::nullopt;
    }
    error = takeUp(file, search.initial, search.create);
  }
  return succeeded(error) ? share(std::move(file), search, error) : NamedResult{nullptr, error};
}

/// The living object whose file is not under its name, from those who hold it; nothing when nobody does.
std::optional<NamedResult> Registry::askHolders(const Search& search) {
  HolderAnswer answer = HolderSocket::ask(search.place);
  if (!answer.file) {
    // Who holds the object without answering holds it all the same: there must be no second one.
    return answer.silent ? std::optional(NamedResult{nullptr, kErrorBusy}) : std::nullopt;
  }
  std::uint32_t error = kErrorBusy;
  {
    const StateLock lock(*answer.file);
    if (lock.held()) {
      if (!answer.file->lockedElsewhere(StateFile::LockByte::life)) {
        return std::nullopt;  // it ended meanwhile
      }
      error = takeUp(*answer.file, search.initial, false);
    }
  }
  return succeeded(error) ? share(std::move(*answer.file), search, error) : NamedResult{nullptr, error};
}

std::optional<NamedResult> Registry::createFresh(const Search& search) {
  auto [file, createError] = StateFile::createUnnamed(search.folder, search.initial);
  if (!file) {
    return NamedResult{nullptr, errorOf(createError)};
  }
  if (const int linkError = file->linkTo(search.place.path); linkError != 0) {
    return linkError == EEXIST ? std::nullopt : std::optional(NamedResult{nullptr, errorOf(linkError)});
  }
  return share(std::move(*file), search, kNoError);
}

/// `file` holds the life lock, so the object cannot die meanwhile.
NamedResult Registry::share(StateFile file, const Search& search, std::uint32_t error) {
  const std::optional<StateFile::Identity> identity = file.identity();
  if (!identity) {
    return {nullptr, kErrorInvalidData};
  }
  std::weak_ptr<NamedObject>& entry = objects_[*identity];
  std::shared_ptr<NamedObject> object = entry.lock();
  if (!object || object->type() != search.initial.type) {
    object = std::make_shared<NamedObject>(search.initial.type, std::move(file), search.place);
    entry = object;
  } else if (error == kNoError) {
    object->renew();
  }
  byPath_[search.place.path] = object;
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
