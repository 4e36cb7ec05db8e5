#pragma once

#include <cstdint>
#include <string>

#include "trace/ThreadLogData.h"
#include "zeromq/ZPushService.h"

namespace keltop {

class LogsControl;

/// Where trace lines are offered to a receiver on this machine.
[[nodiscard]] std::string pushEndpoint();

/// What the writer thread does: takes the records of a controller from its queue and writes, echoes and pushes each.
/// Made and used by one thread.
class TraceWriter {
 public:
  /// Every line is pushed to the endpoint, too.
  explicit TraceWriter(LogsControl& control, std::string endpoint = pushEndpoint());

  /// Closes the connection that lines were pushed on.
  ~TraceWriter();
  TraceWriter(const TraceWriter&) = delete;
  TraceWriter& operator=(const TraceWriter&) = delete;

  /// Passes, until the controller stops.
  void run();

  /// One pass: looks after the files, then writes records until none comes within 10 ms, the 101st is met and thrown
  /// away, or a record of module 0 is. For the first one it waits 30 s.
  void pass();

 private:
  void tendFiles();
  void handle(const ThreadLogData& record);

  LogsControl& control_;
  std::string endpoint_;
  QXUTIL::ZEROMQ::ZPushService pushes_;
  std::uint16_t day_;  ///< of the month, when the files were last looked after
};

}  // namespace keltop
