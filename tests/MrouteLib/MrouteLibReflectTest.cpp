// The route model by name: every entity's reflective attributes in the
// order of its model, and the text-form edits an operator makes through
// them, checked against the typed view.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Kiv/Reflect.h"
#include "MrouteLib/MrouteLib.h"
#include "MrouteLibTestUtil.h"

namespace {

using namespace MrouteLib;
using MrouteLibTest::key;
using MrouteLibTest::pv;
using V = std::vector<std::string>;

// The attributes (operations left out) in reflective order.
V attrNames(Kiv::Entity const& e) {
  V out;
  for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs())
    if (a.kind != Kiv::AttrKind::operation) out.push_back(a.name);
  return out;
}
V operationNames(Kiv::Entity const& e) {
  V out;
  for (Kiv::Attr const& a : Kiv::typeInfo(e).attrs())
    if (a.kind == Kiv::AttrKind::operation) out.push_back(a.name);
  return out;
}

class MrouteLibReflect : public ::testing::Test {
 protected:
  Kiv::Ptr<MrouteTableColl> coll = mrouteTableCollFactory();
  Kiv::Ptr<MrouteTable> table = coll->vrfMrouteTableIs(L3::VrfName("default"));
  Kiv::Ptr<Mroute> route = table->mrouteIs(key("10.0.0.1/32", "239.1.1.1/32"));
};

TEST_F(MrouteLibReflect, EveryEntityListsItsAttributesInModelOrder) {
  PortVlanSet set;
  set.portVlanIs(pv("Ethernet1", 10), true);
  Kiv::Ptr<OifSet> oifSet = coll->oifSetFor(set);
  struct Case {
    Kiv::Ptr<Kiv::Entity> entity;
    char const* typeName;
    V attrs;
  };
  std::vector<Case> const cases = {
      {route,
       "MrouteLib::Mroute",
       {"key",
        "mrouteTable",
        "acceptingVlanId",
        "acceptingIntfId",
        "notifyingVlanId",
        "staticFastdropVlanId",
        "frrVlanId",
        "prevFrr",
        "oifSet",
        "review",
        "version",
        "mcastGroupRequestId",
        "vlanFilter",
        "vlanPortFilter",
        "vlanGroupFilter",
        "lagFilter",
        "dirty",
        "noRpf",
        "markedForDeletion",
        "rpfFailureCount",
        "fastdrop",
        "fastdropCount",
        "fastdropDirty",
        "rpaId",
        "vornRoute",
        "lastSeenVornRoute",
        "oifIndexIntfIdCache",
        "optimizeStatus",
        "notifyOifSet",
        "staticFastdropOifSet",
        "frrOifSet"}},
      {table,
       "MrouteLib::MrouteTable",
       {"vrfName", "af", "mroute", "dirtyInfo", "boundaryMroute", "boundaryDirtyInfo", "vlanFilter",
        "vlanFilterCounter", "reviews", "recomputations", "noChangeRecomputations", "fastdropCount",
        "boundaryFastdropCount", "mroutesInitialized", "mrouteBatchVersion", "initialized"}},
      {coll, "MrouteLib::MrouteTableColl", {"af", "vrfMrouteTable", "l2FloodsetTable", "oifSet"}},
      {oifSet, "MrouteLib::OifSet", {"mrouteTable", "portVlanSet", "initialized"}},
      {table->dirtyInfoIs(),
       "MrouteLib::DirtyInfo",
       {"dirtyVlan", "dirtyVlanPort", "dirtyVlanGroup", "dirtyGroupSet", "dirtyLag", "dirtyRoute", "dirtyNatSrc"}},
      {dirtyChangeSetFactory(),
       "MrouteLib::DirtyChangeSet",
       {"vlanId", "port", "ethGroup", "lag", "dirtyVlanCount", "dirtyVlanPortCount", "dirtyVlanGroupCount",
        "dirtyLagCount", "allVlansDirtyCount"}},
      {reviewInfoFactory(), "MrouteLib::ReviewInfo", {"review", "review6"}},
      {table->boundaryMrouteIs(key("10.0.0.2/32", "239.1.1.2/32")),
       "MrouteLib::BoundaryMroute",
       {"key", "mrouteTable", "fastdrop", "fastdropCount", "fastdropDirty", "vlanFilter", "vlanGroupFilter",
        "vlanPortFilter", "lagFilter", "dirty"}},
      {staticNatInfoFactory(), "MrouteLib::StaticNatInfo", {"ipInfo"}},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(c.entity->typeName(), c.typeName);
    EXPECT_EQ(Kiv::typeInfo(*c.entity).typeName(), c.typeName);
    EXPECT_EQ(attrNames(*c.entity), c.attrs) << c.typeName;
  }
  EXPECT_EQ(operationNames(*route), (V{"handleFastdrop", "doClearFastdrop"}));
  EXPECT_EQ(operationNames(*table), (V{"doUpdateVrfVlanFilter"}));
  EXPECT_EQ(operationNames(*oifSet), (V{"toCpu", "doCmpPortVlanSet"}));
  // Kinds: a back pointer leads to its entity, counters are counters.
  EXPECT_EQ(Kiv::attrOf(*route, "mrouteTable").kind, Kiv::AttrKind::pointer);
  EXPECT_EQ(Kiv::attrOf(*route, "fastdrop").kind, Kiv::AttrKind::collection);
  EXPECT_EQ(Kiv::attrOf(*table, "reviews").kind, Kiv::AttrKind::counter);
  EXPECT_EQ(Kiv::attrOf(*table, "vlanFilter").kind, Kiv::AttrKind::scalar);
  EXPECT_EQ(Kiv::attrOf(*route, "mrouteTable").entity(*route).ptr(), table.ptr());
  EXPECT_EQ(Kiv::attrOf(*oifSet, "mrouteTable").entity(*oifSet).ptr(), coll.ptr());
}

