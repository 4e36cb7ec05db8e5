#include "platform/Clock.h"

#include <atomic>

#include "platform/SystemLocalTime.h"

namespace keltop::platform {

namespace {

std::atomic<LocalTimeSource> replaced = nullptr;

}  // namespace

LocalTime localTime() noexcept {
  const LocalTimeSource source = replaced.load();
  return source == nullptr ? systemLocalTime() : source();
}

void setLocalTimeSource(LocalTimeSource source) noexcept {
  replaced.store(source);
}

}  // namespace keltop::platform
