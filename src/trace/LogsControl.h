#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "semaphore/Mutex.h"
#include "trace/LogFile.h"
#include "trace/ThreadLogData.h"
#include "trace/WorkStack.h"

namespace keltop {

/// The trace: the registered modules with their files, the queue of records, and the thread that writes them.
/// Any thread may call push, setEcho and registerModule; nothing is reported beyond the results, and nothing throws
/// but the start of the thread and a stop from the writer thread itself.
class LogsControl {
 public:
  enum class Writer { thread, none };

  /// Starts the writer thread at once. Without one, whoever owns the object makes the writer's passes.
  explicit LogsControl(Writer writer = Writer::thread);

  /// Stops the writer and forgets what is still queued.
  virtual ~LogsControl();
  LogsControl(const LogsControl&) = delete;
  LogsControl& operator=(const LogsControl&) = delete;

  /// Whether every line is printed to standard output too.
  void setEcho(bool echo) noexcept { echo_ = echo ? 1 : 0; }

  /// Binds a module number to its file, named by moduleFileName; with a flag of 0 the file is neither rotated nor
  /// archived. The first registration of a number stays. False for number 0, and when the registry is not free within
  /// 10 s.
  bool registerModule(std::uint8_t rotationFlag, std::uint32_t module, std::string_view name);

  /// Hands a record to the writer; waits for no disk. A full queue loses its oldest record.
  void push(ThreadLogData record) { queue_.push(std::move(record)); }

  /// Ends the writer thread; what is queued is written before, as far as it fits in one pass.
  void stop();

 protected:
  friend class TraceWriter;

  /// The files of all modules registered by now, which live as long as this object; nothing when the registry is not
  /// free in time.
  [[nodiscard]] std::optional<std::vector<LogFile*>> files();

  /// The module's file; it is registered without rotation when it was not. Null when the registry is not free in time.
  [[nodiscard]] LogFile* fileOf(std::uint32_t module);

  std::atomic<std::uint8_t> echo_ = 0;
  std::map<std::uint32_t, LogFile> registry_;
  std::thread writer_;
  SEMAPHORE::Mutex moduleLock_;
  std::atomic<std::uint8_t> stopping_ = 0;
  QXUTIL::WorkStack<ThreadLogData> queue_;
};

}  // namespace keltop
