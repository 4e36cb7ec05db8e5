#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "platform/KernelObjects.h"
#include "platform/linux/StateFile.h"
#include "support/ResourceLimit.h"
#include "support/TemporaryFolder.h"
#include "support/Timing.h"
#include "support/UniqueName.h"

namespace keltop::platform {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolderVariable = "KELTOP_OBJECT_DIR";

/// Room for a part of an object's state only.
constexpr rlim_t kPartOfState = 8;

class LinuxKernelObjects : public testing::Test {
 protected:
  LinuxKernelObjects() {
    if (const char* before = std::getenv(kFolderVariable); before != nullptr) {
      before_ = before;
    }
    useFolder(folder_.path().string());
  }
  ~LinuxKernelObjects() override { useFolder(before_); }

  static void useFolder(const std::string& folder) {
    if (folder.empty()) {
      ::unsetenv(kFolderVariable);
    } else {
      ::setenv(kFolderVariable, folder.c_str(), 1);
    }
  }

  [[nodiscard]] static std::string fileName(const std::string& name) { return "keltop." + name; }

  /// Whether a wait of this process has its watch on an object's file.
  [[nodiscard]] static bool watchStands() {
    for (const auto& descriptor : fs::directory_iterator("/proc/self/fdinfo")) {
      if (contentOf(descriptor.path()).find("inotify wd:") != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  const std::string name_ = uniqueName();
  TemporaryFolder folder_;

 private:
  std::string before_;
};

TEST_F(LinuxKernelObjects, withoutAFolderOfTheirOwnTheyLieInSharedMemory) {
  useFolder({});
  const ObjectHandle event = createEvent(nullptr, name_);
  ASSERT_NE(event, ObjectHandle::none);
  EXPECT_TRUE(fs::exists("/dev/shm/" + fileName(name_)) || fs::exists("/tmp/" + fileName(name_)));
  EXPECT_TRUE(closeObject(event));
  EXPECT_FALSE(fs::exists("/dev/shm/" + fileName(name_)) || fs::exists("/tmp/" + fileName(name_)));
}

TEST_F(LinuxKernelObjects, aFolderThatCannotBeUsedIsAnError) {
  useFolder(folder_ / "missing");
  EXPECT_EQ(createEvent(nullptr, name_), ObjectHandle::none);
  EXPECT_EQ(lastError(), kErrorFileNotFound);
  useFolder("/" + std::string(5000, 'x'));
  EXPECT_EQ(createEvent(nullptr, name_), ObjectHandle::none);
  EXPECT_EQ(lastError(), kErrorFilenameTooLong);
}

TEST_F(LinuxKernelObjects, withoutDescriptorsNothingIsCreatedOrOpened) {
  const ObjectHandle event = createEvent(nullptr, name_);
  {
    const ResourceLimit noDescriptors(RLIMIT_NOFILE, kStandardStreamsOnly);
    EXPECT_EQ(createEvent(nullptr, uniqueName()), ObjectHandle::none);
    EXPECT_EQ(lastError(), kErrorNotEnoughMemory);
    EXPECT_EQ(openEvent(uniqueName()), ObjectHandle::none);
    EXPECT_EQ(lastError(), kErrorNotEnoughMemory);
  }
  EXPECT_TRUE(closeObject(event));
}

/// Each connection of a listener opens the shutdown event, thousands of them at once.
TEST_F(LinuxKernelObjects, whatThisProcessHoldsIsOpenedAgainWithoutADescriptor) {
  const ObjectHandle event = createEvent(nullptr, name_);
  fs::remove(folder_ / fileName(name_));
  const ResourceLimit noDescriptors(RLIMIT_NOFILE, kStandardStreamsOnly);
  const ObjectHandle opened = openEvent(name_);
  const ObjectHandle created = createEvent(nullptr, name_);
  EXPECT_EQ(lastError(), kErrorAlreadyExists);
  EXPECT_TRUE(setEvent(opened));
  EXPECT_TRUE(closeObject(opened));
  EXPECT_TRUE(closeObject(event));
  EXPECT_EQ(waitForObject(created, 0), kWaitObject);
  EXPECT_TRUE(closeObject(created));
}

TEST_F(LinuxKernelObjects, withoutAChangeNotificationAWaitStillEnds) {
  const ObjectHandle event = createEvent(nullptr, name_);
  const ResourceLimit noDescriptors(RLIMIT_NOFILE, kStandardStreamsOnly);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(waitForObject(event, 30), kWaitTimeout);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, almost(std::chrono::milliseconds(30)));
  std::thread waiter([&] { EXPECT_EQ(waitForObject(event, kInfinite), kWaitObject); });
  EXPECT_TRUE(setEvent(event));
  waiter.join();
  EXPECT_TRUE(closeObject(event));
}

/// The object lives on in another process, which has an open file of its own and sets the event.
TEST_F(LinuxKernelObjects, anObjectClosedDuringAWaitStaysUntilTheWaitEnds) {
  const ObjectHandle event = createEvent(nullptr, name_);
  const auto [other, error] = StateFile::open(folder_ / fileName(name_));
  ASSERT_EQ(error, 0);
  ASSERT_TRUE(other->tryLockShared(StateFile::LockByte::life));
  std::future<std::uint32_t> waiting = std::async(std::launch::async, [event] { return waitForObject(event, kLong); });
  while (!watchStands()) {
    ASSERT_EQ(waiting.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout) << "it did not wait";
  }
  EXPECT_TRUE(closeObject(event));
  EXPECT_FALSE(closeObject(event)) << "it was the only handle";
  EXPECT_TRUE(waits(waiting));
  EXPECT_TRUE(other->writeValue(1));
  EXPECT_TRUE(ends(waiting));
  EXPECT_EQ(waiting.get(), kWaitObject);
  EXPECT_TRUE(fs::remove(folder_ / fileName(name_))) << "the other process's";
}

TEST_F(LinuxKernelObjects, whatCannotBeWrittenIsAnErrorAndChangesNothing) {
  const ObjectHandle event = createEvent(nullptr, name_ + "e");
  const ObjectHandle semaphore = createSemaphore(nullptr, 1, 3, name_ + "s");
  const ObjectHandle mutex = createMutex(nullptr, name_ + "m");
  {
    const ResourceLimit full(RLIMIT_FSIZE, kPartOfState);
    EXPECT_FALSE(setEvent(event));
    EXPECT_EQ(lastError(), kErrorInvalidData);
    EXPECT_FALSE(releaseSemaphore(semaphore));
    EXPECT_EQ(lastError(), kErrorInvalidData);
    EXPECT_EQ(waitForObject(semaphore, 0), kWaitFailed);
    EXPECT_EQ(waitForObject(mutex, 0), kWaitFailed);
    EXPECT_EQ(lastError(), kErrorInvalidData);
    EXPECT_FALSE(releaseMutex(mutex)) << "nobody owns it";
    EXPECT_EQ(lastError(), kErrorNotOwner);
  }
  EXPECT_EQ(waitForObject(event, 0), kWaitTimeout);
  EXPECT_EQ(waitForObject(semaphore, 0), kWaitObject);
  EXPECT_EQ(waitForObject(semaphore, 0), kWaitTimeout);
  EXPECT_EQ(waitForObject(mutex, 0), kWaitObject);
  for (const ObjectHandle handle : {event, semaphore, mutex}) {
    EXPECT_TRUE(closeObject(handle));
  }
}

TEST_F(LinuxKernelObjects, aReleaseThatCannotBeWrittenLeavesTheMutexAbandoned) {
  const ObjectHandle mutex = createMutex(nullptr, name_);
  ASSERT_EQ(waitForObject(mutex, 0), kWaitObject);
  {
    const ResourceLimit full(RLIMIT_FSIZE, kPartOfState);
    EXPECT_FALSE(releaseMutex(mutex));
    EXPECT_EQ(lastError(), kErrorInvalidData);
  }
  std::thread([&] { EXPECT_EQ(waitForObject(mutex, 0), kWaitAbandoned); }).join();
  EXPECT_TRUE(closeObject(mutex));
}

TEST_F(LinuxKernelObjects, nothingIsCreatedWhereTheStateHasNoRoom) {
  writeContent(folder_ / fileName(name_), std::string(24, '\0'));  // as a dead process may leave it
  const ResourceLimit full(RLIMIT_FSIZE, kPartOfState);
  for (const std::string& name : {uniqueName(), name_}) {
    EXPECT_EQ(createEvent(nullptr, name), ObjectHandle::none);
    EXPECT_EQ(lastError(), kErrorAccessDenied);
  }
}

}  // namespace
}  // namespace keltop::platform
