#include "trace/TraceWriter.h"

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/StandardOutput.h"
#include "trace/FormatTrace.h"
#include "trace/LogFile.h"
#include "trace/LogsControl.h"
#include "trace/TraceTexts.h"

namespace keltop {

namespace {

constexpr std::uint32_t kFirstWait = 30'000;
constexpr std::uint32_t kNextWait = 10;
constexpr std::uint32_t kMostRecords = 100;

void echo(std::string_view fileName, const ThreadLogData& record) {
  std::string line(fileName);
  line.append(" ").append(record.timeStamp).append(" ").append(record.text).append("\r\n");
  (void)platform::writeStandardOutput(line);
}

}  // namespace

std::string pushEndpoint() {
  return "tcp://" + std::string(kTraceHost) + ":" + std::to_string(kTracePort);
}

TraceWriter::TraceWriter(LogsControl& control, std::string endpoint)
    : control_(control), endpoint_(std::move(endpoint)), day_(platform::localTime().day) {}

TraceWriter::~TraceWriter() {
  pushes_.remove(endpoint_);
}

void TraceWriter::run() {
  do {
    pass();
  } while (control_.stopping_ == 0);
}

void TraceWriter::pass() {
  tendFiles();
  std::uint32_t count = 0;
  for (ThreadLogData record = control_.queue_.pop(kFirstWait, {}); record.module != 0;
       record = control_.queue_.pop(kNextWait, {})) {
    if (++count > kMostRecords) {
      return;  // the record is lost, on purpose: it bounds the pass
    }
    handle(record);
  }
}

void TraceWriter::tendFiles() {
  const std::uint16_t today = platform::localTime().day;
  const std::optional<std::vector<LogFile*>> files = control_.files();
  if (!files) {
    return;  // a change of the day is seen again by the next pass
  }
  for (LogFile* const file : *files) {
    if (today != day_) {
      file->changeDay();
    } else {
      file->checkSize();
    }
  }
  day_ = today;
}

void TraceWriter::handle(const ThreadLogData& record) {
  LogFile* const file = control_.fileOf(record.module);
  if (file == nullptr) {
    return;
  }
  const std::string line = traceLine(file->name(), record);
  if (control_.echo_ != 0) {
    echo(file->name(), record);
  }
  if (!file->name().empty()) {
    file->write(line);
  }
  pushes_.push(endpoint_, pushMessage(record.module, line));
}

}  // namespace keltop
