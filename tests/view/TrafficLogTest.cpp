#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/Timing.h"
#include "view/TrafficLog.h"

namespace keltop::view {
namespace {

using net::ConnectionEnd;

const Poco::Net::SocketAddress kPeer("127.0.0.1:40000");
const Poco::Net::SocketAddress kOwn("127.0.0.1:8080");

constexpr std::size_t kAll = 1000;

/// A log that can keep little, at times that the test says.
class SmallLog {
 public:
  explicit SmallLog(const TrafficLog::Limits& limits = {16, 4, 3}) : log(limits, [this] { return now; }) {}
  Microseconds now = 1000;
  TrafficLog log;
};

TEST(TrafficLog, tellsAConnectionAndItsPiecesWithTheirTimes) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  small.now = 1100;
  small.log.received(id, "abc");
  small.now = 1250;
  small.log.sent(id, "XY");
  small.now = 1300;
  small.log.received(id, "de");
  small.now = 1400;
  small.log.ended(id, ConnectionEnd::closedHere);
  const auto found = small.log.find(id);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->peer, "127.0.0.1:40000");
  EXPECT_EQ(found->own, "127.0.0.1:8080");
  EXPECT_EQ(found->begin, 1000);
  EXPECT_EQ(found->end, 1400);
  EXPECT_EQ(found->state, State::closedHere);
  EXPECT_EQ(found->received.total, 5U);
  EXPECT_EQ(found->sent.total, 2U);
  const auto pieces = small.log.piecesAfter(id, 0, kAll, kAll);
  ASSERT_EQ(pieces.size(), 3U);
  EXPECT_EQ(pieces[0].time, 1100);
  EXPECT_EQ(pieces[0].bytes, "abc");
  EXPECT_EQ(pieces[1].direction, Direction::sent);
  EXPECT_EQ(pieces[1].bytes, "XY");
  EXPECT_EQ(pieces[2].offset, 3U);
  EXPECT_EQ(pieces[2].time, 1300);
}

TEST(TrafficLog, keepsConnectionsThatInterleaveApart) {
  SmallLog small({1000, 100, 10});
  const auto one = small.log.opened(kPeer, kOwn);
  const auto other = small.log.opened(kPeer, kOwn);
  small.log.received(one, "ROOM 71");
  small.log.received(other, "STATUS ");
  small.log.received(one, "01 CLEAN");
  small.log.received(other, "1 OK");
  EXPECT_EQ(small.log.bytes(one, Direction::received, kAll), "ROOM 7101 CLEAN");
  EXPECT_EQ(small.log.bytes(other, Direction::received, kAll), "STATUS 1 OK");
  EXPECT_EQ(small.log.bytes(other, Direction::sent, kAll), "");
}

TEST(TrafficLog, givesPiecesAfterOneAndAsManyBytesAsAreAskedFor) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "abcd");
  small.log.received(id, "ef");
  const auto first = small.log.piecesAfter(id, 0, 1, 3);
  ASSERT_EQ(first.size(), 1U);
  EXPECT_EQ(first[0].bytes, "abc");
  EXPECT_EQ(first[0].length, 4U);
  const auto second = small.log.piecesAfter(id, first[0].number, kAll, kAll);
  ASSERT_EQ(second.size(), 1U);
  EXPECT_EQ(second[0].bytes, "ef");
  EXPECT_TRUE(small.log.piecesAfter(id, second[0].number, kAll, kAll).empty());
  EXPECT_TRUE(small.log.piecesAfter(id + 1, 0, kAll, kAll).empty());
}

TEST(TrafficLog, dropsTheOldestBytesAndCountsThem) {
  SmallLog small;
  const auto first = small.log.opened(kPeer, kOwn);
  const auto second = small.log.opened(kPeer, kOwn);
  small.log.received(first, "0123456789");
  small.log.received(second, "abcde");
  small.log.received(first, "vwxyz");  // 20 bytes in all, 16 have place: the first piece goes
  EXPECT_EQ(small.log.bytes(first, Direction::received, kAll), "vwxyz");
  EXPECT_EQ(small.log.bytes(second, Direction::received, kAll), "abcde");
  EXPECT_EQ(small.log.find(first)->received.lost, 10U);
  EXPECT_EQ(small.log.find(first)->received.total, 15U);
  EXPECT_EQ(small.log.find(second)->received.lost, 0U);
  EXPECT_EQ(small.log.counts().droppedBytes, 10U);
}

