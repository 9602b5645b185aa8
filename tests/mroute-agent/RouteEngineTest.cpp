#include "RouteEngine.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "EngineTest.h"
#include "Show.h"

namespace MrouteAgentTest {

TEST_F(EngineTest, AnSgRouteIsInstalledAsSoonAsItIsBestAndSharesItsOifSet) {
  publish(*app, sg("10.1.0.2", "239.1.1.1"), "Ethernet1", {2, 3}, 5);
  publish(*app, sg("10.1.0.9", "239.1.1.2"), "Ethernet1", {3, 2});
  auto a = adds();
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(IpGenAddr(a[0].mfcc_origin), IpGenAddr("10.1.0.2"));
  EXPECT_EQ(IpGenAddr(a[0].mfcc_mcastgrp), IpGenAddr("239.1.1.1"));
  EXPECT_EQ(a[0].mfcc_parent, 1);
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{2, 3}));
  EXPECT_TRUE(printed("route default (10.1.0.2, 239.1.1.1) static prio 5: Ethernet1 -> Ethernet2,Ethernet3"));
  EXPECT_TRUE(printed("install (10.1.0.2, 239.1.1.1) Ethernet1 -> Ethernet2,Ethernet3"));

  auto table = engine->mrouteTableColl(Wirly::ipv4)->vrfMrouteTable(L3::VrfName("default"));
  ASSERT_TRUE(table);
  auto r1 = table->mroute(sg("10.1.0.2", "239.1.1.1"));
  auto r2 = table->mroute(sg("10.1.0.9", "239.1.1.2"));
  ASSERT_TRUE(r1 && r2);
  EXPECT_EQ(r1->acceptingIntfId(), IntfId("Ethernet1"));
  EXPECT_EQ(r1->oifSet(), r2->oifSet());  // same outgoing set, one replication list
  EXPECT_EQ(engine->mrouteTableColl(Wirly::ipv4)->oifSets(), 1u);

  // The same route published again changes nothing in the kernel.
  publish(*app, sg("10.1.0.2", "239.1.1.1"), "Ethernet1", {2, 3}, 5);
  EXPECT_TRUE(adds().empty());
  withdraw(*app, sg("10.1.0.2", "239.1.1.1"));
  EXPECT_EQ(dels(), 1u);
  EXPECT_TRUE(printed("route default (10.1.0.2, 239.1.1.1) withdrawn"));
  EXPECT_TRUE(printed("remove (10.1.0.2, 239.1.1.1)"));
  EXPECT_FALSE(table->mroute(sg("10.1.0.2", "239.1.1.1")));
}

TEST_F(EngineTest, AStarGRouteIsInstalledPerSourceAndItsEntriesFollowIt) {
  publish(*app, starG("239.2.2.2"), "Ethernet1", {2});
  publish(*app, sg("10.1.0.7", "239.2.2.2"), "Ethernet1", {3});
  EXPECT_TRUE(printed("route default (*, 239.2.2.2) static prio 1: Ethernet1 -> Ethernet2"));
  ASSERT_EQ(adds().size(), 1u);  // only the (S, G); the (*, G) waits for traffic

  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.2.2.2"), IntfId("Ethernet1"));
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.3"), IpGenAddr("239.2.2.2"), IntfId("Ethernet1"));
  EXPECT_TRUE(printed("upcall nocache (10.1.0.2, 239.2.2.2) on Ethernet1"));
  EXPECT_TRUE(printed("install (10.1.0.3, 239.2.2.2) Ethernet1 -> Ethernet2"));
  ASSERT_EQ(adds().size(), 2u);

  // A change of the (*, G) reprograms exactly its two entries, not the (S, G).
  publish(*app, starG("239.2.2.2"), "Ethernet1", {2, 3});
  auto a = adds();
  ASSERT_EQ(a.size(), 2u);
  for (mfcctl const& m : a) {
    EXPECT_NE(IpGenAddr(m.mfcc_origin), IpGenAddr("10.1.0.7"));
    EXPECT_EQ(oifsOf(m), (std::vector<int>{2, 3}));
  }
  // Its withdrawal removes them; the (S, G) stays.
  withdraw(*app, starG("239.2.2.2"));
  EXPECT_EQ(dels(), 2u);
  EXPECT_TRUE(printed("remove (10.1.0.2, 239.2.2.2)"));
  EXPECT_EQ(engine->entries(Wirly::ipv4).size(), 1u);
  EXPECT_EQ(engine->entries(Wirly::ipv4).begin()->second.origin, KernelEntry::exact);
}

