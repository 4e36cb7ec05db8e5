#include "trace/WriteStartBanner.h"

#include <string>

#include "product/Version.h"
#include "trace/TraceWrite.h"

namespace keltop {

void writeStartBanner(std::string_view version) {
  std::string text("KELTOP - Built on ");
  traceWrite(0, 0, text.append(kBuildDate).append(" Version: ").append(version));
}

}  // namespace keltop