TEST_F(MrouteLibReflect, ScalarsRoundTripThroughTheTextFormAndNotifyOnlyRealChanges) {
  struct Counter : Mroute::NotifieeConst {
    using Mroute::NotifieeConst::NotifieeConst;
    void onAcceptingVlanId() override { ++n; }
    int n = 0;
  } watch(route);
  Kiv::attrSet(*route, "acceptingVlanId", "42");
  EXPECT_EQ(route->acceptingVlanId(), VlanIdOrNone(Bridging::VlanId(42)));
  EXPECT_EQ(Kiv::attrGet(*route, "acceptingVlanId"), "42");
  Kiv::attrSet(*route, "acceptingVlanId", Kiv::attrGet(*route, "acceptingVlanId"));
  EXPECT_EQ(watch.n, 1);

  Kiv::attrSet(*route, "acceptingIntfId", Kiv::valueToStrep(Wirly::IntfId("Ethernet7")));
  EXPECT_EQ(route->acceptingIntfId(), Wirly::IntfId("Ethernet7"));
  Kiv::attrSet(*route, "vlanGroupFilter", "18446744073709551615");
  EXPECT_EQ(route->vlanGroupFilter(), ~U64(0));
  Kiv::attrSet(*route, "rpaId", "7");
  EXPECT_EQ(route->rpaId(), Mroute::RpaIndex(7));
  Kiv::attrSet(*table, "af", "'ipv6'");
  EXPECT_EQ(table->af(), Wirly::ipv6);
  EXPECT_EQ(Kiv::attrGet(*route, "key"), Kiv::valueToStrep(route->key()));
  EXPECT_EQ(Kiv::attrGet(*route, "mrouteTable"), "Entity('MrouteLib::MrouteTable', 'default')");
}

TEST_F(MrouteLibReflect, RefusesReadOnlyMalformedAndTextlessValuesWithoutTouchingTheRoute) {
  EXPECT_THROW(Kiv::attrSet(*route, "key", Kiv::attrGet(*route, "key")), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*route, "mrouteTable", "None"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*table, "vrfName", "'red'"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrSet(*route, "review", "-1"), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrSet(*route, "vlanFilter", "4294967296"), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrSet(*route, "dirty", "yes"), Kiv::ParseException);
  // Values without a constructor from text are refused, not asserted.
  EXPECT_THROW(Kiv::attrSet(*route, "vornRoute", Kiv::attrGet(*route, "vornRoute")), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrLookup(*coll, "oifSet", "Value('MrouteLib::PortVlanSet', ** {})"), Kiv::ParseException);
  auto nat = staticNatInfoFactory();
  std::string const addr = Kiv::valueToStrep(Wirly::IpGenAddr("10.0.0.1"));
  EXPECT_TRUE(Kiv::attrHas(*nat, "ipInfo", addr) == false);
  EXPECT_THROW(Kiv::attrEntryIs(*nat, "ipInfo", addr, StaticNatIpInfo().valueToStrep()), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrEntryIs(*coll, "oifSet", "x", "None"), Kiv::RangeException);
  // An entity is only ever written as None, which removes.
  EXPECT_THROW(Kiv::attrSet(*route, "oifSet", "Entity('MrouteLib::OifSet', '')"), Kiv::ParseException);
  EXPECT_EQ(route->review(), 0u);
  EXPECT_FALSE(route->dirty());
}