TEST_F(EngineTest, AFlowWithoutARouteGetsADropEntryThatALaterRouteReplaces) {
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.3.3.3"), IntfId("Ethernet2"));
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.4"), IpGenAddr("239.3.3.3"), IntfId("Ethernet1"));
  auto a = adds();
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(a[0].mfcc_parent, 2);  // where the packet came in
  EXPECT_TRUE(oifsOf(a[0]).empty());
  EXPECT_TRUE(printed("install (10.1.0.2, 239.3.3.3) drop"));

  publish(*app, sg("10.1.0.2", "239.3.3.3"), "Ethernet1", {3});
  a = adds();
  ASSERT_EQ(a.size(), 1u);
  EXPECT_EQ(IpGenAddr(a[0].mfcc_origin), IpGenAddr("10.1.0.2"));
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{3}));

  publish(*app, starG("239.3.3.3"), "Ethernet1", {2});
  a = adds();
  ASSERT_EQ(a.size(), 1u);  // the other drop entry; the (S, G) keeps its own route
  EXPECT_EQ(IpGenAddr(a[0].mfcc_origin), IpGenAddr("10.1.0.4"));
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{2}));

  // A report queued before its entry was written changes nothing.
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.4"), IpGenAddr("239.3.3.3"), IntfId("Ethernet1"));
  EXPECT_TRUE(adds().empty());
  // One long after means the kernel lost the entry: written again.
  clockNs += 3 * RouteEngine::staleUpcallNs;
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.4"), IpGenAddr("239.3.3.3"), IntfId("Ethernet1"));
  EXPECT_EQ(adds().size(), 1u);
}

TEST_F(EngineTest, AnIdleDropEntryExpiresAndABusyOneStays) {
  constexpr std::uint64_t idle = 60'000'000'000ull;
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.3.3.1"), IntfId("Ethernet1"));
  publish(*app, sg("10.1.0.2", "239.3.3.2"), "Ethernet1", {2});
  clockNs += idle / 2;
  sys.pktCount = 10;  // the drop entry still sees packets
  EXPECT_EQ(engine->expireDrops(idle), 0u);
  clockNs += idle - 1;
  EXPECT_EQ(engine->expireDrops(idle), 0u);  // moved half an interval ago
  clockNs += idle;
  EXPECT_EQ(engine->expireDrops(idle), 1u);
  EXPECT_EQ(dels(), 1u);
  EXPECT_EQ(lines.back(), "remove (10.1.0.2, 239.3.3.1)");
  ASSERT_EQ(engine->entries(Wirly::ipv4).size(), 1u);  // the routed entry never expires
  // The flow comes back: asked again, dropped again.
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.3.3.1"), IntfId("Ethernet1"));
  EXPECT_EQ(lines.back(), "install (10.1.0.2, 239.3.3.1) drop");
}

TEST_F(EngineTest, AFullKernelTableIsRecordedOnTheRouteAndRetried) {
  sys.failOption[MRT_ADD_MFC] = ENOBUFS;
  publish(*app, sg("10.1.0.2", "239.4.4.4"), "Ethernet1", {2});
  auto const& st = engine->routes().at("default").at(sg("10.1.0.2", "239.4.4.4"));
  EXPECT_TRUE(st.failure.routeFailureHwFull());
  EXPECT_TRUE(st.failure.hwFailure());
  EXPECT_EQ(engine->failedEntries(), 1u);
  EXPECT_FALSE(printed("install (10.1.0.2, 239.4.4.4) Ethernet1 -> Ethernet2"));
  EXPECT_NE(showText(*engine).find("Failures: NoSpaceInTcamOrLem"), std::string::npos) << showText(*engine);

  EXPECT_EQ(engine->retryFailed(), 1u);
  sys.failOption[MRT_ADD_MFC] = 0;
  EXPECT_EQ(engine->retryFailed(), 0u);
  EXPECT_EQ(engine->routes().at("default").at(sg("10.1.0.2", "239.4.4.4")).failure.value(), 0u);
  EXPECT_TRUE(printed("install (10.1.0.2, 239.4.4.4) Ethernet1 -> Ethernet2"));
}

