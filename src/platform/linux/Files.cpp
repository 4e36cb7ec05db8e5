#include "platform/Files.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/linux/ByteLock.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/NameMatch.h"

namespace keltop::platform {

namespace {

/// Read and write for all, whatever the umask says: the program is run by more than one account, and all write to the
/// same files.
constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 01777;

/// The bytes of an open file that are locked; they lie past any content. The locks end with their process.
constexpr std::int64_t kAppendByte = 0x7FFF'FFFF'0000'0000;  ///< exclusive: somebody writes, or copies and truncates
constexpr std::int64_t kUseByte = 0x7FFF'FFFF'0000'0001;     ///< shared: somebody has the file open for appending

/// Without O_CREAT first: fs.protected_regular refuses it on another account's file in a sticky folder.
int openOrCreate(const std::string& path) noexcept {
  constexpr int kFlags = O_RDWR | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  int file = ::open(path.c_str(), kFlags);
  if (file < 0 && errno == ENOENT) {
    file = ::open(path.c_str(), kFlags | O_CREAT, kFileMode);
    if (file >= 0) {
      (void)::fchmod(file, kFileMode);
    }
  }
  return file;
}

bool openForAppending(const std::string& path) noexcept {
  // Without O_NONBLOCK a pipe under the name would hang the opener.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  return file.valid() && byteLockedElsewhere(file.get(), kUseByte).value_or(false);
}

/// The text up to where the disk was full, which is taken off again unless somebody has written past it.
void takeBack(FileHandle file, ssize_t written) noexcept {
  struct stat status = {};
  if (const off_t end = ::lseek(file, 0, SEEK_CUR);
      written > 0 && ::fstat(file, &status) == 0 && status.st_size == end) {
    // Nobody can be told where it fails.
    [[maybe_unused]] const int result = ::ftruncate(file, end - written);
  }
}

/// A device or a pipe under a file's name, or a link to one, may have no end, or swallow what is written.
bool isRegular(int file) noexcept {
  struct stat status = {};
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode);
}

/// While it is open.
bool isDeleted(int file) noexcept {
  struct stat status = {};
  return ::fstat(file, &status) != 0 || status.st_nlink == 0;
}

/// From the beginning; the source's own position stays where it is.
bool copyContent(int from, int to) noexcept {
  constexpr std::size_t kPiece = std::size_t{1} << 30U;
  for (off_t position = 0;;) {
    const ssize_t copied = ::sendfile(to, from, &position, kPiece);
    if (copied == 0) {
      return true;
    }
    if (copied < 0 && errno != EINTR) {
      return false;
    }
  }
}

bool copyWriteTime(int from, int to) noexcept {
  struct stat status = {};
  if (::fstat(from, &status) != 0) {
    return false;
  }
  const std::array<timespec, 2> times = {timespec{0, UTIME_NOW}, status.st_mtim};
  return ::futimens(to, times.data()) == 0;
}

}  // namespace

bool probeFile(const std::string& path) noexcept {
  // Nothing here denies others the writing; those who write take turns by the gate.
  return FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)).valid();
}

FileHandle openSharedAppend(const std::string& path) noexcept {
  const FileHandle file = openOrCreate(path);
  // A pipe or a device in the file's place could hang the writer.
  if (file != kNoFile && !isRegular(file)) {
    (void)::close(file);
    return kNoFile;
  }
  if (file != kNoFile) {
    (void)setByteLock(file, kUseByte, F_RDLCK);
  }
  return file;
}

bool appendToFile(FileHandle file, std::string_view text) noexcept {
  const AppendGate gate(file);
  if (isDeleted(file)) {
    return false;  // what is written now nobody would ever read
  }
  const ssize_t written = ::write(file, text.data(), text.size());
  if (written == static_cast<ssize_t>(text.size())) {
    return true;
  }
  takeBack(file, written);
  return false;
}

bool commitFile(FileHandle file) noexcept {
  return ::fsync(file) == 0;
}

bool closeFile(FileHandle file) noexcept {
  return ::close(file) == 0;
}

std::int64_t tellFile(FileHandle file) noexcept {
  struct stat status = {};
  const off_t position = ::lseek(file, 0, SEEK_CUR);
  return position < 0 || ::fstat(file, &status) != 0 ? -1 : std::min<std::int64_t>(position, status.st_size);
}

bool truncateFile(FileHandle file, std::int64_t size) noexcept {
  return ::ftruncate(file, size) == 0;
}

AppendGate::AppendGate(FileHandle file) noexcept : file_(file), held_(waitForByteLock(file, kAppendByte)) {}

AppendGate::~AppendGate() {
  if (held_) {
    (void)setByteLock(file_, kAppendByte, F_UNLCK);
  }
}

bool copyFile(const std::string& from, const std::string& to) noexcept {
  const FileDescriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return source.valid() && copyOpenFile(source.get(), from, to);
}

bool copyOpenFile(FileHandle file, const std::string& /*path*/, const std::string& to) noexcept {
  if (!isRegular(file) || isDeleted(file)) {
    return false;
  }
  const FileDescriptor target(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, kFileMode));
  if (!target.valid() || !isRegular(target.get())) {
    return false;
  }
  (void)::fchmod(target.get(), kFileMode);
  if (copyContent(file, target.get()) && copyWriteTime(file, target.get())) {
    return true;
  }
  (void)::unlink(to.c_str());
  return false;
}

bool removeFile(const std::string& path) noexcept {
  return !openForAppending(path) && ::unlink(path.c_str()) == 0;
}

bool pathExists(const std::string& path) noexcept {
  return ::access(path.c_str(), F_OK) == 0;
}

bool makeFolder(const std::string& path) noexcept {
  // The mode again, past the umask.
  return ::mkdir(path.c_str(), kFolderMode) == 0 && ::chmod(path.c_str(), kFolderMode) == 0;
}

std::vector<FoundFile> findFiles(const std::string& folder, const std::string& pattern) {
  std::vector<FoundFile> found;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    FoundFile file = {.name = entry->path().filename().string()};
    struct stat status = {};
    if (nameMatches(file.name, pattern) && ::stat(entry->path().c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
      file.created = status.st_ctim.tv_sec;
      file.accessed = status.st_atim.tv_sec;
      file.written = status.st_mtim.tv_sec;
      file.size = static_cast<std::uint32_t>(status.st_size);
      found.push_back(std::move(file));
    }
  }
  std::sort(found.begin(), found.end(), [](const FoundFile& a, const FoundFile& b) { return a.name < b.name; });
  return found;
}

}  // namespace keltop::platform
