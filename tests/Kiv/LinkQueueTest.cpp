#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/LinkQueue.h"

namespace {

using Queue = Kiv::LinkQueue<std::string>;
using Meta = Kiv::LinkQueueMetadata;
constexpr std::uint32_t kMax = 0xFFFFFFFFu;

std::vector<std::pair<std::uint32_t, std::string>> contents(Queue const& q) {
  std::vector<std::pair<std::uint32_t, std::string>> out;
  for (auto const& e : q) out.emplace_back(e.index, e.payload);
  return out;
}

using Contents = std::vector<std::pair<std::uint32_t, std::string>>;

TEST(LinkQueueFifo, DequeuesInArrivalOrderAndThenNothing) {
  Queue q;
  EXPECT_EQ(q.enq("a"), 0u);
  EXPECT_EQ(q.enq("b"), 1u);
  EXPECT_EQ(q.enq("c"), 2u);
  EXPECT_EQ(q.head()->payload, "a");
  EXPECT_EQ(q.tail()->payload, "c");
  EXPECT_EQ(q.deq(), "a");
  EXPECT_EQ(q.deq(), "b");
  EXPECT_EQ(q.enq("d"), 3u);
  EXPECT_EQ(contents(q), (Contents{{2, "c"}, {3, "d"}}));
  EXPECT_EQ(q.deq(), "c");
  EXPECT_EQ(q.deq(), "d");
  EXPECT_EQ(q.deq(), std::nullopt);
  EXPECT_EQ(q.head(), nullptr);
  EXPECT_EQ(q.tail(), nullptr);
  EXPECT_EQ(q.metadata(), (Meta{4, 4, 8, 0}));
}

TEST(LinkQueueSequence, NumbersOfRemovedEntriesAreNotHandedOutAgain) {
  Queue q;
  q.enq("a");
  q.enq("b");
  q.enq("c");
  EXPECT_TRUE(q.entryDel(2));
  EXPECT_EQ(q.enq("d"), 3u);  // next (3) beats tail + 1 (2)
  q.entryDelAll();
  EXPECT_EQ(q.metadata().headIndex, 4u);  // an empty queue reports the next number
  EXPECT_EQ(q.enq("e"), 4u);
}

TEST(LinkQueueSequence, PlacingPastTheTailMovesTheNextNumber) {
  Queue q;
  q.enq("a");
  q.entryIs(100, "x");
  EXPECT_EQ(q.metadata().nextIndex, 101u);
  EXPECT_TRUE(q.entryDel(100));
  EXPECT_EQ(q.enq("b"), 101u);

  q.entryIs(50, "m");  // inside the run: next stays
  EXPECT_EQ(q.metadata().nextIndex, 102u);
  EXPECT_EQ(contents(q), (Contents{{0, "a"}, {50, "m"}, {101, "b"}}));

  q.entryDelAll();
  q.entryIs(7, "fresh");  // an empty queue starts over at the placed number
  EXPECT_EQ(q.enq("c"), 8u);
}

TEST(LinkQueueSequence, PlacesAndRemovesByNumberInTheMiddle) {
  Queue q;
  q.entryIs(10, "a");
  q.entryIs(30, "c");
  q.entryIs(20, "b");
  q.entryIs(15, "ab");
  EXPECT_EQ(contents(q), (Contents{{10, "a"}, {15, "ab"}, {20, "b"}, {30, "c"}}));
  ASSERT_NE(q.entry(15), nullptr);
  EXPECT_EQ(q.entry(15)->payload, "ab");
  EXPECT_EQ(q.entry(16), nullptr);
  EXPECT_EQ(q.entry(31), nullptr);
  EXPECT_EQ(q.entry(9), nullptr);

  EXPECT_FALSE(q.entryDel(16));
  EXPECT_TRUE(q.entryDel(20));
  EXPECT_TRUE(q.entryDel(10));
  EXPECT_EQ(q.metadata().headIndex, 15u);
  EXPECT_TRUE(q.entryDel(30));
  EXPECT_EQ(q.tail()->index, 15u);
  EXPECT_EQ(q.enq("d"), 31u);
  EXPECT_EQ(contents(q), (Contents{{15, "ab"}, {31, "d"}}));
}

TEST(LinkQueueMetadata, EveryRealChangeCountsAndNoOpsDoNot) {
  Queue q;
  q.enq("a");
  q.enq("b");
  Meta const before = q.metadata();
  EXPECT_EQ(before, (Meta{0, 2, 2, 2}));

  q.entryIs(1, "b");  // same payload
  EXPECT_FALSE(q.entryDel(5));
  Queue empty;
  empty.entryDelAll();
  EXPECT_EQ(empty.deq(), std::nullopt);
  EXPECT_EQ(q.metadata(), before);
  EXPECT_EQ(empty.metadata(), Meta{});

  q.entryIs(1, "B");  // replaced in place: count stays
  EXPECT_EQ(q.metadata(), (Meta{0, 2, 3, 2}));
  q.entryDelAll();
  EXPECT_EQ(q.metadata(), (Meta{2, 2, 4, 0}));

  // The same edits give the same metadata; a copy carries it over.
  Queue r;
  r.enq("x");
  r.enq("y");
  r.entryIs(1, "z");
  r.entryDelAll();
  EXPECT_EQ(r.metadata(), q.metadata());
  Queue s = q;
  EXPECT_EQ(s.metadata(), q.metadata());
}

TEST(LinkQueueWrap, RefusesTheHeadsNumberWithTheExactMessage) {
  Queue q;
  q.entryIs(0, "head");
  q.entryIs(kMax, "tail");
  EXPECT_EQ(q.metadata().nextIndex, 0u);
  Meta const before = q.metadata();
  try {
    q.enq("one too many");
    FAIL() << "enq into an exhausted sequence space succeeded";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(q.metadata(), before);
  EXPECT_EQ(contents(q), (Contents{{0, "head"}, {kMax, "tail"}}));

  // Dequeuing the head gives its number back.
  q.deq();
  EXPECT_EQ(q.enq("again"), 0u);
}

TEST(LinkQueueWrap, NumbersContinueFromZeroUntilTheyReachTheHead) {
  Queue q;
  q.entryIs(5, "head");
  q.entryIs(kMax - 1, "a");
  EXPECT_EQ(q.enq("b"), kMax);
  for (std::uint32_t i = 0; i < 5; ++i) EXPECT_EQ(q.enq("w"), i);
  EXPECT_THROW(q.enq("full"), Kiv::RangeException);

  // Order and lookups follow the distance from the head across the wrap.
  EXPECT_EQ(q.tail()->index, 4u);
  ASSERT_NE(q.entry(2), nullptr);
  EXPECT_TRUE(q.entryDel(2));
  q.entryIs(2, "back");
  q.entryIs(kMax, "B");
  std::vector<std::uint32_t> order;
  for (auto const& e : q) order.push_back(e.index);
  EXPECT_EQ(order, (std::vector<std::uint32_t>{5, kMax - 1, kMax, 0, 1, 2, 3, 4}));
}

TEST(LinkQueueWrap, ANumberBeforeTheHeadGoesAfterTheTail) {
  Queue q;
  q.entryIs(10, "a");
  q.entryIs(11, "b");
  q.entryIs(9, "c");  // nine lies 2^32 - 1 past the head
  EXPECT_EQ(contents(q), (Contents{{10, "a"}, {11, "b"}, {9, "c"}}));
  EXPECT_THROW(q.enq("d"), Kiv::RangeException);
}

// Payloads are built and destroyed exactly once whichever way they leave.
TEST(LinkQueuePayload, EveryPayloadIsReleasedExactlyOnce) {
  auto token = std::make_shared<int>(0);
  {
    Kiv::LinkQueue<std::shared_ptr<int>> q;
    for (int i = 0; i < 40; ++i) q.enq(token);  // more than one node chunk
    EXPECT_EQ(token.use_count(), 41);
    q.deq();
    q.entryDel(5);
    q.entryIs(7, nullptr);
    EXPECT_EQ(token.use_count(), 38);
    auto copy = q;
    EXPECT_EQ(token.use_count(), 75);
    copy.entryDelAll();
    EXPECT_EQ(token.use_count(), 38);
    for (int i = 0; i < 20; ++i) copy.enq(token);  // reuses the freed nodes
    Kiv::LinkQueue<std::shared_ptr<int>> moved = std::move(copy);
    EXPECT_EQ(moved.entries(), 20u);
    EXPECT_EQ(token.use_count(), 58);
  }
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