TEST_F(EngineTest, ALinkChangeReprogramsOnlyTheRoutesThatUseIt) {
  publish(*app, sg("10.1.0.2", "239.5.5.1"), "Ethernet1", {2});
  publish(*app, sg("10.1.0.2", "239.5.5.2"), "Ethernet1", {2, 3});
  publish(*app, starG("239.5.5.3"), "Ethernet1", {3});
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.5"), IpGenAddr("239.5.5.3"), IntfId("Ethernet1"));
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.6"), IpGenAddr("239.5.5.9"), IntfId("Ethernet1"));
  adds();

  EXPECT_EQ(engine->handleLink(IntfId("Ethernet3"), false), 2u);
  EXPECT_TRUE(printed("link Ethernet3 down: reprogrammed 2 of 4 entries"));
  auto a = adds();
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(IpGenAddr(a[0].mfcc_mcastgrp), IpGenAddr("239.5.5.2"));
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{2}));
  EXPECT_EQ(IpGenAddr(a[1].mfcc_mcastgrp), IpGenAddr("239.5.5.3"));
  EXPECT_TRUE(oifsOf(a[1]).empty());

  EXPECT_EQ(engine->handleLink(IntfId("Ethernet3"), false), 0u);  // no change, no line
  EXPECT_EQ(engine->handleLink(IntfId("Ethernet3"), true), 2u);
  EXPECT_TRUE(printed("link Ethernet3 up: reprogrammed 2 of 4 entries"));
  a = adds();
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{2, 3}));
}

TEST_F(EngineTest, WrongVifReportsCountAsRpfFailuresOfTheRoute) {
  publish(*app, starG("239.6.6.6"), "Ethernet1", {2});
  engine->handleWrongVif(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.6.6.6"), IntfId("Ethernet2"));
  engine->handleWrongVif(Wirly::ipv4, IpGenAddr("10.1.0.3"), IpGenAddr("239.6.6.6"), IntfId("Ethernet2"));
  engine->handleWrongVif(Wirly::ipv4, IpGenAddr("10.1.0.3"), IpGenAddr("239.7.7.7"), IntfId("Ethernet2"));
  EXPECT_TRUE(printed("upcall wrongvif (10.1.0.2, 239.6.6.6) on Ethernet2"));
  auto const& st = engine->routes().at("default").at(starG("239.6.6.6"));
  EXPECT_EQ(st.mroute->rpfFailureCount(Bridging::VlanId(2)), 2);
  EXPECT_NE(showJson(*engine).find("\"rpfFailures\": 2"), std::string::npos);
}

TEST_F(EngineTest, RoutesOfOtherVrfsAreKeptButVisiblyNotProgrammed) {
  Kiv::Ptr<Status> red = table("red", "static-red");
  publish(*red, sg("10.1.0.2", "239.8.8.8"), "Ethernet1", {2});
  EXPECT_TRUE(printed("route red (10.1.0.2, 239.8.8.8) static-red prio 1: Ethernet1 -> Ethernet2"));
  EXPECT_TRUE(adds().empty());
  EXPECT_EQ(engine->notProgrammed(), 1u);
  EXPECT_TRUE(engine->routes().at("red").at(sg("10.1.0.2", "239.8.8.8")).failure.routeFailureVrfStatusNotInited());
  EXPECT_NE(showText(*engine).find("VRF red (no kernel table: not programmed)"), std::string::npos);
}

TEST_F(EngineTest, TheBetterApplicationTakesOverAndItsLeavingHandsBack) {
  publish(*app, sg("10.1.0.2", "239.9.9.9"), "Ethernet1", {2});
  Kiv::Ptr<Status> pim = table("default", "pim");
  publish(*pim, sg("10.1.0.2", "239.9.9.9"), "Ethernet1", {3}, 9);
  EXPECT_TRUE(printed("route default (10.1.0.2, 239.9.9.9) pim prio 9: Ethernet1 -> Ethernet3"));
  adds();
  vornDir->vornColl(L3::VrfName("default"))->vornPtrDel(pim.ptr());
  engine->flush();
  EXPECT_EQ(lines.back(), "install (10.1.0.2, 239.9.9.9) Ethernet1 -> Ethernet2");
  auto a = adds();
  ASSERT_EQ(a.size(), 1u);
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{2}));
}