TEST_F(MrouteLibReflect, CollectionsWalkedByNameEqualTheTypedWalk) {
  for (unsigned v : {5u, 9u, 300u}) route->rpfFailureCountIs(Bridging::VlanId(v), static_cast<U16>(v * 2));
  auto entries = Kiv::attrEntries(*route, "rpfFailureCount");
  std::sort(entries.begin(), entries.end());
  std::vector<std::pair<std::string, std::string>> typed;
  for (auto const& [v, n] : route->rpfFailureCountMap()) typed.emplace_back(Kiv::valueToStrep(v), Kiv::valueToStrep(n));
  std::sort(typed.begin(), typed.end());
  EXPECT_EQ(entries, typed);
  EXPECT_EQ(Kiv::attrCount(*route, "rpfFailureCount"), 3u);
  EXPECT_EQ(Kiv::attrLookup(*route, "rpfFailureCount", "9"), "18");
  EXPECT_EQ(Kiv::attrLookup(*route, "rpfFailureCount", "10"), "0");
  EXPECT_FALSE(Kiv::attrHas(*route, "rpfFailureCount", "10"));

  Kiv::attrEntryIs(*route, "rpfFailureCount", "10", "1");
  EXPECT_EQ(route->rpfFailureCount(Bridging::VlanId(10)), 1u);
  Kiv::attrEntryDel(*route, "rpfFailureCount", "5");
  EXPECT_EQ(route->rpfFailureCountMap().size(), 3u);

  // Routes of a table, made by key alone, and the registry of OIF sets.
  Kiv::attrEntryIs(*table, "mroute", Kiv::valueToStrep(key("10.0.0.9/32", "239.1.1.9/32")), "None");
  EXPECT_EQ(table->mroutes(), 2u);
  auto routes = Kiv::attrEntries(*table, "mroute");
  ASSERT_EQ(routes.size(), 2u);
  for (auto const& [k, v] : routes) {
    EXPECT_EQ(v, "Entity('MrouteLib::Mroute', '')");
    EXPECT_TRUE(Kiv::attrHas(*table, "mroute", k));
  }
  PortVlanSet set;
  set.portVlanIs(pv("Ethernet2", 20), true);
  Kiv::Ptr<OifSet> held = coll->oifSetFor(set);
  auto sets = Kiv::attrEntries(*coll, "oifSet");
  ASSERT_EQ(sets.size(), 1u);
  EXPECT_EQ(sets[0].first, held->portVlanSet().valueToStrep());
  EXPECT_EQ(sets[0].second, Kiv::valueToStrep(held.ptr()));

  table->vlanFilterCounterIs(3, 2);
  EXPECT_EQ(Kiv::attrEntries(*table, "vlanFilterCounter").size(), 4u);
  EXPECT_EQ(Kiv::attrLookup(*table, "vlanFilterCounter", "3"), "2");
  EXPECT_EQ(Kiv::attrLookup(*table, "vlanFilterCounter", "31"), "0");
}

