#include <gtest/gtest.h>

#include "Kiv/Trace.h"
#include "Mfib/MfibVornCollRouteIteratorConst.h"
#include "MfibTestUtil.h"

using namespace MfibTest;

namespace {

struct CollRecorder : MfibVornColl::NotifieeConst {
  using MfibVornColl::NotifieeConst::NotifieeConst;
  void onVornPtr(Status const* k) override { keys.push_back(k); }
  std::vector<Status const*> keys;
};

class MfibVornCollTest : public ::testing::Test {
 protected:
  Tables tables;
  Kiv::Ptr<Status> a = tables.table("a");
  Kiv::Ptr<Status> b = tables.table("b");
  Kiv::Ptr<MfibVornColl> coll = mfibVornCollFactory(L3::VrfName("red"));

  void add(Kiv::Ptr<Status> const& t) { coll->vornPtrIs(t.ptr(), t); }
  // The two tables in the collection's iteration order.
  std::pair<Status*, Status*> ordered() {
    Status const* first = coll->vornPtrMap().begin()->first;
    return first == a.ptr() ? std::pair(a.ptr(), b.ptr()) : std::pair(b.ptr(), a.ptr());
  }
};

TEST_F(MfibVornCollTest, MutatorsNotifyOnlyRealChanges) {
  CollRecorder heard(coll);
  add(a);
  add(a);
  coll->vornPtrIs(b.ptr(), nullptr);
  EXPECT_EQ(coll->vornPtrDel(b.ptr()), nullptr);
  EXPECT_EQ(heard.keys, (std::vector<Status const*>{a.ptr()}));
  coll->vornPtrIs(a.ptr(), b);  // another table under the same key replaces
  EXPECT_EQ(coll->vornPtr(a.ptr()), b);
  coll->vornPtrIs(a.ptr(), nullptr);
  EXPECT_EQ(coll->vornPtrs(), 0u);
  add(a);
  add(b);
  coll->vornPtrDelAll();
  EXPECT_EQ(heard.keys.size(), 7u);
  EXPECT_EQ(coll->vornPtrs(), 0u);
}

TEST_F(MfibVornCollTest, StrictlyGreaterPriorityWinsAndTiesGoToTheFirstTable) {
  add(a);
  add(b);
  auto [first, second] = ordered();
  IpGenRouteKey const k = key(1), solo = key(2), zero = key(3);
  first->routePublish(route(k, 2));
  second->routePublish(route(k, 2));
  EXPECT_EQ(coll->vornKey(k), first);
  EXPECT_EQ(coll->nextBestVorn(first, k), second);
  EXPECT_FALSE(coll->isBestRoute(second, k));
  second->routePublish(route(k, 3));
  EXPECT_EQ(coll->vornKey(k), second);
  EXPECT_EQ(coll->route(k).priority(), RoutePriority(3));
  EXPECT_EQ(coll->mfibVorn(k), second);

  second->routePublish(route(solo, 1));
  EXPECT_EQ(coll->nextBestVorn(second, solo), nullptr);

  a->routePublish(route(zero, 0));
  EXPECT_EQ(coll->vornKey(zero), nullptr);
  EXPECT_EQ(coll->route(zero), Route());
  EXPECT_FALSE(coll->isBestRoute(a.ptr(), zero));
}

TEST_F(MfibVornCollTest, CorruptTableIsReportedAndSkipped) {
  add(a);
  add(b);
  IpGenRouteKey const k = key(1);
  a->routePublish(route(k, 5));
  b->routePublish(route(k, 1));
  tear(*a, k);
  EXPECT_EQ(coll->vornKey(k), b.ptr());
  EXPECT_EQ(coll->route(k).priority(), RoutePriority(1));
  EXPECT_GE(a->routeTable().corruptions(), 2u);
}

// ---- the merge iterator

std::vector<std::pair<Status const*, IpGenRouteKey>> walk(Kiv::Ptr<MfibVornColl const> const& coll) {
  std::vector<std::pair<Status const*, IpGenRouteKey>> out;
  for (MfibVornCollRouteIteratorConst it(coll); !it.done(); it.updateToBestRouteIterators()) {
    EXPECT_TRUE(it.valid());
    EXPECT_EQ(it.route().key(), it.routeKey());
    out.emplace_back(it.vornKey(), it.routeKey());
  }
  return out;
}

TEST_F(MfibVornCollTest, MergeIteratorYieldsOnlyUnbeatenPositionsTableByTable) {
  EXPECT_TRUE(MfibVornCollRouteIteratorConst(coll).done());
  EXPECT_EQ(coll->routes(), 0u);
  Kiv::Ptr<Status> empty = tables.table("empty");
  add(a);
  add(b);
  add(empty);
  auto [first, second] = ordered();
  // first: k1 (1), k2 (1, beaten), k3 (0); second: k2 (2), k4 (3, tied)
  first->routePublish(route(key(1), 1));
  first->routePublish(route(key(2), 1));
  first->routePublish(route(key(3), 0));
  first->routePublish(route(key(4), 3));
  second->routePublish(route(key(2), 2));
  second->routePublish(route(key(4), 3));
  Kiv::TraceCapture cap("Mroute::MfibVorn/8");
  auto got = walk(coll);
  decltype(got) expected{{first, key(1)}, {first, key(3)}, {first, key(4)}, {second, key(2)}, {second, key(4)}};
  std::sort(got.begin(), got.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(got, expected);
  EXPECT_EQ(coll->routes(), 5u);
  EXPECT_EQ(cap.count(" has better priority 2 for (s: 10.0.0.2/32 g: 239.1.0.1/32)"), 2u);  // walk and routes()
  EXPECT_TRUE(cap.contains("Done"));
}

TEST_F(MfibVornCollTest, MergeIteratorSkipsTheRestOfATableThatFailsAStep) {
  add(a);
  add(b);
  for (unsigned n = 1; n <= 3; ++n) a->routePublish(route(key(n), 1));
  b->routePublish(route(key(9), 1));
  tear(*a, key(2));
  auto got = walk(coll);
  bool sawB = false;
  for (auto const& [t, k] : got) {
    if (t == a.ptr()) {
      EXPECT_EQ(k, key(1));
    }
    sawB |= t == b.ptr() && k == key(9);
  }
  EXPECT_TRUE(sawB);
  EXPECT_GE(a->routeTable().corruptions(), 1u);
}

// Four tables whose keys interleave, with runs that only one table holds
// (longer than a cursor steps before it jumps), ties and priority 0: the
// iterator, the one-pass unbeatenKeys and routes() all give the positions
// the rule gives, in table order and key order within a table.
TEST_F(MfibVornCollTest, MergeWalkAndOnePassFollowTheRuleOverInterleavedTables) {
  Kiv::Ptr<Status> c = tables.table("c"), d = tables.table("d");
  for (auto const& t : {a, b, c, d}) add(t);
  std::vector<Status*> order;
  for (auto const& [k, t] : coll->vornPtrMap()) order.push_back(const_cast<Status*>(k));
  constexpr unsigned kKeys = 600;
  // priority[t][n]: -1 when table t does not hold key n.
  std::vector<std::vector<int>> priority(4, std::vector<int>(kKeys, -1));
  std::uint32_t h = 12345;
  for (unsigned n = 0; n < kKeys; ++n) {
    for (unsigned t = 0; t < 4; ++t) {
      h = h * 1103515245u + 12345u;
      bool held = (h >> 16) % 3 != 0;
      if (n >= 200 && n < 300) held = t == 2;  // a run only the third table holds
      if (n >= 400 && n < 420) held = t != 1;  // a run the second table lacks
      if (held) priority[t][n] = n % 50 == 7 ? 3 : int((h >> 8) % 4);
    }
  }
  for (unsigned t = 0; t < 4; ++t)
    for (unsigned n = 0; n < kKeys; ++n)
      if (priority[t][n] >= 0) order[t]->routePublish(route(key(n), unsigned(priority[t][n])));

  std::vector<std::pair<Status const*, IpGenRouteKey>> expected;
  for (unsigned t = 0; t < 4; ++t)
    for (unsigned n = 0; n < kKeys; ++n) {
      if (priority[t][n] < 0) continue;
      bool beaten = false;
      for (unsigned u = 0; u < 4; ++u) beaten |= u != t && priority[u][n] > priority[t][n];
      if (!beaten) expected.emplace_back(order[t], key(n));
    }
  EXPECT_EQ(walk(coll), expected);
  EXPECT_EQ(coll->routes(), expected.size());

  std::vector<std::pair<Status const*, IpGenRouteKey>> onePass;
  auto const keys = unbeatenKeys(*coll);
  ASSERT_EQ(keys.size(), 4u);
  for (unsigned t = 0; t < 4; ++t)
    for (auto const& k : keys[t]) onePass.emplace_back(order[t], k);
  EXPECT_EQ(onePass, expected);
}

// A table whose walk fails yields nothing after the failure, but its other
// routes still beat: the iterator and the one-pass agree.
TEST_F(MfibVornCollTest, AFailedTableStillBeatsWithItsIntactRoutes) {
  add(a);
  add(b);
  for (unsigned n = 1; n <= 3; ++n) a->routePublish(route(key(n), 5));
  for (unsigned n = 1; n <= 4; ++n) b->routePublish(route(key(n), 1));
  tear(*a, key(2));
  decltype(walk(coll)) const expected{{a.ptr(), key(1)}, {b.ptr(), key(2)}, {b.ptr(), key(4)}};
  EXPECT_EQ(walk(coll), expected);
  auto const keys = unbeatenKeys(*coll);
  EXPECT_EQ(keys[0], (std::vector<IpGenRouteKey>{key(1)}));
  EXPECT_EQ(keys[1], (std::vector<IpGenRouteKey>{key(2), key(4)}));
  EXPECT_GE(a->routeTable().corruptions(), 2u);
}

TEST(MfibVornDirRouteKey, OrdersByTableThenKeyAndReadsBackItsText) {
  auto const* t1 = reinterpret_cast<Status const*>(0x1000);
  auto const* t2 = reinterpret_cast<Status const*>(0x2000);
  MfibVornDirRouteKey x(t1, key(2)), y(t1, key(3)), z(t2, key(1));
  EXPECT_LT(x, y);
  EXPECT_LT(y, z);
  EXPECT_EQ(MfibVornDirRouteKey(x.valueToStrep()), x);
  EXPECT_NE(x.valueToStrep().find("'vornKey': 0x1000"), std::string::npos) << x.valueToStrep();
  EXPECT_EQ(x.hash(), MfibVornDirRouteKey(t1, key(2)).hash());
  EXPECT_NE(x.hash(), z.hash());
  EXPECT_THROW(MfibVornDirRouteKey("Value('Other', ** {})"), Kiv::ParseException);
}

// ---- ordering machines

class OrderRouteSmTest : public MfibVornCollTest {
 protected:
  Kiv::Ptr<RouteOrderedCollection> out = RouteOrderedCollection::create();
};

TEST_F(OrderRouteSmTest, InitialPassAndLaterChangesKeepTheBestOwner) {
  add(a);
  a->routePublish(route(key(1), 1));
  a->routePublish(route(key(2), 1));
  Kiv::TraceCapture cap("Mroute::MfibVorn/0-9");
  auto sm = orderRouteSmFactory(coll, out);
  EXPECT_TRUE(cap.contains("OrderRouteSm Not initialized"));
  EXPECT_TRUE(cap.contains("Initialized OrderRouteSm"));
  EXPECT_EQ(out->routes(), 2u);
  EXPECT_EQ(out->route(key(1)), a.ptr());

  // A new table with a better route takes the key over.
  b->routePublish(route(key(1), 5));
  add(b);
  EXPECT_EQ(out->route(key(1)), b.ptr());
  EXPECT_EQ(sm->mfibVorns(), 2u);

  // A worse route in another table changes nothing.
  cap.clear();
  a->routePublish(route(key(1), 2));
  EXPECT_FALSE(cap.contains("Route entry updated for key (s: "));
  EXPECT_EQ(out->route(key(1)), b.ptr());

  // The best route goes: the other table owns the key.
  b->routeDel(key(1));
  EXPECT_TRUE(cap.contains("Route entry updated for key (s: 10.0.0.1/32 g: 239.1.0.1/32)"));
  EXPECT_EQ(out->route(key(1)), a.ptr());

  // The last route goes: the key leaves, and the trace has no closing parenthesis.
  a->routeDel(key(1));
  EXPECT_EQ(out->route(key(1)), std::nullopt);
  bool exact = false;
  for (auto const& t : cap.texts()) exact |= t == "Route entry deleted for key (s: 10.0.0.1/32 g: 239.1.0.1/32";
  EXPECT_TRUE(exact);

  // A table leaving the collection takes its reactor with it.
  coll->vornPtrDel(b.ptr());
  EXPECT_EQ(sm->mfibVorns(), 1u);
  cap.clear();
  sm->handleInitialized();
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{"void Vorn::Multicast::Fib::OrderRouteSm::handleInitialized()"}));
}