TEST_F(EngineTest, IPv6RoutesProgramMifsAndFlowsAreLoggedOnce) {
  std::vector<std::string> log;
  engine->flowLogIs([&](Wirly::AddressFamily af, SgKey const& k, KernelEntry const& e) {
    log.push_back(std::string(af == Wirly::ipv6 ? "ipv6 " : "ipv4 ") + k.source.str() + " " +
                  (e.recovered ? "recovered" : "upcall"));
  });
  publish(*app, starG("ff3e::1"), "Ethernet1", {2, 3});
  clockNs = 5000;
  engine->handleNoCache(Wirly::ipv6, IpGenAddr("2001:db8::2"), IpGenAddr("ff3e::1"), IntfId("Ethernet1"));
  EXPECT_TRUE(engine->handleRecovered(Wirly::ipv6, IpGenAddr("2001:db8::3"), IpGenAddr("ff3e::1")));
  // Named again by the same dump: not written twice.
  EXPECT_FALSE(engine->handleRecovered(Wirly::ipv6, IpGenAddr("2001:db8::3"), IpGenAddr("ff3e::1")));
  auto const add = sys.optionsNamed(MRT6_ADD_MFC);
  std::size_t six = 0;
  for (auto const& o : add) six += o.level == IPPROTO_IPV6;
  EXPECT_EQ(six, 2u);
  EXPECT_EQ(log, (std::vector<std::string>{"ipv6 2001:db8::2 upcall", "ipv6 2001:db8::3 recovered"}));
  auto const& e = engine->entries(Wirly::ipv6).at({IpGenAddr("ff3e::1"), IpGenAddr("2001:db8::2")});
  EXPECT_EQ(e.learnedNs, 5000u);
  EXPECT_EQ(e.installedNs, 5000u);
  // A change of the route rewrites, and logs nothing again.
  publish(*app, starG("ff3e::1"), "Ethernet1", {2});
  EXPECT_EQ(log.size(), 2u);
  EXPECT_TRUE(printed("install (2001:db8::3, ff3e::1) Ethernet1 -> Ethernet2"));
}

}  // namespace MrouteAgentTest

namespace MrouteAgentTest {

// Reports of flows without a route, as a local user's flood makes them.
class BudgetTest : public EngineTest {
 protected:
  void budget(UpcallRate perIntf, UpcallRate total, std::uint32_t dropMax = 1000) {
    engine->budget()->settingsIs({perIntf, total, dropMax});
  }
  // One report of an unrouted flow per call, each to a new group.
  void unrouted(char const* intf, int n = 1) {
    for (int i = 0; i < n; ++i) {
      std::string const g = "239.50." + std::to_string(next / 250) + "." + std::to_string(next % 250 + 1);
      ++next;
      engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr(g), IntfId(intf));
    }
  }
  UpcallBudget const& b() const { return *engine->budget(); }
  int next = 0;
};

TEST_F(BudgetTest, UnroutedReportsAreBoundedPerInterfaceAndInTotalAndRefillWithTime) {
  budget({10, 3}, {20, 5});
  unrouted("Ethernet1", 5);
  EXPECT_EQ(adds().size(), 3u);
  EXPECT_EQ(b().overIntfBudgetReports(), 2u);
  // Ethernet2 has its own bucket, but only two tokens are left in total.
  unrouted("Ethernet2", 5);
  EXPECT_EQ(adds().size(), 2u);
  EXPECT_EQ(b().overTotalBudgetReports(), 3u);
  EXPECT_EQ(b().admittedReports(), 5u);
  // A refused report leaves no trace in the event lines or the entries.
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto const& l) { return l.rfind("upcall nocache", 0) == 0; }),
            5);
  EXPECT_EQ(engine->entries(Wirly::ipv4).size(), 5u);

  // 100 ms: one token more for Ethernet1, two in total.
  clockNs += 100'000'000;
  unrouted("Ethernet1", 2);
  EXPECT_EQ(adds().size(), 1u);
  EXPECT_EQ(b().overIntfBudgetReports(), 3u);
  // Long idle: the buckets hold their burst, no more.
  clockNs += 60'000'000'000ull;
  unrouted("Ethernet1", 4);
  EXPECT_EQ(adds().size(), 3u);
  EXPECT_EQ(b().overIntfBudgetReports(), 4u);
  // A clock that steps back refills nothing.
  clockNs -= 30'000'000'000ull;
  unrouted("Ethernet2", 3);
  EXPECT_EQ(adds().size(), 2u);  // what the total bucket had left
  EXPECT_EQ(b().overTotalBudgetReports(), 4u);
}

