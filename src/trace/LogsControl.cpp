#include "trace/LogsControl.h"

#include "semaphore/ScopedLock.h"
#include "trace/ModuleFileName.h"
#include "trace/ProgramModule.h"
#include "trace/TraceWriter.h"

namespace keltop {

namespace {

constexpr std::uint32_t kRegisterPatience = 10'000;
constexpr std::uint32_t kWriterPatience = 1'000;

}  // namespace

LogsControl::LogsControl(Writer writer) {
  if (writer == Writer::thread) {
    writer_ = std::thread([this] { TraceWriter(*this).run(); });
  }
}

LogsControl::~LogsControl() {
  stop();
  queue_.clear();
}

bool LogsControl::registerModule(std::uint8_t rotationFlag, std::uint32_t module, std::string_view name) {
  if (module == 0) {
    return false;
  }
  const SEMAPHORE::ScopedLock lock(moduleLock_, kRegisterPatience);
  if (!lock.held()) {
    return false;
  }
  if (!registry_.contains(module)) {
    registry_.try_emplace(module, rotationFlag, module, moduleFileName(module, name));
  }
  return true;
}

void LogsControl::stop() {
  stopping_ = 1;
  ThreadLogData wake;
  wake.module = programModule;
  push(std::move(wake));
  if (writer_.joinable()) {
    writer_.join();
  }
}

std::optional<std::vector<LogFile*>> LogsControl::files() {
  const SEMAPHORE::ScopedLock lock(moduleLock_, kWriterPatience);
  if (!lock.held()) {
    return std::nullopt;
  }
  std::vector<LogFile*> files;
  for (auto& [module, file] : registry_) {
    files.push_back(&file);
  }
  return files;
}

LogFile* LogsControl::fileOf(std::uint32_t module) {
  const SEMAPHORE::ScopedLock lock(moduleLock_, kWriterPatience);
  if (!lock.held()) {
    return nullptr;
  }
  if (!registry_.contains(module)) {
    (void)registerModule(0, module, {});
  }
  return &registry_.at(module);
}

}  // namespace keltop