TEST_F(MrouteLibReflect, DelAllAndCounterStepsByNameKeepTheTablesTotals) {
  PortVlanSet set;
  set.portVlanIs(pv("Ethernet1", 10), true);
  Kiv::Ptr<OifSet> s = coll->oifSetFor(set);
  for (unsigned v : {1u, 2u, 3u}) route->fastdropIs(Bridging::VlanId(v), s);
  ASSERT_EQ(table->fastdropCount(), 3u);
  struct Counter : Mroute::NotifieeConst {
    using Mroute::NotifieeConst::NotifieeConst;
    void onFastdrop(VlanId) override { ++n; }
    int n = 0;
  } watch(route);
  EXPECT_EQ(Kiv::attrInvoke(*route, "fastdropDelAll", ""), "");
  EXPECT_EQ(watch.n, 3);
  EXPECT_EQ(route->fastdropMap().size(), 0u);
  EXPECT_EQ(table->fastdropCount(), 0u);
  EXPECT_TRUE(route->fastdropDirty());

  // Counters wrap at their width, and a step of 0 notifies nobody.
  EXPECT_EQ(Kiv::attrInvoke(*table, "boundaryFastdropCountDec", "1"), "65535");
  EXPECT_EQ(table->boundaryFastdropCount(), 65535u);
  EXPECT_EQ(Kiv::attrInvoke(*table, "boundaryFastdropCountInc", ""), "0");
  EXPECT_EQ(Kiv::attrInc(*table, "reviews", "4294967295"), "4294967295");
  EXPECT_EQ(Kiv::attrInc(*table, "reviews", "2"), "1");
  auto changes = dirtyChangeSetFactory();
  struct CountWatch : DirtyChangeSet::NotifieeConst {
    using DirtyChangeSet::NotifieeConst::NotifieeConst;
    void onDirtyLagCount() override { ++n; }
    int n = 0;
  } lagWatch(changes);
  Kiv::attrInvoke(*changes, "dirtyLagCountInc", "0");
  Kiv::attrInvoke(*changes, "dirtyLagCountInc", "3");
  EXPECT_EQ(changes->dirtyLagCount(), 3u);
  EXPECT_EQ(lagWatch.n, 1);

  auto review = reviewInfoFactory();
  review->reviewIs(L3::VrfName("red"), 1);
  review->reviewIs(L3::VrfName("blue"), 2);
  review->review6Is(L3::VrfName("red"), 3);
  Kiv::attrInvoke(*review, "reviewDelAll", "");
  EXPECT_TRUE(review->reviewMap().empty());
  EXPECT_EQ(review->review6(L3::VrfName("red")), 3u);

  // Derived names exist only for writable entries of their kind.
  EXPECT_THROW(Kiv::attrInvoke(*coll, "oifSetDelAll", ""), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*route, "reviewInc", "1"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*table, "reviewsInc", "1, 2"), Kiv::RangeException);
  EXPECT_THROW(Kiv::attrInvoke(*table, "reviewsInc", "x"), Kiv::ParseException);
  EXPECT_THROW(Kiv::attrInvoke(*review, "reviewDelAll", "1"), Kiv::RangeException);
}

TEST_F(MrouteLibReflect, OperationsAndPointerRemovalsByName) {
  EXPECT_EQ(Kiv::attrInvoke(*table, "doUpdateVrfVlanFilter", "8, 8"), "");
  EXPECT_EQ(table->vlanFilterCounter(3), 1u);
  EXPECT_EQ(Kiv::attrGet(*table, "vlanFilter"), "8");
  EXPECT_THROW(Kiv::attrInvoke(*table, "doUpdateVrfVlanFilter", "8"), Kiv::RangeException);

  table->dirtyInfoIs()->dirtyVlanIs(1);
  EXPECT_EQ(Kiv::attrInvoke(*table->dirtyInfo(), "isDirty", ""), "True");
  Kiv::attrInvoke(*table->dirtyInfo(), "clear", "");
  EXPECT_EQ(Kiv::attrInvoke(*table->dirtyInfo(), "isDirty", ""), "False");
  Kiv::attrSet(*table, "dirtyInfo", "None");
  EXPECT_FALSE(table->dirtyInfo());

  coll->l2FloodsetTableIs(L3::VrfName("l2"));
  Kiv::attrSet(*coll, "l2FloodsetTable", "None");
  EXPECT_FALSE(coll->l2FloodsetTable());

  PortVlanSet set;
  set.portVlanIs(pv("Ethernet1", 10), true);
  Kiv::Ptr<OifSet> s = coll->oifSetFor(set);
  EXPECT_EQ(Kiv::attrInvoke(*s, "toCpu", ""), "False");
  // A PortVlanSet argument has no text form: refused, never asserted.
  EXPECT_THROW(Kiv::attrInvoke(*s, "doCmpPortVlanSet", set.valueToStrep()), Kiv::ParseException);

  DirtyInfo& dirty = *table->dirtyInfoIs();
  std::string const group = Kiv::valueToStrep(Wirly::IpGenAddr("239.1.1.1"));
  Kiv::attrEntryIs(dirty, "dirtyGroupSet", group, "False");
  EXPECT_EQ(dirty.dirtyGroupSet().size(), 1u);
  EXPECT_EQ(Kiv::attrLookup(dirty, "dirtyGroupSet", group), "False");
  EXPECT_TRUE(dirty.isDirty());
  EXPECT_FALSE(dirty.mrouteDirty(*route));
}

}  // namespace
