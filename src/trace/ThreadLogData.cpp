#include "trace/ThreadLogData.h"

#include <utility>

#include "platform/Clock.h"
#include "platform/Identity.h"
#include "trace/FormatTrace.h"

namespace keltop {

ThreadLogData makeRecord(std::uint32_t module, std::uint32_t type, std::string text) {
  return {.module = module,
          .threadId = platform::currentThreadId(),
          .processId = platform::currentProcessId(),
          .timeStamp = timeStamp(platform::localTime()),
          .type = type,
          .text = std::move(text)};
}

}  // namespace keltop
