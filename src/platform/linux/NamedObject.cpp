#include "platform/linux/NamedObject.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <string>

namespace keltop::platform {

namespace {

using std::chrono::milliseconds;

/// How often a wait looks when the system grants no change notification (its per-account limit is used up).
constexpr milliseconds kUnwatchedLook(5);

/// A process that dies reports the closed file just before its locks go, and tells nothing afterwards. So a wait for a
/// mutex looks again soon after each report, then ever less often; the last step is the safety net.
constexpr milliseconds kFirstLook(1);
constexpr milliseconds kRarestLook(1000);

}  // namespace

class NamedObject::FileWatch : public KernelObject::Watch {
 public:
  FileWatch(int watched, bool owned)
      : path_("/proc/self/fd/" + std::to_string(watched)),
        notices_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
        ownedByProcesses_(owned) {
    look();
  }

  void wait(std::unique_lock<std::mutex>& guard, WaitDeadline deadline) override {
    guard.unlock();
    pollfd poll = {watching_ ? notices_.get() : -1, POLLIN, 0};
    if (::poll(&poll, 1, static_cast<int>(patience(deadline).count())) > 0) {
      if (watchEnded()) {
        look();
      }
      nextLook_ = kFirstLook;
    } else {
      nextLook_ = std::min(nextLook_ * 2, kRarestLook);
    }
    guard.lock();
  }

 private:
  /// How long to sleep at most; -1 for ever.
  [[nodiscard]] milliseconds patience(WaitDeadline deadline) const noexcept {
    milliseconds limit(-1);
    if (!watching_) {
      limit = kUnwatchedLook;
    } else if (ownedByProcesses_) {
      limit = nextLook_;
    }
    if (deadline) {
      const auto left = std::chrono::ceil<milliseconds>(*deadline - std::chrono::steady_clock::now());
      const milliseconds bounded = std::clamp(left, milliseconds(0), milliseconds(3'600'000));
      limit = limit.count() < 0 ? bounded : std::min(limit, bounded);
    }
    return limit;
  }

  void look() noexcept {
    watching_ = notices_.valid() && ::inotify_add_watch(notices_.get(), path_.c_str(), IN_MODIFY | IN_CLOSE_WRITE) >= 0;
  }

  /// Takes the notices. The system ends a watch when the file's name is removed, though the file lives on.
  [[nodiscard]] bool watchEnded() const noexcept {
    bool ended = false;
    alignas(inotify_event) std::array<char, 4096> notices;
    ssize_t length = 0;
    while ((length = ::read(notices_.get(), notices.data(), notices.size())) > 0) {
      for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
        inotify_event notice = {};
        std::memcpy(&notice, &notices[at], sizeof notice);
        ended = ended || (notice.mask & IN_IGNORED) != 0;
        at += sizeof notice + notice.len;
      }
    }
    return ended;
  }

  std::string path_;
  FileDescriptor notices_;
  bool ownedByProcesses_;
  bool watching_ = false;
  milliseconds nextLook_ = kFirstLook;
};

bool NamedObject::handleOpened() noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  if (handles_ == 0 && !file_.tryLockShared(StateFile::LockByte::life)) {
    return false;
  }
  if (handles_++ == 0) {
    socket_.emplace(place_, file_.descriptor());
  }
  return true;
}

bool NamedObject::handleAdded() {
  const std::lock_guard<std::mutex> guard(guard_);
  if (handles_ == 0 || !readState()) {
    return false;
  }
  ++handles_;
  return true;
}

void NamedObject::handleClosed() noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  if (--handles_ > 0) {
    return;
  }
  socket_.reset();
  const StateLock lock(file_);
  file_.unlock(StateFile::LockByte::life);
  if (lock.held() && !file_.lockedElsewhere(StateFile::LockByte::life)) {
    // The object is gone, and whoever owned it owns nothing. A new one may come to life in the same file.
    (void)forgetOwner();  // the caller keeps the object alive
    if (StateFile::identityOf(place_.path) == file_.identity()) {
      (void)::unlink(place_.path.c_str());
    }
  }
}

void NamedObject::renew() noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  (void)forgetOwner();  // the caller keeps the object alive
}

void NamedObject::endIfDead() noexcept {
  const std::lock_guard<std::mutex> guard(guard_);
  if (handles_ == 0 && !file_.lockedElsewhere(StateFile::LockByte::life)) {
    (void)forgetOwner();  // the caller keeps the object alive
  }
}

std::optional<ObjectState> NamedObject::readState() {
  const std::optional<ObjectState> state = file_.read();
  return state && state->type == type() ? state : std::nullopt;
}

void NamedObject::disclaim() noexcept {
  file_.unlock(StateFile::LockByte::owner);
  file_.touch();  // after the unlock: who is woken earlier would find the mutex still owned
}

std::unique_ptr<KernelObject::Watch> NamedObject::watch() {
  return std::make_unique<FileWatch>(file_.descriptor(), type() == ObjectType::mutex);
}

}  // namespace keltop::platform