TEST_F(BudgetTest, ARoutedFlowIsNeverRefused) {
  budget({0, 0}, {0, 0}, 0);  // nothing for flows without a route
  publish(*app, starG("239.2.2.2"), "Ethernet1", {2});
  publish(*app, sg("10.1.0.9", "239.2.2.3"), "Ethernet1", {3});
  adds();
  unrouted("Ethernet1", 3);
  EXPECT_TRUE(adds().empty());
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.2.2.2"), IntfId("Ethernet1"));
  engine->handleRecovered(Wirly::ipv4, IpGenAddr("10.1.0.3"), IpGenAddr("239.2.2.2"));
  // An (S, G) route whose entry the kernel lost: its report is not refused either.
  clockNs += 3 * RouteEngine::staleUpcallNs;
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.9"), IpGenAddr("239.2.2.3"), IntfId("Ethernet1"));
  auto a = adds();
  ASSERT_EQ(a.size(), 3u);
  EXPECT_EQ(oifsOf(a[0]), (std::vector<int>{2}));
  EXPECT_EQ(oifsOf(a[2]), (std::vector<int>{3}));
  EXPECT_EQ(b().admittedReports(), 0u);
  EXPECT_EQ(b().overIntfBudgetReports(), 3u);
  // A flow found in the kernel's unresolved list meets the budget too, as
  // the unknown interface.
  EXPECT_FALSE(engine->handleRecovered(Wirly::ipv4, IpGenAddr("10.1.0.3"), IpGenAddr("239.2.9.9")));
  EXPECT_TRUE(adds().empty());
  EXPECT_EQ(b().overIntfBudgetReports(), 4u);
  EXPECT_EQ(engine->recoveredFlows(), 1u);
}

TEST_F(BudgetTest, DropEntriesAreCappedAndCountedAsTheyComeAndGo) {
  budget({1000, 1000}, {1000, 1000}, 2);
  unrouted("Ethernet1", 3);
  EXPECT_EQ(adds().size(), 2u);
  EXPECT_EQ(b().dropEntries(), 2u);
  EXPECT_EQ(b().dropEntryMaxRefusals(), 1u);
  unrouted("Ethernet1");
  auto const atMax = [this] {
    return std::count(lines.begin(), lines.end(),
                      "drop entries at their maximum of 2: flows without a route get none until some expire");
  };
  EXPECT_EQ(atMax(), 1);  // said once, counted each time
  EXPECT_EQ(b().dropEntryMaxRefusals(), 2u);

  // A route takes over a drop entry: room for one more.
  publish(*app, sg("10.1.0.2", "239.50.0.1"), "Ethernet1", {2});
  EXPECT_EQ(b().dropEntries(), 1u);
  unrouted("Ethernet1");
  EXPECT_EQ(b().dropEntries(), 2u);
  // Its withdrawal removes the entry; a flow that asks again may be capped.
  withdraw(*app, sg("10.1.0.2", "239.50.0.1"));
  EXPECT_EQ(b().dropEntries(), 2u);
  engine->handleNoCache(Wirly::ipv4, IpGenAddr("10.1.0.2"), IpGenAddr("239.50.0.1"), IntfId("Ethernet1"));
  EXPECT_EQ(b().dropEntryMaxRefusals(), 3u);
  EXPECT_EQ(atMax(), 2);  // the count went below the maximum and came back
  adds();

  // Idle drop entries expire and free their places.
  clockNs += 120'000'000'000ull;
  EXPECT_EQ(engine->expireDrops(60'000'000'000ull), 2u);
  EXPECT_EQ(b().dropEntries(), 0u);
  unrouted("Ethernet1");
  EXPECT_EQ(adds().size(), 1u);

  std::string const text = showText(*engine);
  EXPECT_NE(text.find("flows without a route: admitted 4  over interface budget 0  over total budget 0  drop entries 1 "
                      "of 2  refused at maximum 3"),
            std::string::npos)
      << text;
  EXPECT_NE(showJson(*engine).find("\"unrouted\": {\"admitted\": 4, \"overIntfBudget\": 0, \"overTotalBudget\": 0, "
                                   "\"dropEntries\": 1, \"dropEntryMax\": 2, \"dropEntryMaxRefusals\": 3}}"),
            std::string::npos);
  // kivctl reads the same counters by name.
  EXPECT_EQ(Kiv::attrGet(b(), "dropEntryMaxRefusals"), "3");
  EXPECT_EQ(Kiv::attrGet(b(), "dropEntries"), "1");
}

}  // namespace MrouteAgentTest