// The initial pass writes the same entries in the same order whether it
// goes through the iterator (traced) or the one-pass merge: a notifiee of
// the output hears the same sequence, ties written once per tied table.
TEST_F(OrderRouteSmTest, InitialPassIsTheSameTracedOrNot) {
  struct Heard : RouteOrderedCollection::NotifieeConst {
    using RouteOrderedCollection::NotifieeConst::NotifieeConst;
    void onRoute(IpGenRouteKey k) override { keys.push_back(k); }
    std::vector<IpGenRouteKey> keys;
  };
  Kiv::Ptr<Status> c = tables.table("c");
  for (auto const& t : {a, b, c}) add(t);
  for (unsigned n = 0; n < 60; ++n) {
    a->routePublish(route(key(n), n % 3));
    if (n % 2 == 0) b->routePublish(route(key(n), n % 5 == 0 ? n % 3 : 2));
    if (n % 3 != 1) c->routePublish(route(key(n), 1 + n % 2));
  }
  Heard plainHeard(out);
  auto plain = orderRouteSmFactory(coll, out);
  auto tracedOut = RouteOrderedCollection::create();
  Heard tracedHeard(tracedOut);
  Kiv::Ptr<OrderRouteSm> traced;
  {
    Kiv::TraceCapture cap("Mroute::MfibVorn/8");
    traced = orderRouteSmFactory(coll, tracedOut);
    EXPECT_TRUE(cap.contains("Done"));
  }
  EXPECT_EQ(plainHeard.keys, tracedHeard.keys);
  EXPECT_EQ(out->routeMap(), tracedOut->routeMap());
  EXPECT_GT(plainHeard.keys.size(), out->routes());  // some ties were written twice
}

