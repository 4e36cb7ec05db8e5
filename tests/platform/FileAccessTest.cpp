#include <gtest/gtest.h>

#include "platform/FileAccess.h"
#include "support/TemporaryFolder.h"

namespace keltop::platform {

TEST(FileAccess, whatCannotBeLookedAtIsReadByNobody) {
  const TemporaryFolder folder;
  EXPECT_FALSE(othersMayRead(folder / "none"));
}

}  // namespace keltop::platform
