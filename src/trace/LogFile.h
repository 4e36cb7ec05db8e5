#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Clock.h"
#include "platform/Files.h"

namespace keltop {

/// The trace file of one module: the live file "NAME.ltt" in the trace folder and, where it is rotated, its copies
/// "NAME-YYYYMMDDhhmmssmmm.ltt" beside it and in the archive folder. Every failure is silent: what cannot be written
/// is lost, and the next line tries anew. Used by the writer thread only, but for the name.
class LogFile {
 public:
  /// With a `rotationFlag` of 0 the file is neither rotated nor archived.
  LogFile(std::uint8_t rotationFlag, std::uint32_t module, std::string name);

  /// The file is left as it is, without a marker.
  virtual ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Opens the live file and writes the opened marker. An empty name is not opened.
  void open();

  /// Writes the closed marker and closes the file.
  void close();

  /// Opens the file where needed and writes the line, which carries its own line end, in one piece; after a failure
  /// the file is closed. Every 100th line is forced to the disk, with all before it.
  void write(std::string_view line);

  /// Once the file has 50,000,000 bytes: copies it, empties it, and deletes the oldest files until 4 are left. Where
  /// the copy cannot be made, every file stays as it is, and for a second no other is tried: each may be a whole one.
  void checkSize();

  /// A new day has begun: copies and empties the file and moves all of the module's copies to the archive. Where the
  /// copy cannot be made, the file stays as it is.
  void changeDay();

  [[nodiscard]] bool isOpen() const noexcept { return handle_ != platform::kNoFile; }
  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] std::uint8_t rotationFlag() const noexcept { return rotationFlag_; }
  [[nodiscard]] std::uint32_t module() const noexcept { return module_; }

 private:
  [[nodiscard]] bool canRotate() const noexcept;
  [[nodiscard]] bool isFull() const noexcept;
  [[nodiscard]] std::string searchPattern() const;
  bool append(std::string_view line);
  bool writeMarker(std::string_view text);
  void closeUnmarked();
  [[nodiscard]] bool copyAndEmpty();
  void prune() const;
  void archive() const;

  std::int32_t writeCounter_;  ///< lines until the next is forced to the disk
  platform::FileHandle handle_ = platform::kNoFile;
  std::string name_;
  std::string path_;
  std::uint8_t rotationFlag_;
  std::uint32_t module_;
  platform::LocalTime openedAt_;
  std::chrono::steady_clock::time_point nextCopy_;  ///< not before
};

}  // namespace keltop
