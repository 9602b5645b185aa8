// The agent's (S, G) index of kernel entries, and the engine's use of it
// when many routes change at once.
#include <gtest/gtest.h>

#include <set>

#include "EngineTest.h"
#include "SgIndex.h"

namespace MrouteAgentTest {

namespace {

SgKey key(char const* s, char const* g) { return {IpGenAddr(g), IpGenAddr(s)}; }

KernelEntry entry(KernelEntry::Origin o, std::uint64_t learned = 0) {
  KernelEntry e;
  e.origin = o;
  e.learnedNs = learned;
  return e;
}

}  // namespace

// The group list holds exactly the entries no exact route owns, through
// every change of origin and every removal; lookups ignore it.
TEST(SgIndexTest, TheGroupListFollowsEveryOriginChangeAndRemoval) {
  SgIndex idx;
  idx.put(key("10.0.0.3", "239.1.1.1"), entry(KernelEntry::drop));
  idx.put(key("10.0.0.1", "239.1.1.1"), entry(KernelEntry::fromStarG));
  idx.put(key("10.0.0.2", "239.1.1.1"), entry(KernelEntry::exact));
  idx.put(key("10.0.0.1", "239.1.1.2"), entry(KernelEntry::drop));
  idx.put(key("2001:db8::1", "ff3e::1"), entry(KernelEntry::fromStarG));
  EXPECT_EQ(idx.size(), 5u);
  EXPECT_EQ(idx.nonExactCount(), 4u);
  // Ordered by source, the exact entry left out, other groups left out.
  EXPECT_EQ(idx.groupEntries(IpGenAddr("239.1.1.1")),
            (std::vector<SgKey>{key("10.0.0.1", "239.1.1.1"), key("10.0.0.3", "239.1.1.1")}));

  // A drop entry that a route takes over leaves the list; one whose route
  // goes comes back; a replacement keeps what put() was given.
  idx.put(key("10.0.0.3", "239.1.1.1"), entry(KernelEntry::exact, 7));
  idx.put(key("10.0.0.2", "239.1.1.1"), entry(KernelEntry::drop));
  EXPECT_EQ(idx.groupEntries(IpGenAddr("239.1.1.1")),
            (std::vector<SgKey>{key("10.0.0.1", "239.1.1.1"), key("10.0.0.2", "239.1.1.1")}));
  EXPECT_EQ(idx.at(key("10.0.0.3", "239.1.1.1")).learnedNs, 7u);
  // The same origin again, or an edit in place, changes no list.
  idx.put(key("10.0.0.2", "239.1.1.1"), entry(KernelEntry::drop));
  idx.find(key("10.0.0.2", "239.1.1.1"))->installed = true;
  EXPECT_EQ(idx.nonExactCount(), 4u);

  EXPECT_TRUE(idx.erase(key("10.0.0.1", "239.1.1.2")));
  EXPECT_FALSE(idx.erase(key("10.0.0.1", "239.1.1.2")));
  EXPECT_TRUE(idx.groupEntries(IpGenAddr("239.1.1.2")).empty());
  EXPECT_TRUE(idx.erase(key("10.0.0.3", "239.1.1.1")));  // exact: not in any list
  EXPECT_EQ(idx.nonExactCount(), 3u);
  EXPECT_EQ(idx.nonExactEntries().size(), 3u);
  EXPECT_EQ(idx.find(key("10.0.0.3", "239.1.1.1")), nullptr);
  // The same address bytes in the other family are another key.
  EXPECT_EQ(idx.count(key("10.0.0.1", "239.1.1.1")), 1u);
  EXPECT_EQ(idx.count({IpGenAddr("ff3e::1"), IpGenAddr("2001:db8::2")}), 0u);
}

// Many routes changed at once: every entry is rewritten exactly once with
// its new interfaces, and a (*, G) change touches its own flows only.
TEST_F(EngineTest, EveryRouteChangedAtOnceIsWrittenOnceAndNothingElseIs) {
  constexpr int n = 2000;
  auto group = [](int i) { return "239.9." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1); };
  for (int i = 0; i < n; ++i) {
    Route r(IpGenRouteKey("10.1.0.2", group(i).c_str()));
    r.specialIntf1Is(IntfId("Ethernet1"));
    r.oifIs(OifIndex(2), true);
    r.priorityIs(RoutePriority(1));
    app->routePublish(r);
  }
  engine->flush();
  publish(*app, starG("239.7.7.7"), "Ethernet1", {2});
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.5"), IpGenAddr("239.7.7.7"), IntfId("Ethernet1"));
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.6"), IpGenAddr("239.7.7.7"), IntfId("Ethernet1"));
  EXPECT_EQ(adds().size(), std::size_t(n) + 2);

