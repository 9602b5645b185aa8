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
using Contents = std::vector<std::pair<std::uint32_t, std::string>>;
constexpr std::uint32_t kMax = 0xFFFFFFFFu;

Contents contents(Queue const& q) {
  Contents out;
  for (auto const& e : q) out.emplace_back(e.index, e.payload);
  return out;
}

TEST(LinkQueueFifo, DequeuesInArrivalOrderAndCountsOnlyRealChanges) {
  Queue q;
  EXPECT_EQ(q.enq("a"), 0u);
  EXPECT_EQ(q.enq("b"), 1u);
  EXPECT_EQ(q.deq(), "a");
  q.entryIs(1, "b");  // the payload it already holds
  EXPECT_FALSE(q.entryDel(5));
  EXPECT_EQ(q.metadata(), (Meta{1, 2, 3, 1}));
  q.entryIs(1, "B");
  EXPECT_EQ(q.deq(), "B");
  EXPECT_EQ(q.deq(), std::nullopt);
  q.entryDelAll();
  EXPECT_EQ(q.metadata(), (Meta{2, 2, 5, 0}));  // empty: the head is the next number
}

TEST(LinkQueueSequence, RemovedNumbersAreNotReissuedAndPlacementMovesTheNextNumber) {
  Queue q;
  q.enq("a");
  q.enq("b");
  EXPECT_TRUE(q.entryDel(1));
  EXPECT_EQ(q.enq("c"), 2u);  // next (2) beats tail + 1 (1)
  q.entryIs(100, "x");
  EXPECT_TRUE(q.entryDel(100));
  EXPECT_EQ(q.enq("d"), 101u);
  q.entryIs(50, "m");  // inside the run: next stays
  EXPECT_EQ(q.metadata().nextIndex, 102u);
  q.entryDelAll();
  q.entryIs(7, "fresh");  // an empty queue starts over at the placed number
  EXPECT_EQ(q.enq("e"), 8u);
}

TEST(LinkQueueSequence, PlacesAndRemovesByNumberInTheMiddle) {
  Queue q;
  for (auto [i, p] : Contents{{10, "a"}, {30, "c"}, {20, "b"}, {15, "ab"}}) q.entryIs(i, p);
  EXPECT_EQ(contents(q), (Contents{{10, "a"}, {15, "ab"}, {20, "b"}, {30, "c"}}));
  EXPECT_EQ(q.entry(16), nullptr);
  for (std::uint32_t i : {20u, 10u, 30u}) EXPECT_TRUE(q.entryDel(i));
  EXPECT_EQ(q.enq("d"), 31u);
  EXPECT_EQ(contents(q), (Contents{{15, "ab"}, {31, "d"}}));
}

TEST(LinkQueueWrap, RefusesTheHeadsNumberWithTheExactMessageUntilTheHeadLeaves) {
  Queue q;
  q.entryIs(0, "head");
  q.entryIs(kMax, "tail");
  Meta const before = q.metadata();
  try {
    q.enq("one too many");
    FAIL() << "enq into an exhausted sequence space succeeded";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(q.metadata(), before);
  q.deq();
  EXPECT_EQ(q.enq("again"), 0u);
}

TEST(LinkQueueWrap, NumbersContinueFromZeroInHeadRelativeOrder) {
  Queue q;
  q.entryIs(5, "head");
  q.entryIs(kMax - 1, "a");
  EXPECT_EQ(q.enq("b"), kMax);
  for (std::uint32_t i = 0; i < 5; ++i) EXPECT_EQ(q.enq("w"), i);
  EXPECT_THROW(q.enq("full"), Kiv::RangeException);
  EXPECT_TRUE(q.entryDel(2));
  q.entryIs(2, "back");
  std::vector<std::uint32_t> order;
  for (auto const& e : q) order.push_back(e.index);
  EXPECT_EQ(order, (std::vector<std::uint32_t>{5, kMax - 1, kMax, 0, 1, 2, 3, 4}));
}

TEST(LinkQueuePayload, EveryPayloadIsReleasedExactlyOnce) {
  auto token = std::make_shared<int>(0);
  {
    Kiv::LinkQueue<std::shared_ptr<int>> q;
    for (int i = 0; i < 40; ++i) q.enq(token);  // more than one node chunk
    q.deq();
    q.entryDel(5);
    q.entryIs(7, nullptr);
    auto copy = q;
    copy.entryDelAll();
    for (int i = 0; i < 20; ++i) copy.enq(token);  // reuses the freed nodes
    auto moved = std::move(copy);
    EXPECT_EQ(token.use_count(), 1 + 37 + 20);
  }
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
