#include "platform/linux/FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/linux/ByteLock.h"

namespace keltop::platform {

namespace {

constexpr auto kRetry = std::chrono::microseconds(100);

}  // namespace

FolderLock::FolderLock(const std::string& folder) noexcept
    : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
  while (folder_.valid() && ::flock(folder_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kRetry);
  }
}

}  // namespace keltop::platform
