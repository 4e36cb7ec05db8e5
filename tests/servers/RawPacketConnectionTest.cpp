#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "platform/KernelObjects.h"
#include "product/ShutdownEvent.h"
#include "semaphore/GlobalName.h"
#include "servers/RawPacketConnection.h"
#include "servers/RawPacketConnectionFactory.h"
#include "support/CapturedOutput.h"
#include "support/ScriptedSocket.h"

namespace keltop {
namespace {

/// What one receiving gives: bytes or, where there is nothing to read now, none, for which the count is negative.
using Step = std::function<std::optional<std::string>()>;

/// What the socket gives, step by step, and what was asked of it. After the last step the peer has closed.
struct Script {
  std::deque<Step> steps;
  int silentPolls = 0;

  int polls = 0;
  int sends = 0;
  Poco::Timespan sendTimeout = 0;
  Poco::Timespan receiveTimeout = 0;
};

constexpr int kWouldBlock = -1;

class ScriptedImpl : public Poco::Net::StreamSocketImpl {
 public:
  explicit ScriptedImpl(Script& script) : script_(script) {}

  bool poll(const Poco::Timespan& timeout, int mode) override {
    EXPECT_EQ(timeout.totalMilliseconds(), 2000);
    EXPECT_EQ(mode, SELECT_READ);
    return ++script_.polls > script_.silentPolls;
  }
  int receiveBytes(void* buffer, int length, int flags) override {
    EXPECT_EQ(flags, 0);
    if (script_.steps.empty()) {
      return 0;
    }
    const Step step = script_.steps.front();
    script_.steps.pop_front();
    const std::optional<std::string> bytes = step();
    if (!bytes) {
      return kWouldBlock;
    }
    EXPECT_LE(bytes->size(), static_cast<std::size_t>(length));
    return receiveInto(buffer, length, *bytes);
  }
  int sendBytes(const void* /*buffer*/, int length, int /*flags*/) override {
    ++script_.sends;
    return length;
  }
  void setSendTimeout(const Poco::Timespan& timeout) override { script_.sendTimeout = timeout; }
  void setReceiveTimeout(const Poco::Timespan& timeout) override { script_.receiveTimeout = timeout; }
  Poco::Net::SocketAddress peerAddress() override { return {"192.0.2.1", 4711}; }

 private:
  Script& script_;
};

Step bytes(std::string sent) {
  return [sent = std::move(sent)] { return sent; };
}

const Step kNothingNow = [] { return std::nullopt; };

template <typename Error>
Step failingStep(Error error) {
  return failing<std::optional<std::string>>(std::move(error));
}

/// What the console shows of one connection.
std::string consoleOf(Script& script) {
  RawPacketConnection connection{ScriptedSocket<ScriptedImpl>(script)};
  return outputOf([&] { connection.run(); });
}

const std::string kBegin = "\r\nConnect from 192.0.2.1:4711\n";
const std::string kEnd = "\r\nDisconnect from 192.0.2.1:4711\n";
const std::string kClosing = "\r\nClosing connection to 192.0.2.1:4711\n";

TEST(RawPacketConnection, showsWhatComesUntilThePeerCloses) {
  Script script = {.steps = {bytes("ABC"), bytes(std::string("D\0E", 3))}};
  EXPECT_EQ(consoleOf(script), kBegin + "ABCDE" + kEnd);
  EXPECT_EQ(script.sends, 0);
}

TEST(RawPacketConnection, asksForTenSecondsInBothDirections) {
  Script script;
  EXPECT_EQ(consoleOf(script), kBegin + kEnd);
  EXPECT_EQ(script.sendTimeout.totalMilliseconds(), 10'000);
  EXPECT_EQ(script.receiveTimeout.totalMilliseconds(), 10'000);
}

TEST(RawPacketConnection, pollsASilentPeerWithoutLimit) {
  Script script = {.steps = {bytes("A")}, .silentPolls = 1000};
  EXPECT_EQ(consoleOf(script), kBegin + "A" + kEnd);
  EXPECT_EQ(script.polls, 1001) << "and once the peer is read, it is read until it stops";
}

TEST(RawPacketConnection, pollsAgainAfterANegativeCountOrATimeOut) {
  Script script = {
      .steps = {bytes("A"), kNothingNow, bytes("B"), failingStep(Poco::TimeoutException("why")), bytes("C")}};
  EXPECT_EQ(consoleOf(script), kBegin + "ABC" + kEnd);
  EXPECT_EQ(script.polls, 3);
}

TEST(RawPacketConnection, reportsAnyOtherFailureOfTheLibraryAndEnds) {
  Script script = {.steps = {bytes("A"), failingStep(Poco::Net::ConnectionResetException("why")), bytes("never")}};
  EXPECT_EQ(consoleOf(script), kBegin + "AError: Connection reset by peer: why\n" + kClosing);
  Script other = {.steps = {failingStep(Poco::IOException("why"))}};
  EXPECT_EQ(consoleOf(other), kBegin + "Error: I/O error: why\n" + kClosing);
}

TEST(RawPacketConnection, catchesOnlyTheLibrarysExceptions) {
  Script script = {.steps = {failingStep(std::runtime_error("why"))}};
  EXPECT_THROW((void)consoleOf(script), std::runtime_error);
}

/// One test: other programs that run beside it use the same event.
TEST(RawPacketConnection, holdsTheShutdownEventAsLongAsItLastsAndDoesNotWaitOnIt) {
  const std::string name = SEMAPHORE::globalName(kShutdownEventName);
  const auto exists = [&name] {
    const platform::ObjectHandle event = platform::openEvent(name);
    return event != platform::ObjectHandle::none && platform::closeObject(event);
  };
  const platform::ObjectHandle made = platform::createEvent(nullptr, name);
  ASSERT_TRUE(platform::setEvent(made));
  bool held = false;
  Script script = {.steps = {[&] {
                               platform::closeObject(made);
                               held = exists();
                               return std::string("A");
                             },
                             kNothingNow, bytes("B")}};
  EXPECT_EQ(consoleOf(script), kBegin + "AB" + kEnd);
  EXPECT_TRUE(held);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (exists() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();  // another program may hold it for a moment
  }
  EXPECT_FALSE(exists());
}

TEST(RawPacketConnection, theFactoryMakesANewOneForEachSocket) {
  Script script;
  const ScriptedSocket<ScriptedImpl> socket(script);
  RawPacketConnectionFactory factory;
  const std::unique_ptr<Poco::Net::TCPServerConnection> one(factory.createConnection(socket));
  const std::unique_ptr<Poco::Net::TCPServerConnection> two(factory.createConnection(socket));
  EXPECT_NE(dynamic_cast<RawPacketConnection*>(one.get()), nullptr);
  EXPECT_NE(one, two);
}

}  // namespace
}  // namespace keltop