TEST_F(OrderRouteSmTest, ZombieMachineHearsNothing) {
  add(a);
  auto sm = orderRouteSmFactory(coll, out);
  sm->kivDoZombieReactors(true);
  a->routePublish(route(key(1), 1));
  EXPECT_EQ(out->routes(), 0u);
  sm->kivDoZombieReactors(false);
  sm->vornCollDel();
  add(b);
  EXPECT_EQ(sm->mfibVorns(), 1u);
  sm->mfibVornDelAll();
  a->routePublish(route(key(2), 1));
  EXPECT_EQ(out->routes(), 0u);
}

TEST_F(MfibVornCollTest, ModalMachineWaitsForInitialisationAndRestoresClearedFlags) {
  auto out = ModalRouteOrderedCollection::create();
  a->routePublish(route(key(1), 0));
  auto sm = modalOrderRouteSmFactory(a, out);
  Kiv::TraceCapture cap("Mroute::MfibVorn/0-9");
  a->routePublish(route(key(2), 1));
  EXPECT_TRUE(cap.contains("ModalOrderRouteSm not initialized"));
  EXPECT_EQ(out->routes(), 0u);
  sm->handleInitialized();
  EXPECT_EQ(out->routes(), 2u);
  out->routeIs(key(1), false);
  cap.clear();
  a->routePublish(route(key(1), 4));
  EXPECT_EQ(out->route(key(1)), std::optional<bool>(true));
  EXPECT_TRUE(cap.contains("Route entry added for key (s: 10.0.0.1/32 g: 239.1.0.1/32)"));
  cap.clear();
  a->routePublish(route(key(1), 5));
  EXPECT_FALSE(cap.contains("Route entry added"));
  a->routeDel(key(2));
  EXPECT_EQ(out->route(key(2)), std::nullopt);
}

