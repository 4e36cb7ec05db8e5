#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace keltop::platform {

/// The run-time library's number of an open file.
using FileHandle = std::int32_t;
inline constexpr FileHandle kNoFile = -1;

/// Paths are in the system's own form. Nothing here throws and nothing reports more than its result. One open file
/// belongs to one thread at a time; the operations on paths may be called from any thread.

/// Opens the file for reading while it denies others the writing, and closes it at once. True when it could be opened.
bool probeFile(const std::string& path) noexcept;

/// Opens the file for reading and for writing at its end, made when it is missing, shared with everyone; kNoFile when
/// that failed. As long as somebody has it open this way, removeFile does not remove it.
[[nodiscard]] FileHandle openSharedAppend(const std::string& path) noexcept;

/// Writes the text at the end of the file in one piece, past what other processes wrote. False when not all of it got
/// there; what did is taken back where that is possible. Linux: also false when the file no longer has a name.
bool appendToFile(FileHandle file, std::string_view text) noexcept;

/// Forces what was written to the disk. False when the system could not.
bool commitFile(FileHandle file) noexcept;

/// False when the number is none of an open file. The file is closed even when the system has something to complain of.
bool closeFile(FileHandle file) noexcept;

/// The position after the last write; not beyond the end when another process has emptied the file since. -1 on error.
[[nodiscard]] std::int64_t tellFile(FileHandle file) noexcept;

/// Makes the file that long.
bool truncateFile(FileHandle file, std::int64_t size) noexcept;

/// Holds back every process's appendToFile on the file for a scope, so that nothing is written between a copy and the
/// truncation that follows it. Both go on without it when somebody keeps the file too long.
class AppendGate {
 public:
  explicit AppendGate(FileHandle file) noexcept;
  ~AppendGate();
  AppendGate(const AppendGate&) = delete;
  AppendGate& operator=(const AppendGate&) = delete;

 private:
  FileHandle file_;
  bool held_;
};

/// Copies the content and the write time of an open file; a file under the new name is replaced. After a failure, a
/// copy that was begun is gone. Linux: the open file is copied, wherever it was moved to; one that was deleted is not.
/// Windows: what lies under its path, which is the same: the run-time library opens without sharing the deletion, and
/// so an open file can be neither moved nor deleted.
bool copyOpenFile(FileHandle file, const std::string& path, const std::string& to) noexcept;

/// Copies the content and the write time; a file under the new name is replaced. After a failure, a copy that was
/// begun is gone. Linux: only files are copied, and only to files, or to where nothing is.
bool copyFile(const std::string& from, const std::string& to) noexcept;

/// Removes a file, not a folder and not a file that is open for appending.
bool removeFile(const std::string& path) noexcept;

/// Whether something bears that path.
[[nodiscard]] bool pathExists(const std::string& path) noexcept;

/// Makes one folder; the one it lies in must exist.
bool makeFolder(const std::string& path) noexcept;

/// What a folder's listing tells of a file. Times are in seconds since 1970.
struct FoundFile {
  std::string name;
  std::int64_t created = 0;
  std::int64_t accessed = 0;
  std::int64_t written = 0;
  std::uint32_t size = 0;  ///< the low 32 bits
};

/// The folder's files, not its folders, whose names match the pattern: "*" stands for any characters, "?" for one.
/// In the order of their names; Linux tells upper case from lower, as its files do.
[[nodiscard]] std::vector<FoundFile> findFiles(const std::string& folder, const std::string& pattern);

}  // namespace keltop::platform
