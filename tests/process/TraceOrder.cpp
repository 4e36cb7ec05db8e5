// Traces from static objects that are made before the program's controller and destroyed after it, and the other way
// round.
//
//   (nothing)        ends without stopping the trace
//   stop             stops it before it ends
//   run SWITCHES...  does what the program does with these switches

#include <string>
#include <string_view>

#include "app/EntryPoint.h"
#include "trace/StopTrace.h"
#include "trace/TraceWrite.h"

namespace keltop {
namespace {

/// Traces when it is made, so that the controller, if there is none yet, is made inside, and when it is destroyed.
class TracesTwice {
 public:
  explicit TracesTwice(std::string_view name) : name_(name) { traceWrite(0, 0, name_, "made "); }
  ~TracesTwice() { traceWrite(0, 0, name_, "destroyed "); }
  TracesTwice(const TracesTwice&) = delete;
  TracesTwice& operator=(const TracesTwice&) = delete;

 private:
  std::string name_;
};

/// Destroyed after everything that was made later, the controller too.
class TracesLate {
 public:
  TracesLate() = default;
  ~TracesLate() { traceWrite(0, 0, "much too late"); }
  TracesLate(const TracesLate&) = delete;
  TracesLate& operator=(const TracesLate&) = delete;
};

const TracesLate late;
const TracesTwice early("early");

}  // namespace
}  // namespace keltop

int main(int count, char** arguments) {
  const std::string_view word = count > 1 ? arguments[1] : "";
  if (word == "run") {
    return keltop::run(count - 1, arguments + 1);
  }
  static const keltop::TracesTwice inMain("in main");
  if (word == "stop") {
    keltop::stopTrace();
    keltop::traceWrite(0, 0, "after the stop");
  }
  return 0;
}