  for (int i = 0; i < n; ++i) {
    Route r(IpGenRouteKey("10.1.0.2", group(i).c_str()));
    r.specialIntf1Is(IntfId("Ethernet1"));
    r.oifIs(OifIndex(3), true);
    r.priorityIs(RoutePriority(1));
    app->routePublish(r);
  }
  engine->flush();
  std::vector<mfcctl> const changed = adds();
  ASSERT_EQ(changed.size(), std::size_t(n));
  std::set<std::uint32_t> groups;
  for (mfcctl const& m : changed) {
    EXPECT_EQ(oifsOf(m), std::vector<int>{3});
    EXPECT_EQ(m.mfcc_parent, 1);
    groups.insert(m.mfcc_mcastgrp.s_addr);
  }
  EXPECT_EQ(groups.size(), std::size_t(n));

  // The (*, G) route's change rewrites its two flows and nothing else.
  publish(*app, starG("239.7.7.7"), "Ethernet1", {2, 3});
  std::vector<mfcctl> const star = adds();
  ASSERT_EQ(star.size(), 2u);
  for (mfcctl const& m : star) EXPECT_EQ(oifsOf(m), (std::vector<int>{2, 3}));
  EXPECT_EQ(engine->entriesOf(starG("239.7.7.7")).size(), 2u);
  EXPECT_EQ(engine->entriesOf(sg("10.1.0.2", "239.9.0.1")).size(), 1u);
}

// A refused write is the only kind that retryFailed visits, and it leaves
// the count once the kernel takes it.
TEST_F(EngineTest, OnlyRefusedEntriesAreRetriedAndCounted) {
  publish(*app, sg("10.1.0.2", "239.4.4.1"), "Ethernet1", {2});
  sys.failOption[MRT_ADD_MFC] = ENOBUFS;
  publish(*app, sg("10.1.0.2", "239.4.4.2"), "Ethernet1", {2});
  EXPECT_EQ(engine->failedEntries(), 1u);
  adds();
  EXPECT_EQ(engine->retryFailed(), 1u);  // still refused
  ASSERT_EQ(adds().size(), 1u);
  sys.failOption[MRT_ADD_MFC] = 0;
  EXPECT_EQ(engine->retryFailed(), 0u);
  std::vector<mfcctl> const retried = adds();
  ASSERT_EQ(retried.size(), 1u);
  EXPECT_EQ(retried[0].mfcc_mcastgrp.s_addr, IpGenAddr("239.4.4.2").inAddr().s_addr);
  // Withdrawn while refused: nothing left to retry.
  sys.failOption[MRT_ADD_MFC] = ENOBUFS;
  publish(*app, sg("10.1.0.2", "239.4.4.3"), "Ethernet1", {2});
  EXPECT_EQ(engine->failedEntries(), 1u);
  sys.failOption[MRT_ADD_MFC] = 0;
  withdraw(*app, sg("10.1.0.2", "239.4.4.3"));
  EXPECT_EQ(engine->failedEntries(), 0u);
}

}  // namespace MrouteAgentTest
