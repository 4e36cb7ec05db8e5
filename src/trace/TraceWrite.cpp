#include "trace/TraceWrite.h"

#include <string>

#include "trace/GlobalLogsControl.h"
#include "trace/ProgramModule.h"
#include "trace/ThreadLogData.h"

namespace keltop {

void traceWrite(std::int32_t /*ignored1*/, std::int32_t /*ignored2*/, std::string_view text, std::string_view prefix) {
  if (text.empty()) {
    return;
  }
  if (LogsControl* const control = globalLogsControl(); control != nullptr) {
    control->push(makeRecord(kKeltopModule, ThreadLogData::kOrdinary, std::string(prefix).append(text)));
  }
}

}  // namespace keltop
