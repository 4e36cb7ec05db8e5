// What a trace call costs its caller, and how many lines reach the file, beside spdlog's asynchronous logger set alike:
// a queue of 200 that drops the oldest, one writer thread, one flush every 100 lines.

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/details/file_helper.h>
#include <spdlog/sinks/base_sink.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <system_error>

#include "platform/NoDestructor.h"
#include "platform/Settings.h"
#include "trace/LogsControl.h"
#include "trace/ProgramModule.h"
#include "trace/ThreadLogData.h"
#include "trace/TraceWriter.h"

namespace keltop {
namespace {

constexpr std::size_t kQueue = 200;
constexpr int kLinesPerFlush = 100;
constexpr int kLinesPerPass = 100;
constexpr int kThreads = 8;
const std::string kText(80, 'x');

/// The folder of both, on the same disk. Its name outlives the static controller, whose writer asks for it at the end.
const std::string& folder() {
  static platform::NoDestructor<const std::string> path([] {
    std::string made =
        std::filesystem::temp_directory_path() / ("keltop-bench-" + std::to_string(std::random_device()()));
    std::filesystem::create_directories(made + "/TRACELOGS");
    return made;
  }());
  return path.get();
}

ThreadLogData record() {
  return makeRecord(kKeltopModule, ThreadLogData::kOrdinary, kText);
}

class FlushingSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit FlushingSink(const std::string& path) { file_.open(path); }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    base_sink::formatter_->format(message, line);
    file_.write(line);
    if (++lines_ % kLinesPerFlush == 0) {
      file_.flush();
    }
  }
  void flush_() override { file_.flush(); }

 private:
  spdlog::details::file_helper file_;
  std::uint64_t lines_ = 0;
};

std::shared_ptr<spdlog::async_logger> makeLogger(const std::shared_ptr<spdlog::details::thread_pool>& pool,
                                                 spdlog::async_overflow_policy policy) {
  auto logger = std::make_shared<spdlog::async_logger>(
      "LOG1067", std::make_shared<FlushingSink>(folder() + "/spdlog.log"), pool, policy);
  logger->set_pattern("%n %P %t %Y/%m/%d-%H:%M:%S:%e 00000006 %v\r");
  return logger;
}

void traceCall(benchmark::State& state) {
  static LogsControl control;
  for (auto _ : state) {
    control.push(record());
  }
  state.SetItemsProcessed(state.iterations());
}

void spdlogCall(benchmark::State& state) {
  static const auto pool = std::make_shared<spdlog::details::thread_pool>(kQueue, 1);
  static const auto logger = makeLogger(pool, spdlog::async_overflow_policy::overrun_oldest);
  for (auto _ : state) {
    logger->info(kText);
  }
  state.SetItemsProcessed(state.iterations());
}

void traceToFile(benchmark::State& state) {
  LogsControl control(LogsControl::Writer::none);
  TraceWriter writer(control);
  for (auto _ : state) {
    for (int i = 0; i < kLinesPerPass; ++i) {
      control.push(record());
    }
    control.push({});  // ends the pass without a wait
    writer.pass();
  }
  state.SetItemsProcessed(state.iterations() * kLinesPerPass);
}

void spdlogToFile(benchmark::State& state) {
  const auto pool = std::make_shared<spdlog::details::thread_pool>(kQueue, 1);
  const auto logger = makeLogger(pool, spdlog::async_overflow_policy::block);
  for (auto _ : state) {
    for (int i = 0; i < kLinesPerPass; ++i) {
      logger->info(kText);
    }
  }
  state.SetItemsProcessed(state.iterations() * kLinesPerPass);
}

BENCHMARK(traceCall)->Threads(1)->Threads(kThreads)->UseRealTime();
BENCHMARK(spdlogCall)->Threads(1)->Threads(kThreads)->UseRealTime();
BENCHMARK(traceToFile)->UseRealTime();
BENCHMARK(spdlogToFile)->UseRealTime();

}  // namespace
}  // namespace keltop

int main(int count, char** arguments) {
  keltop::platform::setDataLocationSource([] { return keltop::folder(); });
  benchmark::Initialize(&count, arguments);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(keltop::folder(), ignored);
  return EXIT_SUCCESS;
}
