#include "trace/LogFile.h"

#include <cstddef>
#include <utility>

#include "semaphore/MutexAutoLock.h"
#include "trace/BuildPath.h"
#include "trace/FormatTrace.h"
#include "trace/SortByWriteTime.h"
#include "trace/ThreadLogData.h"
#include "trace/TraceTexts.h"

namespace keltop {

namespace {

constexpr std::int32_t kLinesPerCommit = 100;
constexpr std::int64_t kFullSize = 50'000'000;

/// From this number of files on, the live one included, the oldest are deleted.
constexpr std::size_t kTooManyFiles = 5;

/// After a copy that could not be made.
constexpr std::chrono::seconds kCopyPause{1};

constexpr std::string_view kOpenedMarker = "File opened";
constexpr std::string_view kClosedMarker = "File closed";

}  // namespace

LogFile::LogFile(std::uint8_t rotationFlag, std::uint32_t module, std::string name)
    : writeCounter_(kLinesPerCommit),
      name_(std::move(name)),
      rotationFlag_(rotationFlag),
      module_(module),
      openedAt_(platform::localTime()) {}

LogFile::~LogFile() {
  closeUnmarked();
}

void LogFile::open() {
  close();
  openedAt_ = platform::localTime();
  if (name_.empty()) {
    return;
  }
  path_ = buildPath(kTraceFolder, name_ + std::string(kTraceExtension));
  (void)platform::probeFile(path_);
  handle_ = platform::openSharedAppend(path_);
  if (isOpen() && !writeMarker(kOpenedMarker)) {
    close();
  }
}

void LogFile::close() {
  if (isOpen()) {
    (void)writeMarker(kClosedMarker);
    closeUnmarked();
  }
}

void LogFile::write(std::string_view line) {
  if (!isOpen()) {
    open();
  }
  if (isOpen() && !append(line)) {
    close();
  }
}

void LogFile::checkSize() {
  if (!canRotate() || !isFull() || std::chrono::steady_clock::now() < nextCopy_) {
    return;
  }
  const SEMAPHORE::MutexAutoLock lock(name_);
  if (!isFull()) {
    return;  // another process has rotated the file meanwhile
  }
  if (!copyAndEmpty()) {
    return;
  }
  prune();
  closeUnmarked();
  open();
}

void LogFile::changeDay() {
  if (!canRotate()) {
    return;
  }
  const SEMAPHORE::MutexAutoLock lock(name_);
  const bool emptied = copyAndEmpty();
  archive();
  if (emptied) {
    closeUnmarked();
    open();
  }
}

bool LogFile::canRotate() const noexcept {
  return isOpen() && !path_.empty() && rotationFlag_ != 0;
}

bool LogFile::isFull() const noexcept {
  return platform::tellFile(handle_) >= kFullSize;
}

/// Also matches the files of every module whose name begins with this one's, on purpose: they are counted, deleted and
/// moved with it, except those that some process has open.
std::string LogFile::searchPattern() const {
  return name_ + "*" + std::string(kTraceExtension);
}

bool LogFile::append(std::string_view line) {
  if (!platform::appendToFile(handle_, line)) {
    return false;
  }
  if (--writeCounter_ < 1) {
    (void)platform::commitFile(handle_);
    writeCounter_ = kLinesPerCommit;
  }
  return true;
}

bool LogFile::writeMarker(std::string_view text) {
  return append(traceLine(name_, makeRecord(module_, ThreadLogData::kMarker, std::string(text))));
}

void LogFile::closeUnmarked() {
  if (isOpen()) {
    (void)platform::closeFile(handle_);
    handle_ = platform::kNoFile;
  }
}

bool LogFile::copyAndEmpty() {
  const std::string copy = name_ + "-" + compactTimeStamp(openedAt_) + std::string(kTraceExtension);
  const std::string copyPath = buildPath(kTraceFolder, copy);
  (void)platform::removeFile(copyPath);
  (void)platform::commitFile(handle_);
  const platform::AppendGate gate(handle_);
  if (platform::copyOpenFile(handle_, path_, copyPath) && platform::truncateFile(handle_, 0)) {
    return true;
  }
  nextCopy_ = std::chrono::steady_clock::now() + kCopyPause;
  return false;
}

void LogFile::prune() const {
  QXUTIL::FindFiles found;
  std::size_t left = found.search(buildPath(kTraceFolder), searchPattern());
  for (const auto& [time, file] : QXUTIL::sortByWriteTime(found)) {
    if (left < kTooManyFiles) {
      break;
    }
    (void)platform::removeFile(file.path);
    --left;
  }
}

void LogFile::archive() const {
  const std::string folder = buildPath(kTraceFolder, kArchiveFolder);
  if (!platform::pathExists(folder)) {
    (void)platform::makeFolder(folder);
  }
  QXUTIL::FindFiles found;
  (void)found.search(buildPath(kTraceFolder), searchPattern());
  const std::string liveName = name_ + std::string(kTraceExtension);
  for (const auto& [time, file] : QXUTIL::sortByWriteTime(found)) {
    if (file.name != liveName && platform::copyFile(file.path, buildPath(kTraceFolder, kArchiveFolder, file.name))) {
      (void)platform::removeFile(file.path);
    }
  }
}

}  // namespace keltop