TEST(TrafficLog, keepsBytesThatGoRoundTheEndOfItsMemory) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  std::string all;
  for (int i = 0; i < 100; ++i) {
    const std::string bytes = std::to_string(i * 7919);
    all += bytes;
    small.log.received(id, bytes);
    const std::string kept = small.log.bytes(id, Direction::received, kAll);
    ASSERT_GE(kept.size(), std::min<std::size_t>(all.size(), 11));
    ASSERT_TRUE(all.ends_with(kept)) << kept << " is not the end of " << all;
  }
}

TEST(TrafficLog, dropsPiecesWhenThereAreTooMany) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  for (const char* byte : {"a", "b", "c", "d", "e"}) {
    small.log.received(id, byte);
  }
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "bcde");
}

TEST(TrafficLog, keepsTheEndOfAPieceThatIsLargerThanItsMemory) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "before");
  small.log.received(id, "0123456789abcdefghij");
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "456789abcdefghij");
  EXPECT_EQ(small.log.find(id)->received.total, 26U);
  EXPECT_EQ(small.log.find(id)->received.lost, 10U);
  EXPECT_EQ(small.log.counts().droppedBytes, 10U);
}

/// Ten bytes at once, one more in each microsecond; three of a piece that is beyond.
constexpr TrafficLog::Limits kSoonFlooded{1000, 100, 10, 10, 1, 3};

TEST(TrafficLog, keepsTheEndsOfAFloodsPieces) {
  SmallLog small(kSoonFlooded);
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "01234567");
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "01234567");
  small.log.received(id, "abcdefgh");
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "fgh");
  EXPECT_EQ(small.log.find(id)->received.total, 16U);
  EXPECT_EQ(small.log.find(id)->received.lost, 13U);
  EXPECT_EQ(small.log.counts().droppedBytes, 13U);
  small.log.received(id, "xy");
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "fghxy");
  small.now += 8;
  small.log.received(id, "ABCDEFGH");
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "fghxyABCDEFGH");
}

TEST(TrafficLog, tellsReadersOfAFloodWhatTheyMissed) {
  SmallLog small(kSoonFlooded);
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "01234567");
  TrafficLog::Place place;
  EXPECT_EQ(small.log.next(id, Direction::received, place, 4), "0123");
  const auto before = small.log.piecesAfter(id, 0, kAll, kAll);
  small.log.received(id, "abcdefgh");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 4), std::nullopt);
  const auto pieces = small.log.piecesAfter(id, before.back().number, kAll, kAll);
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].bytes, "fgh");
  EXPECT_EQ(pieces[0].offset, 13U);
}

TEST(TrafficLog, countsWhatAFloodLeftOnceWhenItsPlaceIsTaken) {
  SmallLog small({16, 100, 10, 10, 1, 3});
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "01234567");
  small.log.received(id, "abcdefgh");  // keeps "fgh", and the first piece is nobody's
  small.now += 100;
  small.log.received(id, "ABCDEFGH");  // takes that piece's place
  EXPECT_EQ(small.log.bytes(id, Direction::received, kAll), "fghABCDEFGH");
  EXPECT_EQ(small.log.find(id)->received.lost, 13U);
  EXPECT_EQ(small.log.counts().droppedBytes, 13U);
}

TEST(TrafficLog, dropsTheConnectionThatEndedFirst) {
  SmallLog small;
  const auto open = small.log.opened(kPeer, kOwn);
  const auto second = small.log.opened(kPeer, kOwn);
  const auto first = small.log.opened(kPeer, kOwn);
  small.log.received(first, "abc");
  small.log.ended(first, ConnectionEnd::closedByPeer);
  small.log.ended(second, ConnectionEnd::closedByPeer);
  const auto next = small.log.opened(kPeer, kOwn);
  EXPECT_EQ(small.log.ids(), (std::vector{open, second, next}));
  EXPECT_EQ(small.log.counts().droppedConnections, 1U);
  EXPECT_EQ(small.log.counts().droppedBytes, 3U);
  EXPECT_EQ(small.log.counts().open, 2U);
  small.log.received(first, "late");  // nobody is hurt by it
  EXPECT_EQ(small.log.counts().droppedBytes, 7U);
}

TEST(TrafficLog, dropsTheQuietestConnectionWhereAllAreOpen) {
  SmallLog small;
  const auto first = small.log.opened(kPeer, kOwn);
  const auto second = small.log.opened(kPeer, kOwn);
  const auto third = small.log.opened(kPeer, kOwn);
  small.log.received(first, "busy");
  const auto fourth = small.log.opened(kPeer, kOwn);
  EXPECT_EQ(small.log.ids(), (std::vector{first, third, fourth}));
  EXPECT_FALSE(small.log.find(second));
  EXPECT_EQ(small.log.counts().open, 3U);
  EXPECT_EQ(small.log.counts().seen, 4U);
}

