// Named objects whose files somebody else writes, cuts, removes, replaces and locks. Before each call the file is
// looked at, by nothing of the program's, and so is known what the call must give and leave in the file. At the end no
// descriptor is left, and no file but the others' own.
//
// Input: a byte for each operation, and those that it needs.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/KernelObjects.h"
#include "platform/linux/FileDescriptor.h"
#include "semaphore/EventSemaphore.h"
#include "semaphore/Mutex.h"
#include "semaphore/Semaphore.h"
#include "support/Check.h"
#include "support/Input.h"
#include "support/ObjectFolder.h"
#include "support/TemporaryFolder.h"

namespace keltop::fuzz {

namespace {

namespace fs = std::filesystem;
using platform::FileDescriptor;

constexpr const char* kName = "x";
constexpr const char* kFileName = "keltop.Global%5Cx";
constexpr std::size_t kMostHandles = 6;

/// The file's layout: what it begins with, and where its numbers stand.
constexpr std::string_view kMagic = "KELTOBJ1";
constexpr std::size_t kTypeOffset = 8;
constexpr std::size_t kValueOffset = 12;
constexpr std::size_t kLimitOffset = 16;
constexpr std::size_t kFileSize = 24;

/// The bytes of it that are locked.
constexpr off_t kLifeByte = 4097;
constexpr off_t kOwnerByte = 4098;

enum class Type : std::uint32_t { event = 1, mutex = 2, semaphore = 3 };

std::uint32_t numberAt(const std::string& content, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, content.data() + offset, sizeof number);
  return number;
}

std::string withNumber(std::string content, std::size_t offset, std::uint32_t number) {
  std::memcpy(content.data() + offset, &number, sizeof number);
  return content;
}

/// The content of an object's file.
std::string objectFile(Type type, std::uint32_t value, std::uint32_t limit) {
  std::string content = std::string(kMagic) + std::string(kFileSize - kMagic.size(), '\0');
  content = withNumber(std::move(content), kTypeOffset, static_cast<std::uint32_t>(type));
  return withNumber(withNumber(std::move(content), kValueOffset, value), kLimitOffset, limit);
}

/// Whether the file is one that the program could have written for an object of that type.
bool isObject(const std::string& content, Type type) {
  if (content.size() != kFileSize || !content.starts_with(kMagic) ||
      numberAt(content, kTypeOffset) != static_cast<std::uint32_t>(type)) {
    return false;
  }
  const std::uint32_t value = numberAt(content, kValueOffset);
  const std::uint32_t limit = numberAt(content, kLimitOffset);
  return type == Type::semaphore ? limit >= 1 && limit <= 0x7FFFFFFF && value <= limit : limit == 1 && value <= 1;
}

std::string readAll(int file) {
  std::array<char, 256> content = {};
  const ssize_t count = ::pread(file, content.data(), content.size(), 0);
  return {content.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
}

bool lockByte(int file, off_t byte, short type, int command, struct flock& lock) {
  lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return ::fcntl(file, command, &lock) == 0;
}

bool isLocked(int file, off_t byte) {
  struct flock lock = {};
  check(lockByte(file, byte, F_WRLCK, F_OFD_GETLK, lock), "the locks cannot be looked at");
  return lock.l_type != F_UNLCK;
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

/// The file as everybody sees it under its name.
struct Look {
  bool exists = false;
  bool regular = false;
  bool living = false;
  std::string content;
};

/// A handle of the program's, and a descriptor of the file that it is of.
struct Held {
  Type type = Type::event;
  std::variant<std::unique_ptr<SEMAPHORE::EventSemaphore>, std::unique_ptr<SEMAPHORE::Mutex>,
               std::unique_ptr<SEMAPHORE::Semaphore>>
      object;
  FileDescriptor file;
  ino_t inode = 0;
  int holds = 0;

  [[nodiscard]] platform::ObjectHandle handle() const {
    return std::visit([](const auto& owned) { return owned->handle(); }, object);
  }
};

class World {
 public:
  explicit World(const TemporaryFolder& folder) : path_(folder / kFileName), other_(folder / "other") {}
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  ~World() {
    while (!held_.empty()) {
      closeOne(0);
    }
    hostile_ = {};
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    fs::remove_all(other_, ignored);
  }

  void apply(Input& input) {
    const std::uint8_t operation = input.byte();
    switch (operation % 16) {
      case 0:
      case 1:
      case 2:
        open(static_cast<Type>(operation % 16 + 1), input.byte());
        break;
      case 3:
      case 4:
      case 5:
        use(input.byte());
        break;
      case 6:
      case 7:
        release(input.byte());
        break;
      case 8:
        if (!held_.empty()) {
          closeOne(input.byte() % held_.size());
        }
        break;
      default:
        meddle(operation % 16, input);
    }
  }

 private:
  [[nodiscard]] Look look() const {
    struct stat status = {};
    Look found;
    found.exists = ::lstat(path_.c_str(), &status) == 0;
    found.regular = found.exists && S_ISREG(status.st_mode);
    if (found.regular) {
      const FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
      check(file.valid(), "the file cannot be looked at");
      found.content = readAll(file.get());
      found.living = isLocked(file.get(), kLifeByte);
    }
    return found;
  }

  void open(Type type, std::uint8_t choice) {
    if (held_.size() >= kMostHandles) {
      return;
    }
    const bool create = type != Type::event || choice % 2 == 0;
    const Look before = look();
    Held held = make(type, create);
    const bool expected =
        before.living ? before.regular && isObject(before.content, type) : create && (before.regular || !before.exists);
    check((held.handle() != platform::ObjectHandle::none) == expected,
          expected ? "no handle to " + shown(before.content) : "a handle to " + shown(before.content));
    const Look after = look();
    check(expected || after.exists == before.exists, "a refused object's name changed");
    checkEqual("the file after opening",
               expected && !before.living ? objectFile(type, 0, type == Type::semaphore ? 200 : 1) : before.content,
               after.content);
    if (expected) {
      held.file = FileDescriptor(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
      struct stat status = {};
      check(held.file.valid() && ::fstat(held.file.get(), &status) == 0, "the object's file is not there");
      held.inode = status.st_ino;
      held_.push_back(std::move(held));
    }
  }

  static Held make(Type type, bool create) {
    Held held = {.type = type, .object = {}, .file = {}};
    if (type == Type::event) {
      auto event = std::make_unique<SEMAPHORE::EventSemaphore>();
      const bool made = create ? event->create(kName) : event->open(kName);
      check(made == (event->handle() != platform::ObjectHandle::none), "a result without a handle");
      held.object = std::move(event);
    } else if (type == Type::mutex) {
      auto mutex = std::make_unique<SEMAPHORE::Mutex>();
      (void)mutex->create(kName, true);
      held.object = std::move(mutex);
    } else {
      auto semaphore = std::make_unique<SEMAPHORE::Semaphore>();
      const bool made = semaphore->create(1, 1, kName);
      check(made == (semaphore->handle() != platform::ObjectHandle::none), "a result without a handle");
      held.object = std::move(semaphore);
    }
    return held;
  }

  void use(std::uint8_t choice) {
    if (held_.empty()) {
      return;
    }
    Held& held = held_[choice % held_.size()];
    const std::string before = readAll(held.file.get());
    const bool valid = isObject(before, held.type);
    const std::uint32_t value = valid ? numberAt(before, kValueOffset) : 0;
    const bool owned = held.type == Type::mutex && isLocked(held.file.get(), kOwnerByte);
    const int own = holdsOf(held.inode);
    const std::uint32_t result = platform::waitForObject(held.handle(), choice / 64 == 3 ? 1 : 0);
    const std::string after = readAll(held.file.get());
    if (held.type == Type::mutex && own > 0) {
      // Its own: it need not look at the file. Another object, where the type was changed meanwhile, is kept out.
      check(result == platform::kWaitObject || result == platform::kWaitTimeout || result == platform::kWaitFailed,
            "another result for an owner");
      held.holds += result == platform::kWaitObject ? 1 : 0;
      checkEqual("the file after an owner's wait", before, after);
      return;
    }
    std::uint32_t expected = platform::kWaitFailed;
    std::string left = before;
    if (valid && held.type == Type::mutex) {
      expected = owned ? platform::kWaitTimeout : value == 0 ? platform::kWaitObject : platform::kWaitAbandoned;
      left = owned ? before : withNumber(before, kValueOffset, 1);
      held.holds += owned ? 0 : 1;
    } else if (valid) {
      expected = value == 0 ? platform::kWaitTimeout : platform::kWaitObject;
      left = held.type == Type::semaphore && value > 0 ? withNumber(before, kValueOffset, value - 1) : before;
    }
    checkSame("the wait's result", expected, result);
    checkEqual("the file after a wait", left, after);
  }

  /// Sets, posts or releases.
  void release(std::uint8_t choice) {
    if (held_.empty()) {
      return;
    }
    Held& held = held_[choice % held_.size()];
    if (held.type == Type::mutex) {
      if (held.holds == 0 && holdsOf(held.inode) > 0) {
        return;  // through the handle that took it
      }
      checkSame("the release's result", held.holds > 0, platform::releaseMutex(held.handle()));
      held.holds -= held.holds > 0 ? 1 : 0;
      return;
    }
    const std::string before = readAll(held.file.get());
    const bool valid = isObject(before, held.type);
    std::uint32_t value = valid ? numberAt(before, kValueOffset) : 0;
    bool expected = valid;
    bool result = false;
    if (held.type == Type::event) {
      result = platform::setEvent(held.handle());
      value = 1;
    } else {
      expected = valid && value < numberAt(before, kLimitOffset);
      result = platform::releaseSemaphore(held.handle());
      ++value;
    }
    checkSame("the result of setting or posting", expected, result);
    checkEqual("the file after that", expected ? withNumber(before, kValueOffset, value) : before,
               readAll(held.file.get()));
  }

  void closeOne(std::size_t place) {
    Held held = std::move(held_[place]);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(place));
    while (held.holds > 0) {
      (void)platform::releaseMutex(held.handle());
      --held.holds;
    }
    held.object = {};
    struct stat status = {};
    const bool named = ::lstat(path_.c_str(), &status) == 0 && status.st_ino == held.inode;
    check(isLocked(held.file.get(), kLifeByte) || !named, "a dead object's file is left");
  }

  [[nodiscard]] int holdsOf(ino_t inode) const {
    int holds = 0;
    for (const Held& held : held_) {
      holds += held.inode == inode ? held.holds : 0;
    }
    return holds;
  }

  /// What another account may do to the file.
  void meddle(int operation, Input& input) {
    struct flock lock = {};
    switch (operation) {
      case 9:
      case 10: {  // writes into it, or makes it
        const FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666));
        const std::size_t offset = input.byte() % 40U;
        const std::string bytes = input.bytes(input.byte() % 32U);
        (void)!::pwrite(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        break;
      }
      case 11:
        if (FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)); file.valid()) {
          (void)!::ftruncate(file.get(), input.byte() % 64);
        }
        break;
      case 12: {  // makes a file that could be an object's
        const FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666));
        const std::uint8_t choice = input.byte();
        const std::string content = objectFile(static_cast<Type>(choice % 4), choice / 4 % 4, choice / 16);
        (void)!::pwrite(file.get(), content.data(), content.size(), 0);
        (void)!::ftruncate(file.get(), static_cast<off_t>(content.size()));
        break;
      }
      case 13:
        replace(input.byte());
        break;
      case 14:
        hostile_ = FileDescriptor(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        (void)lockByte(hostile_.get(), kLifeByte, F_RDLCK, F_OFD_SETLK, lock);
        if (input.byte() % 2 == 0) {
          (void)lockByte(hostile_.get(), kOwnerByte, F_WRLCK, F_OFD_SETLK, lock);
        }
        break;
      default:
        hostile_ = {};
    }
  }

  void replace(std::uint8_t choice) {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    switch (choice % 4) {
      case 0:
        break;
      case 1:
        writeContent(other_, objectFile(Type::event, 1, 1));
        fs::create_symlink(other_, path_, ignored);
        break;
      case 2:
        fs::create_directory(path_, ignored);
        break;
      default:
        check(::mkfifo(path_.c_str(), 0666) == 0, "no pipe");
    }
  }

  std::string path_;
  std::string other_;
  FileDescriptor hostile_;
  std::vector<Held> held_;
};

void run(Input input) {
  const TemporaryFolder& folder = objectFolder();
  const std::size_t before = openDescriptors();
  {
    World world(folder);
    while (!input.atEnd()) {
      world.apply(input);
    }
  }
  checkSame("the number of descriptors", before, openDescriptors());
  check(fs::is_empty(folder.path()), "something is left in the folder");
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
