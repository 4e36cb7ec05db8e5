#include <gtest/gtest.h>

#include <thread>

#include "platform/Identity.h"

namespace keltop::platform {
namespace {

TEST(Identity, everyThreadHasANumberOfItsOwn) {
  const std::uint32_t here = currentThreadId();
  std::uint32_t there = here;
  std::thread([&] { there = currentThreadId(); }).join();
  EXPECT_EQ(currentThreadId(), here);
  EXPECT_NE(there, here);
}

TEST(Identity, theProcessHasOneNumber) {
  std::uint32_t there = 0;
  std::thread([&] { there = currentProcessId(); }).join();
  EXPECT_EQ(there, currentProcessId());
  EXPECT_NE(there, 0U);
}

}  // namespace
}  // namespace keltop::platform