TEST(MfibVornDir, CollectionsPerVrfAreCreatedOnceAndRemovedWithNotification) {
  auto dir = mfibVornDirFactory();
  struct Heard : MfibVornDir::NotifieeConst {
    using MfibVornDir::NotifieeConst::NotifieeConst;
    void onVornColl(L3::VrfName v) override { vrfs.push_back(v.str()); }
    std::vector<std::string> vrfs;
  } heard(dir);
  auto red = dir->vornCollIs(L3::VrfName("red"));
  EXPECT_EQ(dir->vornCollIs(L3::VrfName("red")), red);
  EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
  EXPECT_EQ(dir->vornCollDel(L3::VrfName("blue")), nullptr);
  dir->vornCollIs(L3::VrfName("blue"));
  dir->vornCollDelAll();
  EXPECT_EQ(heard.vrfs.size(), 4u);
  EXPECT_EQ(dir->vornColls(), 0u);

  auto vs = vrfStatusFactory();
  Kiv::Ptr<Status> t = new Status("t");
  vs->statusIs(L3::VrfName("red"), t);
  vs->statusIs(L3::VrfName("red"), t);
  EXPECT_EQ(vs->statuses(), 1u);
  vs->statusIs(L3::VrfName("red"), nullptr);
  EXPECT_EQ(vs->status(L3::VrfName("red")), nullptr);
}

}  // namespace

