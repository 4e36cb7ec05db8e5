#include "trace/StopTrace.h"

#include "trace/GlobalLogsControl.h"

namespace keltop {

void stopTrace() {
  if (LogsControl* const control = globalLogsControl(); control != nullptr) {
    control->stop();
  }
}

}  // namespace keltop
