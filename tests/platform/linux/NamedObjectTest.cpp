#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <thread>

#include "platform/KernelObjects.h"
#include "platform/linux/NamedObject.h"
#include "support/TemporaryFolder.h"

namespace keltop::platform {
namespace {

/// A watch on a file as another process's waiter has one.
class Notices {
 public:
  explicit Notices(const std::string& path) : descriptor_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    EXPECT_GE(::inotify_add_watch(descriptor_.get(), path.c_str(), IN_MODIFY), 0);
  }

  /// Whether the file was written to since the last call.
  [[nodiscard]] bool any() const {
    std::array<char, 4096> notices;
    bool some = false;
    while (::read(descriptor_.get(), notices.data(), notices.size()) > 0) {
      some = true;
    }
    return some;
  }

 private:
  FileDescriptor descriptor_;
};

/// Without it a waiter in another process finds out when it happens to look, up to a second later.
TEST(NamedObject, aThreadThatEndsWithAMutexTellsThoseWhoWait) {
  const TemporaryFolder folder;
  const std::string path = folder / "mutex";
  auto [file, error] = StateFile::createUnnamed(folder.path().string(), {.type = ObjectType::mutex});
  ASSERT_EQ(error, 0);
  ASSERT_EQ(file->linkTo(path), 0);
  const auto mutex = std::make_shared<NamedObject>(ObjectType::mutex, std::move(*file), ObjectPlace{path, {}, 0});
  const Notices notices(path);
  std::thread([&] {
    EXPECT_EQ(mutex->wait(0), kWaitObject);
    EXPECT_TRUE(notices.any());
    EXPECT_FALSE(notices.any());
  }).join();
  EXPECT_TRUE(notices.any());
  EXPECT_EQ(mutex->wait(0), kWaitAbandoned);
  EXPECT_EQ(mutex->releaseMutex(), kNoError);
}

}  // namespace
}  // namespace keltop::platform