namespace {

TEST_F(MfibVornCollTest, TablesIterateInEntryOrderSoTheFirstEnteredWinsATieInEveryRun) {
  // Both orders, whatever the tables' addresses.
  for (bool aFirst : {true, false}) {
    auto c = mfibVornCollFactory(L3::VrfName("red"));
    auto first = aFirst ? a : b, second = aFirst ? b : a;
    c->vornPtrIs(first.ptr(), first);
    c->vornPtrIs(second.ptr(), second);
    first->routePublish(route(key(9), 2));
    second->routePublish(route(key(9), 2));
    EXPECT_EQ(c->vornKey(key(9)), first.ptr());
    // Replacing a table under its key keeps its place.
    c->vornPtrIs(first.ptr(), second);
    EXPECT_EQ(c->vornPtrMap().begin()->first, first.ptr());
    first->routeDel(key(9));
    second->routeDel(key(9));
  }
}

TEST_F(MfibVornCollTest, NullKeyIsRefused) {
  try {
    coll->vornPtrIs(nullptr, a);
    FAIL() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(),
                 "null _vornPtr parameter to mutator for Vorn::Multicast::Fib::MfibVornColl::vornPtr not allowed\"");
  }
  EXPECT_EQ(coll->vornPtrs(), 0u);
}

std::vector<std::string> attrNames(Kiv::Entity const& e) {
  std::vector<std::string> out;
  for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs()) out.push_back(a.name);
  return out;
}

