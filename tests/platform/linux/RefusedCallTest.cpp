// Runs in a program of its own in which routines of the system fail where a test says so: failures that no state of the
// machine brings about when they are wanted.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "platform/Files.h"
#include "platform/KernelObjects.h"
#include "support/RefusedCall.h"
#include "support/TemporaryFolder.h"
#include "support/UniqueName.h"
#include "zeromq/Library.h"

namespace keltop::platform {
namespace {

namespace fs = std::filesystem;

class RefusedFileCall : public testing::Test {
 protected:
  TemporaryFolder folder_;
};

TEST_F(RefusedFileCall, aCopyGoesOnAfterAnInterruption) {
  writeContent(folder_ / "a", "content");
  const RefusedCall interrupted("sendfile", EINTR, 2);
  EXPECT_TRUE(copyFile(folder_ / "a", folder_ / "b"));
  EXPECT_EQ(interrupted.count(), 2);
  EXPECT_EQ(contentOf(folder_ / "b"), "content");
}

TEST_F(RefusedFileCall, aCopyWithoutItsWriteTimeIsNone) {
  writeContent(folder_ / "a", "content");
  const RefusedCall untold("fstat", EIO);
  EXPECT_FALSE(copyFile(folder_ / "a", folder_ / "b"));
  EXPECT_GT(untold.count(), 0);
  EXPECT_FALSE(fs::exists(folder_ / "b"));
}

TEST_F(RefusedFileCall, aFileOfUnknownKindIsNotOpened) {
  const RefusedCall untold("fstat", EIO);
  EXPECT_EQ(openSharedAppend(folder_ / "a"), kNoFile);
  EXPECT_GT(untold.count(), 0);
}

TEST_F(RefusedFileCall, aFolderThatIsNotOpenToAllIsAFailure) {
  const RefusedCall kept("chmod", EPERM);
  EXPECT_FALSE(makeFolder(folder_ / "a"));
  EXPECT_EQ(kept.count(), 1);
}

class RefusedObjectCall : public testing::Test {
 protected:
  /// Creating the event must fail with that error number.
  void expectNoEvent(std::uint32_t error) const {
    EXPECT_EQ(createEvent(nullptr, name_), ObjectHandle::none);
    EXPECT_EQ(lastError(), error);
  }

  const std::string name_ = uniqueName();
};

TEST_F(RefusedObjectCall, aFileThatCannotBeOpenedToAllIsNotMade) {
  const RefusedCall kept("fchmod", EPERM);
  expectNoEvent(kErrorAccessDenied);
}

TEST_F(RefusedObjectCall, aNewFileThatCannotBeNamedIsAnError) {
  const RefusedCall unnamed("linkat", EPERM);
  expectNoEvent(kErrorAccessDenied);
}

TEST_F(RefusedObjectCall, aNameThatWasTakenMeanwhileIsLookedAtAgain) {
  const RefusedCall taken("linkat", EEXIST, 3);
  const ObjectHandle event = createEvent(nullptr, name_);
  EXPECT_NE(event, ObjectHandle::none);
  EXPECT_EQ(taken.count(), 3);
  EXPECT_TRUE(closeObject(event));
}

TEST_F(RefusedObjectCall, aNameThatKeepsChangingHandsIsAnError) {
  const TemporaryFolder folder;
  const char* const set = std::getenv("KELTOP_OBJECT_DIR");
  const std::string before = set == nullptr ? "" : set;
  ::setenv("KELTOP_OBJECT_DIR", folder.path().c_str(), 1);
  writeContent(folder / ("keltop." + name_), "left behind");
  {
    const RefusedCall changed("lstat", ENOENT);
    expectNoEvent(kErrorBusy);
    EXPECT_EQ(changed.count(), 1000);
  }
  ::setenv("KELTOP_OBJECT_DIR", before.c_str(), 1);  // an empty one counts as none
}

TEST_F(RefusedObjectCall, aFileThatIsNotKnownAgainIsAnError) {
  {
    const RefusedCall untold("fstat", EIO);
    expectNoEvent(kErrorInvalidData);
  }
  const ObjectHandle event = createEvent(nullptr, name_);
  {
    const RefusedCall untold("fstat", EIO);
    expectNoEvent(kErrorAccessDenied);
  }
  EXPECT_TRUE(closeObject(event));
}

TEST_F(RefusedObjectCall, withoutMemoryThereIsNoObject) {
  for (const std::string& name : {std::string(), name_}) {
    ObjectHandle event = ObjectHandle::none;
    {
      const RefusedCall exhausted("new", ENOMEM);
      event = createEvent(nullptr, name);
    }
    EXPECT_EQ(event, ObjectHandle::none);
    EXPECT_EQ(lastError(), kErrorNotEnoughMemory);
  }
}

/// Recording an owner takes no memory: a thread that ends is known to have owned, and one that does not own leaves no
/// mark.
TEST_F(RefusedObjectCall, withoutMemoryAMutexIsOwnedAllTheSame) {
  for (const std::string& name : {std::string(), name_}) {
    const ObjectHandle mutex = createMutex(nullptr, name);
    for (const bool released : {true, false}) {
      std::thread([&] {
        std::uint32_t result = kWaitFailed;
        {
          const RefusedCall exhausted("new", ENOMEM);
          result = waitForObject(mutex, 0);
        }
        EXPECT_EQ(result, kWaitObject);
        EXPECT_TRUE(!released || releaseMutex(mutex));
      }).join();
      EXPECT_EQ(waitForObject(mutex, 0), released ? kWaitObject : kWaitAbandoned);
      EXPECT_TRUE(releaseMutex(mutex));
    }
    EXPECT_TRUE(closeObject(mutex));
  }
}

TEST_F(RefusedObjectCall, aThreadWhoseEndCannotBeNoticedOwnsNothing) {
  const ObjectHandle mutex = createMutex(nullptr, name_);
  std::thread([&] {
    const RefusedCall unnoticed("pthread_setspecific", ENOMEM);
    EXPECT_EQ(waitForObject(mutex, 0), kWaitFailed);
    EXPECT_EQ(unnoticed.count(), 1);
  }).join();
  EXPECT_EQ(waitForObject(mutex, 0), kWaitObject) << "nor does it leave the mark of an owner that went";
  EXPECT_TRUE(releaseMutex(mutex));
  EXPECT_TRUE(closeObject(mutex));
}

TEST(RefusedMessageCall, aMessageWithoutMemoryIsNotSent) {
  const RefusedCall exhausted("zmq_msg_init_size", ENOMEM);
  EXPECT_EQ(QXUTIL::ZEROMQ::sendMessage(nullptr, "text", 0), -1);
  EXPECT_EQ(exhausted.count(), 1);
}

}  // namespace
}  // namespace keltop::platform
