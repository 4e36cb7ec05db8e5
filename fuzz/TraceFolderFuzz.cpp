// A trace folder in which others have put what they like: the listing, its order by write time, and what a rotation and
// a change of the day leave there, against a model of a folder.
//
// Input: a byte of choices and the pattern of the listing; then for each entry its kind, a byte for its time, and its
// name. Texts end with a zero byte.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/Settings.h"
#include "support/Check.h"
#include "support/FakeClock.h"
#include "support/Input.h"
#include "support/ObjectFolder.h"
#include "support/TemporaryFolder.h"
#include "support/TraceValues.h"
#include "trace/FindFiles.h"
#include "trace/FormatTrace.h"
#include "trace/LogFile.h"
#include "trace/SortByWriteTime.h"
#include "trace/ThreadLogData.h"

namespace keltop::fuzz {

namespace {

constexpr off_t kHoleSize = 1'000'000;
constexpr std::size_t kBeginning = 65'536;

}  // namespace

}  // namespace keltop::fuzz

/// The system's, but for large files, which are holes here: only their beginning is copied, and the rest stays a hole.
extern "C" ssize_t sendfile(int out, int in, off_t* offset, std::size_t count) noexcept {
  struct stat status = {};
  if (::fstat(in, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < keltop::fuzz::kHoleSize ||
      *offset != 0) {
    return ::syscall(SYS_sendfile, out, in, offset, count);
  }
  const auto copied = ::syscall(SYS_sendfile, out, in, offset, keltop::fuzz::kBeginning);
  if (copied < 0 || ::ftruncate(out, status.st_size) != 0) {
    return -1;
  }
  *offset = status.st_size;
  return status.st_size;
}

namespace keltop::fuzz {

namespace {

namespace fs = std::filesystem;

constexpr std::uint8_t kFull = 1;
constexpr std::uint8_t kArchiveIsFile = 2;
constexpr std::uint8_t kArchiveExists = 4;
constexpr std::uint8_t kNotRotated = 8;

constexpr std::string_view kModule = "M";
constexpr std::uint32_t kModuleNumber = 1067;
constexpr std::string_view kLiveName = "M.ltt";
constexpr std::string_view kCopyName = "M-20240115090507042.ltt";

constexpr std::size_t kMostEntries = 40;
constexpr rlim_t kLargestFile = 100'000'000;

/// None of them near the time of the run.
constexpr std::array<std::int64_t, 8> kTimes = {
    0, 9, -1, 999'999'990, 1'000'000'000, 1'700'000'000, -77, 4'000'000'000};

class Folder {
 public:
  Folder() {
    location() = data_.path().string();
    platform::setDataLocationSource([] { return location(); });
    (void)objectFolder();
    const rlimit limit = {kLargestFile, kLargestFile};
    check(::setrlimit(RLIMIT_FSIZE, &limit) == 0, "files cannot be limited");
    writeContent(outside(), "outside");
  }

  void empty() const {
    fs::remove_all(traces());
    fs::create_directory(traces());
  }

  [[nodiscard]] fs::path traces() const { return data_.path() / "TRACELOGS"; }
  [[nodiscard]] fs::path archive() const { return traces() / "ARCHIVE"; }
  [[nodiscard]] fs::path outside() const { return data_.path() / "outside"; }

  void add(std::uint8_t kind, std::uint8_t time, std::string name) const {
    std::erase(name, '/');
    if ((kind & 8U) != 0) {
      name = std::string(kModule) + name + ".ltt";
    }
    name.resize(std::min<std::size_t>(name.size(), 255));
    std::error_code error;
    const fs::path path = traces() / name;
    if (name.empty() || name == "." || name == ".." || name == "ARCHIVE" || fs::exists(fs::symlink_status(path))) {
      return;
    }
    make(path, name == kLiveName ? kind % 3U : kind % 8U, error);
    const std::array<timespec, 2> times = {timespec{0, UTIME_NOW},
                                           timespec{static_cast<time_t>(kTimes[time % kTimes.size()] + time / 8), 0}};
    (void)::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW);
  }

 private:
  void make(const fs::path& path, unsigned kind, std::error_code& error) const {
    switch (kind) {
      case 1:
        fs::create_directory(path, error);
        break;
      case 2:
        (void)::mkfifo(path.c_str(), 0666);
        break;
      case 3:
        fs::create_symlink(data_.path() / "nowhere", path, error);
        break;
      case 4:
        fs::create_symlink(data_.path(), path, error);
        break;
      case 5:
        fs::create_symlink(outside(), path, error);
        break;
      case 6:
        fs::create_symlink("/dev/zero", path, error);
        break;
      default:
        writeContent(path, path.filename().string());
    }
  }

  static std::string& location() {
    static std::string path;
    return path;
  }

  TemporaryFolder data_;
};

/// One entry as the system tells of it.
struct Entry {
  bool listed = false;   ///< as a file
  bool regular = false;  ///< or a link to such a one
  bool folder = false;   ///< itself, not by a link
  std::int64_t written = 0;
  std::uint32_t size = 0;
};

using Entries = std::map<std::string, Entry>;

Entries entriesOf(const fs::path& folder) {
  Entries entries;
  for (const auto& found : fs::directory_iterator(folder)) {
    struct stat status = {};
    Entry entry;
    entry.folder = fs::is_directory(found.symlink_status());
    if (::stat(found.path().c_str(), &status) == 0) {
      entry = {.listed = !S_ISDIR(status.st_mode),
               .regular = S_ISREG(status.st_mode),
               .folder = entry.folder,
               .written = status.st_mtim.tv_sec,
               .size = static_cast<std::uint32_t>(status.st_size)};
    }
    entries[found.path().filename().string()] = entry;
  }
  return entries;
}

/// Row by row: which ends of the pattern's beginnings fit the name so far.
bool modelMatches(const std::string& name, const std::string& pattern) {
  std::vector<char> fits(name.size() + 1, 0);
  fits[0] = 1;
  for (const char wanted : pattern) {
    std::vector<char> next(name.size() + 1, 0);
    for (std::size_t i = 0; i <= name.size(); ++i) {
      if (wanted == '*') {
        next[i] = static_cast<char>(fits[i] != 0 || (i > 0 && next[i - 1] != 0));
      } else if (i > 0) {
        next[i] = static_cast<char>(fits[i - 1] != 0 && (wanted == '?' || wanted == name[i - 1]));
      }
    }
    fits = next;
  }
  return fits[name.size()] != 0;
}

/// The decimal text of the time decides, then the name.
std::vector<std::string> modelOrder(const Entries& entries, const std::string& pattern) {
  std::vector<std::pair<std::string, std::string>> keys;
  for (const auto& [name, entry] : entries) {
    if (entry.listed && modelMatches(name, pattern)) {
      keys.emplace_back(std::to_string(entry.written), name);
    }
  }
  std::sort(keys.begin(), keys.end());
  std::vector<std::string> names;
  for (const auto& key : keys) {
    names.push_back(key.second);
  }
  return names;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += name + "\n";
  }
  return text;
}

std::string namesOf(const Entries& entries) {
  std::string text;
  for (const auto& [name, entry] : entries) {
    text += name + (entry.folder ? "/\n" : "\n");
  }
  return text;
}

void checkListing(const Folder& folder, const std::string& pattern) {
  const Entries entries = entriesOf(folder.traces());
  QXUTIL::FindFiles found;
  std::vector<std::string> names = modelOrder(entries, pattern);
  checkSame("the number of files found", names.size(), found.search(folder.traces().string(), pattern));
  std::vector<std::string> sorted;
  for (const auto& [key, file] : QXUTIL::sortByWriteTime(found)) {
    sorted.push_back(file.name);
    const Entry& entry = entries.at(file.name);
    checkEqual("a file's path", (folder.traces() / file.name).string(), file.path);
    checkSame("a file's time", entry.written, file.written);
    checkSame("a file's size", entry.size, file.size);
  }
  checkEqual("the order by time", joined(names), joined(sorted));
  std::sort(names.begin(), names.end());
  std::vector<std::string> listed;
  for (const auto& file : found.files()) {
    listed.push_back(file.name);
  }
  checkEqual("the order of the search", joined(names), joined(listed));
}

/// The live file's copy takes the place of what bears its name, unless that is a folder. True when it is made.
bool modelCopy(Entries& entries) {
  const std::string copy(kCopyName);
  if (entries.contains(copy) && entries[copy].folder) {
    return false;
  }
  Entry& live = entries[std::string(kLiveName)];
  entries[copy] = live;
  // The seconds of time() may be behind those that the system has just given a file.
  live.written = std::max<std::int64_t>(::time(nullptr), live.written);
  return true;
}

void modelPrune(Entries& entries) {
  const std::vector<std::string> names = modelOrder(entries, "M*.ltt");
  std::size_t left = names.size();
  for (const std::string& name : names) {
    if (left-- < 5) {
      break;
    }
    if (name != kLiveName) {
      entries.erase(name);
    }
  }
}

void modelArchive(Entries& entries, Entries& archive, bool canArchive) {
  for (const std::string& name : modelOrder(entries, "M*.ltt")) {
    if (name != kLiveName && canArchive && entries[name].regular &&
        (!archive.contains(name) || archive[name].regular)) {
      archive[name] = entries[name];
      entries.erase(name);
    }
  }
}

void makeArchive(const Folder& folder, std::uint8_t choices) {
  if ((choices & kArchiveIsFile) != 0) {
    writeContent(folder.archive(), "a file");
  } else if ((choices & kArchiveExists) != 0) {
    fs::create_directory(folder.archive());
    fs::create_directory(folder.archive() / kCopyName);
    fs::create_symlink("/dev/full", folder.archive() / "M-full.ltt");
  }
}

void rotate(const Folder& folder, LogFile& log, std::uint8_t choices) {
  const fs::path live = folder.traces() / kLiveName;
  log.write("a line\r\n");
  if (log.isOpen() && (choices & kFull) != 0) {
    fs::resize_file(live, kFullTrace - 10);
    log.write("more than 10\r\n");
  }
  const bool rotates = log.isOpen() && (choices & kNotRotated) == 0;
  Entries expected = entriesOf(folder.traces());
  const bool archiveIsFolder = !expected.contains("ARCHIVE") || expected["ARCHIVE"].folder;
  Entries archive = fs::is_directory(folder.archive()) ? entriesOf(folder.archive()) : Entries();
  const std::uintmax_t size = log.isOpen() ? fs::file_size(live) : 0;
  const bool copied = rotates && modelCopy(expected);
  if ((choices & kFull) != 0) {
    if (copied) {
      modelPrune(expected);
    }
    log.checkSize();
  } else {
    if (rotates) {
      modelArchive(expected, archive, archiveIsFolder);
      expected["ARCHIVE"].folder = archiveIsFolder;
    }
    log.changeDay();
  }
  checkEqual("the folder's names", namesOf(expected), namesOf(entriesOf(folder.traces())));
  if (fs::is_directory(folder.archive())) {
    checkEqual("the archive's names", namesOf(archive), namesOf(entriesOf(folder.archive())));
  }
  if (copied) {
    checkEqual("the live file", traceLine(kModule, makeRecord(kModuleNumber, ThreadLogData::kMarker, "File opened")),
               contentOf(live));
  } else if (log.isOpen()) {
    checkSame("the live file's size without a copy", size, fs::file_size(live));
  }
  checkEqual("what is outside", "outside", contentOf(folder.outside()));
}

void run(Input input) {
  static const Folder folder;
  static const FakeClock clock(kTraceStart);
  folder.empty();
  const std::uint8_t choices = input.byte();
  const std::string pattern = input.text();
  makeArchive(folder, choices);
  for (std::size_t i = 0; i < kMostEntries && !input.atEnd(); ++i) {
    const std::uint8_t kind = input.byte();
    const std::uint8_t time = input.byte();
    folder.add(kind, time, input.text());
  }
  checkListing(folder, pattern);
  LogFile log((choices & kNotRotated) != 0 ? 0 : 1, kModuleNumber, std::string(kModule));
  rotate(folder, log, choices);
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