TEST_F(OrderRouteSmTest, EveryMfibEntityAnswersByNameInItsDeclarationOrder) {
  add(a);
  auto sm = orderRouteSmFactory(coll, out);
  auto modal = modalOrderRouteSmFactory(a, ModalRouteOrderedCollection::create());
  auto dir = mfibVornDirFactory();
  auto vrfs = vrfStatusFactory();
  using V = std::vector<std::string>;
  EXPECT_EQ(attrNames(*coll), (V{"vrfName", "vornPtr"}));
  EXPECT_EQ(attrNames(*sm), (V{"vornColl", "routeOrdered", "initialized", "mfibVorn", "handleInitialized"}));
  EXPECT_EQ(attrNames(*modal),
            (V{"mfibVorn", "routeOrdered", "initialized", "handleRouteChanged", "initializedIs", "handleInitialized"}));
  EXPECT_EQ(attrNames(*dir), (V{"vornColl"}));
  EXPECT_EQ(attrNames(*vrfs), (V{"status"}));
  EXPECT_EQ(Kiv::attrGet(*coll, "vrfName"), "'red'");
  EXPECT_THROW(Kiv::attrSet(*coll, "vrfName", "'blue'"), Kiv::RangeException);
  EXPECT_EQ(Kiv::attrGet(*sm, "initialized"), "True");
  EXPECT_EQ(Kiv::attrCount(*sm, "mfibVorn"), 1u);
  EXPECT_THROW(Kiv::attrEntryDel(*sm, "mfibVorn", Kiv::valueToStrep(a.ptr())), Kiv::RangeException);
}

TEST_F(OrderRouteSmTest, OrderedCollectionsAndTableRecordsWalkedByNameEqualTheTypedWalk) {
  add(a);
  add(b);
  a->routePublish(route(key(2), 1));
  a->routePublish(route(key(1), 1));
  b->routePublish(route(key(1), 3));
  a->oifIndexIntfIs(OifIndexIntf(OifIndex(4), Wirly::IntfId("Ethernet4")));
  auto sm = orderRouteSmFactory(coll, out);
  using V = std::vector<std::string>;
  EXPECT_EQ(attrNames(*out), (V{"route"}));
  EXPECT_EQ(out->typeName(), "Vorn::Multicast::Fib::RouteOrderedCollection");
  EXPECT_EQ(attrNames(*a), (V{"route", "oifIndexIntf", "bitMapperVornStatus"}));

  // The ordered output, in key order, owners as the table addresses.
  std::vector<std::pair<std::string, std::string>> typed;
  for (auto const& [k, owner] : out->routeMap()) typed.emplace_back(Kiv::valueToStrep(k), Kiv::valueToStrep(owner));
  EXPECT_EQ(Kiv::attrEntries(*out, "route"), typed);
  EXPECT_EQ(Kiv::attrLookup(*out, "route", Kiv::valueToStrep(key(1))), Kiv::valueToStrep(b.ptr()));
  EXPECT_EQ(Kiv::attrLookup(*out, "route", Kiv::valueToStrep(key(9))), "None");
  EXPECT_THROW(Kiv::attrEntryDel(*out, "route", Kiv::valueToStrep(key(1))), Kiv::RangeException);
  auto modal = ModalRouteOrderedCollection::create();
  modal->routeIs(key(3), false);
  EXPECT_EQ(Kiv::attrLookup(*modal, "route", Kiv::valueToStrep(key(3))), "False");

  // A shared-memory table read by name, record for record, in key order.
  std::vector<std::pair<std::string, std::string>> records;
  Vorn::IterHint hint;
  IpGenRouteKey k;
  Route r;
  for (bool ok = a->routeTable().first(k, r, hint); ok; ok = a->routeTable().next(k, k, r, hint))
    records.emplace_back(Kiv::valueToStrep(k), r.valueToStrep());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(Kiv::attrEntries(*a, "route"), records);
  EXPECT_EQ(Kiv::attrCount(*a, "route"), 2u);
  EXPECT_EQ(Kiv::attrLookup(*a, "route", Kiv::valueToStrep(key(2))), a->route(key(2)).valueToStrep());
  EXPECT_EQ(Kiv::attrLookup(*a, "route", Kiv::valueToStrep(key(7))), Route().valueToStrep());
  EXPECT_FALSE(Kiv::attrHas(*a, "route", Kiv::valueToStrep(key(7))));
  EXPECT_EQ(Kiv::attrLookup(*a, "oifIndexIntf", "4"),
            "Value('Vorn::Multicast::Fib::OifIndexIntf', ** {'oifIndex': 4, 'intfId': " +
                Kiv::valueToStrep(Wirly::IntfId("Ethernet4")) + "})");
  // Written only by the process that owns the table.
  EXPECT_THROW(Kiv::attrEntryDel(*a, "route", Kiv::valueToStrep(key(2))), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrDelAll(*a, "oifIndexIntf"), Kiv::RangeException);
  EXPECT_EQ(a->routeTable().size(), 2u);
  EXPECT_EQ(Kiv::attrGet(*a, "bitMapperVornStatus"), "None");
}

