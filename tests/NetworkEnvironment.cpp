#include <Poco/Net/Net.h>
#include <gtest/gtest.h>

namespace keltop {

namespace {

/// What the program does first of all: on Windows no socket works without it.
class NetworkEnvironment : public testing::Environment {
 public:
  void SetUp() override { Poco::Net::initializeNetwork(); }
  void TearDown() override { Poco::Net::uninitializeNetwork(); }
};

[[maybe_unused]] testing::Environment* const network = testing::AddGlobalTestEnvironment(new NetworkEnvironment);

}  // namespace

}  // namespace keltop