TEST(TrafficLog, tellsWhatChangedInTheOrderOfTheChanges) {
  SmallLog small;
  const auto first = small.log.opened(kPeer, kOwn);
  const auto second = small.log.opened(kPeer, kOwn);
  small.log.received(first, "x");
  auto changed = small.log.changedAfter(0, kAll);
  ASSERT_EQ(changed.size(), 2U);
  EXPECT_EQ(changed[0].id, second);
  EXPECT_EQ(changed[1].id, first);
  const auto seen = changed[1].change;
  EXPECT_EQ(seen, small.log.counts().change);
  EXPECT_TRUE(small.log.changedAfter(seen, kAll).empty());
  small.log.ended(second, ConnectionEnd::reset);
  changed = small.log.changedAfter(seen, kAll);
  ASSERT_EQ(changed.size(), 1U);
  EXPECT_EQ(changed[0].id, second);
  EXPECT_EQ(changed[0].state, State::reset);
  EXPECT_EQ(small.log.changedAfter(0, 1).size(), 1U);
  EXPECT_EQ(small.log.changedAfter(0, 1)[0].id, first);
}

TEST(TrafficLog, keepsTheFirstEndAndTheReasonOfARefusal) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.refused(id, std::string(1000, 'r'));
  small.log.ended(id, ConnectionEnd::failed);
  small.log.ended(id, ConnectionEnd::closedHere);
  const auto found = small.log.find(id);
  EXPECT_TRUE(found->refused);
  EXPECT_EQ(found->refusal, std::string(200, 'r'));
  EXPECT_EQ(found->state, State::failed);
  EXPECT_EQ(small.log.counts().open, 0U);
}

TEST(TrafficLog, readsAStreamPartByPartWhileItGrows) {
  SmallLog small({100, 20, 3});
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "abcde");
  small.log.sent(id, "answer");
  small.log.received(id, "fg");
  TrafficLog::Place place;
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), "abc");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), "def");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), "g");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), "");
  small.log.received(id, "hi");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), "hi");
}

TEST(TrafficLog, tellsAReaderThatWhatItHadToReadWasDropped) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "abcdefgh");
  TrafficLog::Place place;
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), "abc");
  small.log.received(id, "0123456789");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 3), std::nullopt);
}

TEST(TrafficLog, goesOnForAReaderWhenOnlyWhatItHasReadWasDropped) {
  SmallLog small;
  const auto id = small.log.opened(kPeer, kOwn);
  small.log.received(id, "abcdefgh");
  TrafficLog::Place place;
  EXPECT_EQ(small.log.next(id, Direction::received, place, 8), "abcdefgh");
  small.log.received(id, "0123456789");
  EXPECT_EQ(small.log.next(id, Direction::received, place, 20), "0123456789");
}

TEST(TrafficLog, closingEndsAWait) {
  TrafficLog log;
  auto waiting = std::async(std::launch::async, [&] { return log.waitForClose(std::chrono::milliseconds(kLong)); });
  EXPECT_TRUE(waits(waiting));
  log.close();
  ASSERT_TRUE(ends(waiting));
  EXPECT_TRUE(waiting.get());
}

TEST(TrafficLog, isToldByManyThreadsWhileOthersRead) {
  SmallLog small({5000, 200, 50});
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      for (const Connection& one : small.log.changedAfter(0, kAll)) {
        for (const Piece& piece : small.log.piecesAfter(one.id, 0, kAll, kAll)) {
          ASSERT_EQ(piece.bytes, std::string(piece.length, static_cast<char>('a' + one.id % 26)));
        }
      }
    }
  });
  std::vector<std::thread> tellers;
  for (int i = 0; i < 4; ++i) {
    tellers.emplace_back([&] {
      for (std::size_t k = 0; k < 3000; ++k) {
        const auto id = small.log.opened(kPeer, kOwn);
        small.log.received(id, std::string(k % 40, static_cast<char>('a' + id % 26)));
        small.log.sent(id, std::string(k % 7, static_cast<char>('a' + id % 26)));
        small.log.ended(id, ConnectionEnd::closedHere);
      }
    });
  }
  std::ranges::for_each(tellers, &std::thread::join);
  done = true;
  reader.join();
  EXPECT_EQ(small.log.counts().seen, 12000U);
  EXPECT_EQ(small.log.counts().open, 0U);
  EXPECT_EQ(small.log.counts().droppedConnections, 12000U - 50U);
}

}  // namespace
}  // namespace keltop::view