TEST_F(MfibVornCollTest, TablesAreFoundAndWithdrawnByNameAsByTheTypedCalls) {
  add(a);
  add(b);
  CollRecorder r(coll);
  std::string const ka = Kiv::valueToStrep(static_cast<Status const*>(a.ptr()));
  EXPECT_TRUE(Kiv::attrHas(*coll, "vornPtr", ka));
  EXPECT_EQ(Kiv::attrOf(*coll, "vornPtr").lookupEntity(*coll, ka).ptr(), a.ptr());
  auto entries = Kiv::attrEntries(*coll, "vornPtr");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].first, Kiv::valueToStrep(coll->vornPtrMap().begin()->first));
  // A table cannot be made from text; None withdraws it, like a null pointer.
  EXPECT_THROW(Kiv::attrEntryIs(*coll, "vornPtr", ka, "Entity('Vorn::Multicast::Fib::Status', 'a')"),
               Kiv::ParseException);
  Kiv::attrEntryIs(*coll, "vornPtr", ka, "None");
  Kiv::attrEntryDel(*coll, "vornPtr", Kiv::valueToStrep(static_cast<Status const*>(b.ptr())));
  EXPECT_EQ(coll->vornPtrs(), 0u);
  EXPECT_EQ(r.keys, (std::vector<Status const*>{a.ptr(), b.ptr()}));
  EXPECT_EQ(Kiv::attrLookup(*coll, "vornPtr", ka), "None");
}

TEST(MfibVornDir, CollectionsAreMadeAndRemovedByVrfNameThroughReflection) {
  auto dir = mfibVornDirFactory();
  Kiv::attrEntryIs(*dir, "vornColl", "red", "None");  // a bare word is the VRF's name
  Kiv::attrEntryIs(*dir, "vornColl", "'blue'", "None");
  EXPECT_EQ(dir->vornColls(), 2u);
  Kiv::Ptr<Kiv::Entity> red = Kiv::attrOf(*dir, "vornColl").lookupEntity(*dir, "red");
  EXPECT_EQ(red.ptr(), dir->vornColl(L3::VrfName("red")).ptr());
  EXPECT_EQ(Kiv::attrLookup(*dir, "vornColl", "red"), "Entity('Vorn::Multicast::Fib::MfibVornColl', 'red')");
  EXPECT_THROW(Kiv::attrEntryIs(*dir, "vornColl", std::string(200, 'x'), "None"), Kiv::Exception);
  Kiv::attrEntryDel(*dir, "vornColl", "red");
  EXPECT_FALSE(Kiv::attrHas(*dir, "vornColl", "red"));
  EXPECT_EQ(Kiv::attrEntries(*dir, "vornColl").size(), 1u);
}

TEST_F(MfibVornCollTest, ModalMachineIsDrivenByNameWithARouteKeyReadFromText) {
  auto out = ModalRouteOrderedCollection::create();
  a->routePublish(route(key(1), 0));
  auto sm = modalOrderRouteSmFactory(a, out);
  Kiv::attrInvoke(*sm, "handleInitialized", "");
  EXPECT_EQ(out->routes(), 1u);
  out->routeIs(key(1), false);
  Kiv::attrInvoke(*sm, "handleRouteChanged", key(1).valueToStrep());
  EXPECT_EQ(out->route(key(1)), std::optional<bool>(true));
  EXPECT_THROW(Kiv::attrInvoke(*sm, "handleRouteChanged", "'239.1.0.1'"), Kiv::ParseException);
  Kiv::attrInvoke(*sm, "initializedIs", "False");
  EXPECT_FALSE(sm->initialized());
}

}  // namespace
