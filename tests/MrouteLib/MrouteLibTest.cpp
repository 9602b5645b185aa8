#include "MrouteLib/MrouteLib.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Kiv/Trace.h"
#include "Kiv/ValueText.h"
#include "MrouteLibTestUtil.h"

using namespace MrouteLib;
using MrouteLibTest::assertion;
using MrouteLibTest::key;
using MrouteLibTest::pv;

namespace {

PortVlanSet setOf(std::vector<PortVlan> const& pvs) {
  PortVlanSet s;
  for (auto const& p : pvs) s.portVlanIs(p, true);
  s.saveHash();
  return s;
}

class RouteRecorder : public Mroute::NotifieeConst {
 public:
  using Mroute::NotifieeConst::NotifieeConst;
  void onFastdrop(VlanId v) override { fastdrop.push_back(v.value()); }
  void onFastdropkivImmediate(VlanId) override { ++immediate; }
  void onRpfFailureCount(VlanId) override { ++rpf; }
  void onFastdropDirty() override { ++dirtyFlag; }
  void onOifSet() override { ++oifSet; }
  void onVornRoute() override { ++vornRoute; }
  std::vector<unsigned> fastdrop;
  int immediate = 0, rpf = 0, dirtyFlag = 0, oifSet = 0, vornRoute = 0;
};

class TableRecorder : public MrouteTable::NotifieeConst {
 public:
  using MrouteTable::NotifieeConst::NotifieeConst;
  void onMroute(IpGenRouteKey const&) override { ++mroute; }
  void onFastdropCount() override { ++fastdropCount; }
  void onReviews() override { ++reviews; }
  void onVlanFilterCounter(U8 bit) override { counters.push_back(bit); }
  int mroute = 0, fastdropCount = 0, reviews = 0;
  std::vector<unsigned> counters;
};

class RouteModel : public ::testing::Test {
 protected:
  Kiv::Ptr<MrouteTableColl> coll = mrouteTableCollFactory();
  Kiv::Ptr<MrouteTable> table = coll->vrfMrouteTableIs("red");
  Kiv::Ptr<OifSet> setA = coll->oifSetFor(setOf({pv("Ethernet1", 10)}));
  Kiv::Ptr<OifSet> setB = coll->oifSetFor(setOf({pv("Ethernet2", 10)}));
};

}  // namespace

// ---- Fast-drop accounting ----

TEST_F(RouteModel, TableFastdropCountIsTheSumOfItsRoutesThroughEveryEdit) {
  auto r1 = table->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  auto r2 = table->mrouteIs(key("10.0.0.2", "239.1.1.1"));
  auto sum = [&] {
    unsigned n = 0;
    for (auto const& [k, r] : table->mrouteMap()) n += r->fastdropCount();
    return n;
  };
  r1->fastdropIs(VlanId(1), setA);
  r1->fastdropIs(VlanId(2), setA);
  r1->fastdropIs(VlanId(3), setB);
  r2->fastdropIs(VlanId(1), setB);
  EXPECT_EQ(table->fastdropCount(), 4u);
  r1->fastdropIs(VlanId(3), setA);  // replace: no change of count
  r1->fastdropIs(VlanId(2), nullptr);
  EXPECT_EQ(table->fastdropCount(), 3u);
  EXPECT_EQ(table->fastdropCount(), sum());

  r2->doClearFastdrop();
  EXPECT_EQ(table->fastdropCount(), 2u);
  EXPECT_TRUE(r2->fastdropDirty());

  // Deleted and nobody else holds it: its destruction uncounts it.
  r1 = nullptr;
  table->mrouteDel(key("10.0.0.1", "239.1.1.1"));
  EXPECT_EQ(table->fastdropCount(), 0u);

  // Deleted while still held: uncounted at once and cut loose from the table.
  auto r3 = table->mrouteIs(key("10.0.0.3", "239.1.1.1"));
  r3->fastdropIs(VlanId(5), setA);
  table->mrouteDel(r3->key());
  EXPECT_EQ(table->fastdropCount(), 0u);
  EXPECT_EQ(r3->mrouteTable(), nullptr);
  r3->fastdropIs(VlanId(6), setA);
  EXPECT_EQ(table->fastdropCount(), 0u);

  // A table dropped before its routes leaves them safe to use.
  auto r4 = table->mrouteIs(key("10.0.0.4", "239.1.1.1"));
  r4->fastdropIs(VlanId(5), setA);
  coll->vrfMrouteTableDel("red");
  table = nullptr;
  EXPECT_EQ(r4->mrouteTable(), nullptr);
  r4->fastdropDelAll();
  EXPECT_EQ(r4->fastdropCount(), 1u) << "no table, no recount";
}

TEST_F(RouteModel, FastdropEditNotifiesOnlyRealChanges) {
  auto r = table->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  RouteRecorder rec(r);
  r->fastdropIs(VlanId(7), nullptr);
  EXPECT_FALSE(r->fastdropDirty());
  EXPECT_TRUE(rec.fastdrop.empty());

  r->fastdropIs(VlanId(7), setA);
  r->fastdropDirtyIs(false);
  r->fastdropIs(VlanId(7), setA);
  EXPECT_FALSE(r->fastdropDirty()) << "the same set again must not recount";
  EXPECT_EQ(rec.fastdrop, std::vector<unsigned>{7});
  EXPECT_EQ(rec.immediate, 1);

  r->fastdropIs(VlanId(8), setB);
  r->rpfFailureCountIs(VlanId(8), 3);
  r->rpfFailureCountIs(VlanId(8), 3);
  EXPECT_EQ(rec.rpf, 1);
  rec.fastdrop.clear();
  r->doClearFastdrop();
  EXPECT_TRUE(rec.fastdrop.empty()) << "clearing is silent per entry";
  EXPECT_EQ(rec.rpf, 1);
  EXPECT_EQ(r->rpfFailureCount(VlanId(8)), 0u);
  EXPECT_TRUE(r->fastdropMap().empty());
  EXPECT_EQ(table->fastdropCount(), 0u);
}

TEST_F(RouteModel, ObserversSeeCountsAlreadySettledAndMayDeleteWhatTheyHear) {
  // A fast-drop observer reads the table's total: it is already recounted.
  auto r = table->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  struct CountReader : Mroute::NotifieeConst {
    CountReader(Kiv::Ptr<Mroute> const& r, MrouteTable* t) : Mroute::NotifieeConst(r), table(t) {}
    void onFastdrop(VlanId) override { seen.push_back(table->fastdropCount()); }
    MrouteTable* table;
    std::vector<unsigned> seen;
  } reader(r, table.ptr());
  r->fastdropIs(VlanId(1), setA);
  r->fastdropIs(VlanId(2), setA);
  r->fastdropDel(VlanId(1));
  EXPECT_EQ(reader.seen, (std::vector<unsigned>{1, 2, 1}));

  // An observer that deletes each route as it is made leaves the table
  // empty and the caller a route cut loose from it.
  struct Deleter : MrouteTable::NotifieeConst {
    explicit Deleter(Kiv::Ptr<MrouteTable> const& t) : MrouteTable::NotifieeConst(t), table(t.ptr()) {}
    void onMroute(IpGenRouteKey const& k) override {
      if (!deleting) return;
      deleting = false;
      table->mrouteDel(k);
    }
    MrouteTable* table;
    bool deleting = true;
  } deleter(table);
  auto gone = table->mrouteIs(key("10.0.0.2", "239.1.1.1"));
  ASSERT_TRUE(gone);
  EXPECT_EQ(gone->mrouteTable(), nullptr);
  EXPECT_EQ(table->mroute(gone->key()), nullptr);
  EXPECT_EQ(table->mroutes(), 1u);
  std::size_t walked = 0;
  for (Mroute& m : table->mrouteList()) walked += &m == r.ptr();
  EXPECT_EQ(walked, 1u);
}

TEST_F(RouteModel, DestroyedRouteReturnsItsCountAndTracesItsHandlers) {
  auto r = table->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  r->fastdropIs(VlanId(1), setA);
  r->fastdropIs(VlanId(2), setA);
  r->fastdropIs(VlanId(3), setB);
  EXPECT_EQ(table->fastdropCount(), 3u);
  Kiv::TraceCapture cap("MrouteLib/9");
  r->handleDel();
  EXPECT_EQ(table->fastdropCount(), 0u);
  EXPECT_EQ(r->fastdropCount(), 0u);
  EXPECT_TRUE(r->fastdropDirty());
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{"void MrouteLib::Mroute::handleDel()",
                                                   "void MrouteLib::Mroute::doClearFastdrop()",
                                                   "void MrouteLib::Mroute::handleFastdrop()"}));
  cap.clear();
  r->fastdropIs(VlanId(4), setA);
  ASSERT_EQ(cap.lines().size(), 2u);
  EXPECT_EQ(cap.lines()[0].text, "void MrouteLib::Mroute::handleFastdrop(Bridging::VlanId)");
  EXPECT_EQ(cap.lines()[0].level, 9);
  EXPECT_EQ(cap.lines()[0].handle, "MrouteLib");
}

TEST_F(RouteModel, BoundaryRoutesCountApartAndNotifyWhenCleared) {
  auto b1 = table->boundaryMrouteIs(key("10.0.0.1", "239.1.1.1"));
  auto b2 = table->boundaryMrouteIs(key("10.0.0.2", "239.1.1.1"));
  auto r = table->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  r->fastdropIs(VlanId(9), setA);
  b1->fastdropIs(VlanId(1), setA);
  b1->fastdropIs(VlanId(2), setB);
  b2->fastdropIs(VlanId(1), setB);
  EXPECT_EQ(table->boundaryFastdropCount(), 3u);
  EXPECT_EQ(table->fastdropCount(), 1u);

  struct Rec : BoundaryMroute::NotifieeConst {
    using BoundaryMroute::NotifieeConst::NotifieeConst;
    void onFastdrop(VlanId v) override { vlans.push_back(v.value()); }
    std::vector<unsigned> vlans;
  } rec(b1);
  b1->doClearFastdrop();
  EXPECT_EQ(rec.vlans.size(), 2u);
  EXPECT_EQ(table->boundaryFastdropCount(), 1u);

  table->boundaryMrouteDel(b2->key());
  EXPECT_EQ(table->boundaryFastdropCount(), 0u);
  EXPECT_EQ(table->fastdropCount(), 1u);

  auto loose = boundaryMrouteFactory(key("10.0.0.9", "239.1.1.1"), nullptr);
  Kiv::TraceCapture cap("MrouteLib/9");
  loose->fastdropIs(VlanId(3), setA);
  EXPECT_EQ(loose->fastdropCount(), 0u);
  EXPECT_FALSE(loose->fastdropDirty());
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{"void MrouteLib::BoundaryMroute::handleFastdrop()", "mrt is NULL"}));
  cap.clear();
  b1->fastdropIs(VlanId(4), setA);
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{"void MrouteLib::BoundaryMroute::handleFastdrop()",
                                                   "fastdropCount: 0, total fastdrops: 1"}));
}

// ---- Table ----

TEST(MrouteTable, RoutesAreMadeOnceAndCountersWrap) {
  auto t = mrouteTableFactory("default");
  TableRecorder rec(t);
  EXPECT_EQ(t->af(), Wirly::ipv4);
  auto r = t->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  EXPECT_EQ(t->mrouteIs(key("10.0.0.1", "239.1.1.1")), r);
  EXPECT_EQ(r->mrouteTable(), t.ptr());
  EXPECT_EQ(rec.mroute, 1);
  t->mrouteDelAll();
  EXPECT_EQ(rec.mroute, 2);
  EXPECT_EQ(t->mroutes(), 0u);

  t->reviewsInc(0);
  EXPECT_EQ(rec.reviews, 0);
  t->reviewsIs(0xFFFFFFFF);
  EXPECT_EQ(t->reviewsInc(2), 1u);
  t->fastdropCountDec(1);
  EXPECT_EQ(t->fastdropCount(), 0xFFFF);
  EXPECT_EQ(t->fastdropCountInc(1), 0u);
  EXPECT_EQ(rec.fastdropCount, 2);
}

TEST(MrouteTable, VlanFilterBitStaysWhileAnyRouteCountsIt) {
  auto t = mrouteTableFactory("default");
  TableRecorder rec(t);
  Kiv::TraceCapture cap("MrouteLib/8-9");
  t->doUpdateVrfVlanFilter(0x8, 0);
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{
                             "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32) ( 8, 0 )", "   No change"}));
  EXPECT_EQ(cap.lines()[1].level, 8);
  EXPECT_TRUE(rec.counters.empty());
  cap.clear();

  t->doUpdateVrfVlanFilter(0x8, 0x8);
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{
                             "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32) ( 8, 8 )",
                             "  Incrementing count for bit 3 now: 1", "  oldVlanFilter: 0", "  newVlanFilter: 8"}));
  t->doUpdateVrfVlanFilter(0x18, 0x18);
  EXPECT_EQ(t->vlanFilterCounter(3), 2u);
  EXPECT_EQ(t->vlanFilterCounter(4), 1u);
  EXPECT_EQ(t->vlanFilterCounter(31), 0u);
  cap.clear();
  t->doUpdateVrfVlanFilter(0x0, 0x8);
  EXPECT_EQ(cap.texts()[1], "  Decrementing count for bit 3 now: 1");
  EXPECT_EQ(t->vlanFilter(), 0x18u);
  t->doUpdateVrfVlanFilter(0x0, 0x18);
  EXPECT_EQ(t->vlanFilter(), 0u);
  EXPECT_EQ(rec.counters, (std::vector<unsigned>{3, 3, 4, 3, 3, 4}));

  // An unpaired clear wraps the counter and the bit stays set.
  t->doUpdateVrfVlanFilter(0x0, 0x80000000);
  EXPECT_EQ(t->vlanFilterCounter(31), 4294967295u);
  EXPECT_EQ(t->vlanFilter(), 0x80000000u);
}

TEST(MrouteTable, RouteListWalksEveryRouteOnceThroughDeletionsAndCompaction) {
  auto t = mrouteTableFactory("default");
  auto keyOf = [](unsigned i) {
    return IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0x0a000000u + i)),
                         Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0xe8000001u)));
  };
  auto walkMatchesMap = [&] {
    std::map<IpGenRouteKey, int> seen;
    for (Mroute& r : t->mrouteList()) ++seen[r.key()];
    if (seen.size() != t->mroutes()) return false;
    for (auto const& [k, n] : seen) {
      if (n != 1 || t->mroute(k).ptr() == nullptr) return false;
    }
    return true;
  };
  for (unsigned i = 0; i < 300; ++i) t->mrouteIs(keyOf(i));
  Kiv::Ptr<Mroute> held = t->mroute(keyOf(7));
  // Holes first at the front, then from the back, then enough to compact.
  for (unsigned i = 0; i < 40; ++i) t->mrouteDel(keyOf(i));
  EXPECT_TRUE(walkMatchesMap());
  for (unsigned i = 299; i >= 260; --i) t->mrouteDel(keyOf(i));
  EXPECT_TRUE(walkMatchesMap());
  for (unsigned i = 40; i < 200; i += 2) t->mrouteDel(keyOf(i));
  EXPECT_TRUE(walkMatchesMap());
  for (unsigned i = 1000; i < 1100; ++i) t->mrouteIs(keyOf(i));
  for (unsigned i = 41; i < 200; i += 2) t->mrouteDel(keyOf(i));
  EXPECT_TRUE(walkMatchesMap());
  EXPECT_EQ(t->mroutes(), 160u);
  EXPECT_EQ(held->mrouteTable(), nullptr);
  t->mrouteDelAll();
  EXPECT_EQ(t->mrouteList().begin(), t->mrouteList().end());
}

TEST(MrouteTableDeathTest, InitialisationRunsOnce) {
  auto t = mrouteTableFactory("default");
  t->initializedIs(true);
  EXPECT_DEATH(t->handleInitialized(), assertion("!initialized()"));
}

// ---- Collection and OIF sets ----

// Both text forms name the same set: the bare pointer it prints, and the
// value form with its one attribute `ptr`; anything else is refused.
TEST(OifSetPtrText, ReadsThePointerAndItsOwnValueForm) {
  auto coll = mrouteTableCollFactory();
  Kiv::Ptr<OifSet> held = coll->oifSetFor(setOf({pv("Ethernet1", 11)}));
  OifSetPtr const p = coll->oifSet(setOf({pv("Ethernet1", 11)}));
  ASSERT_EQ(p.ptr(), held.ptr());
  std::string const ptrText = p.valueToStrep();
  std::string const valueText = Kiv::ValueWriter("MrouteLib::OifSetPtr").fieldRaw("ptr", ptrText).str();
  EXPECT_EQ(valueText, "Value('MrouteLib::OifSetPtr', ** {'ptr': " + ptrText + "})");
  EXPECT_EQ(Kiv::valueFromStrep<OifSetPtr>(ptrText), p);
  EXPECT_EQ(Kiv::valueFromStrep<OifSetPtr>(valueText), p);
  EXPECT_EQ(Kiv::valueFromStrep<OifSetPtr>("Value('MrouteLib::OifSetPtr', ** {'ptr': None})"), OifSetPtr());
  EXPECT_EQ(Kiv::valueFromStrep<OifSetPtr>(OifSetPtr().valueToStrep()), OifSetPtr());

  EXPECT_THROW(Kiv::valueFromStrep<OifSetPtr>("Value('MrouteLib::OifSet', ** {'ptr': " + ptrText + "})"),
               Kiv::ParseException);
  EXPECT_THROW(Kiv::valueFromStrep<OifSetPtr>("Value('MrouteLib::OifSetPtr', ** {'value': " + ptrText + "})"),
               Kiv::ParseException);
  EXPECT_THROW(Kiv::valueFromStrep<OifSetPtr>("Value('MrouteLib::OifSetPtr', ** {'ptr': " + ptrText + ", 'x': 1})"),
               Kiv::ParseException);
  EXPECT_THROW(Kiv::valueFromStrep<OifSetPtr>("Value('MrouteLib::OifSetPtr', ** {'ptr': 12})"), Kiv::ParseException);
}

TEST(MrouteTableColl, EqualSetsAreSharedAndTheRegistryEmptiesWithTheLastRoute) {
  auto coll = mrouteTableCollFactory();
  auto t = coll->vrfMrouteTableIs("default");
  std::vector<Kiv::Ptr<Mroute>> routes;
  for (int i = 0; i < 6; ++i) {
    auto r = t->mrouteIs(key(("10.0.0." + std::to_string(i + 1)).c_str(), "239.1.1.1"));
    // Three contents, each computed afresh (hash not saved by the caller).
    PortVlanSet s;
    s.portVlanIs(pv("Ethernet1", 10 + i % 3), true);
    r->oifSetIs(coll->oifSetFor(s));
    routes.push_back(r);
  }
  EXPECT_EQ(coll->oifSets(), 3u);
  EXPECT_EQ(routes[0]->oifSet(), routes[3]->oifSet());
  EXPECT_NE(routes[0]->oifSet(), routes[1]->oifSet());
  OifSetPtr p = coll->oifSet(setOf({pv("Ethernet1", 11)}));
  EXPECT_EQ(p.ptr(), routes[1]->oifSet().ptr());
  EXPECT_EQ(Kiv::valueFromStrep<OifSetPtr>(p.valueToStrep()), p);
  EXPECT_EQ(p.valueToStrep(), Kiv::valueToStrep(static_cast<void const*>(p.ptr())));

  routes[0]->oifSetIs(nullptr);
  EXPECT_EQ(coll->oifSets(), 3u);
  routes[3]->oifSetIs(nullptr);
  EXPECT_EQ(coll->oifSets(), 2u);
  routes.clear();
  t->mrouteDelAll();
  EXPECT_EQ(coll->oifSets(), 0u);
}

TEST(MrouteTableColl, UnregisteredSetTakesNoOtherEntryWithIt) {
  auto coll = mrouteTableCollFactory();
  auto a = oifSetFactory(coll, setOf({pv("Ethernet1", 10)}));
  auto b = oifSetFactory(coll, setOf({pv("Ethernet2", 10)}));
  EXPECT_TRUE(a->initialized());
  coll->oifSetDel(a->portVlanSet());
  EXPECT_EQ(coll->oifSets(), 1u);
  a = nullptr;
  EXPECT_EQ(coll->oifSets(), 1u);
  EXPECT_EQ(coll->oifSet(b->portVlanSet()).ptr(), b.ptr());

  Kiv::TraceCapture cap("MrouteLib/9");
  auto c = coll->oifSetFor(setOf({pv("Ethernet3", 10)}));
  ASSERT_EQ(cap.texts().size(), 1u);
  EXPECT_EQ(cap.texts()[0], "void MrouteLib::OifSet::handleInitialized() " + c->portVlanSet().pretty());
  c = nullptr;
  EXPECT_EQ(cap.texts().at(1).rfind("void MrouteLib::OifSet::handleDel() 1 PVs -", 0), 0u);

  // Sets that outlive their collection let go without touching it.
  coll = nullptr;
  b = nullptr;
}

TEST(MrouteTableColl, FloodsetTableIsReplacedOnlyForAnotherName) {
  auto coll = mrouteTableCollFactory(Wirly::ipv6);
  EXPECT_EQ(coll->af(), Wirly::ipv6);
  auto a = coll->l2FloodsetTableIs("default");
  EXPECT_EQ(coll->l2FloodsetTableIs("default"), a);
  auto b = coll->l2FloodsetTableIs("blue");
  EXPECT_NE(b, a);
  EXPECT_EQ(coll->l2FloodsetTable(), b);
  EXPECT_EQ(coll->vrfMrouteTableIs("blue"), coll->vrfMrouteTableIs("blue"));
  EXPECT_NE(coll->vrfMrouteTableIs("blue"), b);
}

TEST(MrouteTableCollDeathTest, TwoLiveSetsOfEqualContentAreAnError) {
  auto coll = mrouteTableCollFactory();
  auto a = oifSetFactory(coll, setOf({pv("Ethernet1", 10)}));
  EXPECT_DEATH(oifSetFactory(coll, setOf({pv("Ethernet1", 10)})),
               assertion("!mrouteTable_->oifSetHas( portVlanSet() )"));
  EXPECT_DEATH(a->handleInitialized(), assertion("!initialized()"));
}

// ---- Dirty tracking ----

TEST(DirtyInfo, EachBucketKindFindsOnlyTheRoutesThatShareIt) {
  auto t = mrouteTableFactory("default");
  auto r = t->mrouteIs(key("10.0.0.1", "239.1.1.1"));
  r->vlanFilterIs(0x4);
  r->vlanPortFilterIs(0x10);
  r->vlanGroupFilterIs(0x100000000ull);
  r->lagFilterIs(0x2);
  auto b = t->boundaryMrouteIs(r->key());
  b->vlanFilterIs(0x4);
  b->vlanPortFilterIs(0x10);
  b->vlanGroupFilterIs(0x100000000ull);
  b->lagFilterIs(0x2);

  std::vector<std::pair<char const*, void (*)(DirtyInfo&, bool hit)>> const kinds = {
      {"vlan", [](DirtyInfo& d, bool hit) { d.dirtyVlanIs(hit ? 0x4 : 0x8); }},
      {"vlanPort", [](DirtyInfo& d, bool hit) { d.dirtyVlanPortIs(hit ? 0x10 : 0x1); }},
      {"vlanGroup", [](DirtyInfo& d, bool hit) { d.dirtyVlanGroupIs(hit ? 0x100000000ull : 0x1); }},
      {"lag", [](DirtyInfo& d, bool hit) { d.dirtyLagIs(hit ? 0x2 : 0x1); }},
  };
  for (auto const& [name, set] : kinds) {
    auto miss = dirtyInfoFactory(), hit = dirtyInfoFactory();
    set(*miss, false);
    set(*hit, true);
    EXPECT_TRUE(miss->isDirty()) << name;
    EXPECT_FALSE(miss->mrouteDirty(r)) << name;
    EXPECT_FALSE(miss->boundaryDirty(b)) << name;
    EXPECT_TRUE(hit->mrouteDirty(r)) << name;
    EXPECT_TRUE(hit->mrouteL2Dirty(r)) << name;
    EXPECT_TRUE(hit->boundaryDirty(b)) << name;
  }

  // Addresses: the group's entry must be true; the source's entry is the answer.
  auto d = dirtyInfoFactory();
  d->dirtyGroupSetIs(Wirly::IpGenAddr("239.1.1.1"), false);
  EXPECT_TRUE(d->isDirty());
  EXPECT_FALSE(d->mrouteDirty(r));
  d->dirtyGroupSetIs(Wirly::IpGenAddr("239.1.1.1"), true);
  EXPECT_TRUE(d->mrouteDirty(r));
  EXPECT_FALSE(d->boundaryDirty(b)) << "boundary routes ignore addresses";
  d->clear();
  EXPECT_FALSE(d->isDirty());
  d->dirtyNatSrcIs(Wirly::IpGenAddr("10.0.0.2"), true);
  EXPECT_FALSE(d->mrouteDirty(r));
  d->dirtyNatSrcIs(Wirly::IpGenAddr("10.0.0.1"), false);
  EXPECT_FALSE(d->mrouteDirty(r));
  d->dirtyNatSrcIs(Wirly::IpGenAddr("10.0.0.1"), true);
  EXPECT_TRUE(d->mrouteDirty(r));
  EXPECT_EQ(d->mrouteDirtyInfoStr(r), "4 10 100000000 2 0 0 0 1 0 0");

  // The route's own flag counts for routes, not for layer-2 changes;
  // dirtyRoute alone touches no route.
  auto e = dirtyInfoFactory();
  e->dirtyRouteIs(true);
  EXPECT_TRUE(e->isDirty());
  EXPECT_FALSE(e->mrouteDirty(r));
  r->dirtyIs(true);
  b->dirtyIs(true);
  EXPECT_TRUE(e->mrouteDirty(r));
  EXPECT_FALSE(e->mrouteL2Dirty(r));
  EXPECT_TRUE(e->boundaryDirty(b));
}

TEST(DirtyInfo, MergeOrsWordsAndMakesEveryAddressTrue) {
  auto pending = dirtyInfoFactory();
  auto other = dirtyInfoFactory();
  pending->dirtyVlanIs(0x1);
  other->dirtyVlanIs(0x2);
  other->dirtyVlanGroupIs(0x8000000000000000ull);
  other->dirtyNatSrcIs(Wirly::IpGenAddr("10.0.0.1"), false);
  other->dirtyGroupSetIs(Wirly::IpGenAddr("ff05::1"), false);
  struct Rec : DirtyInfo::NotifieeConst {
    using DirtyInfo::NotifieeConst::NotifieeConst;
    void onDirtyNatSrc(Wirly::IpGenAddr const&) override { ++nat; }
    int nat = 0;
  } rec(pending);
  pending->mergeWith(other);
  EXPECT_EQ(pending->dirtyVlan(), 0x3u);
  EXPECT_EQ(pending->dirtyVlanGroup(), 0x8000000000000000ull);
  EXPECT_FALSE(pending->dirtyRoute());
  EXPECT_TRUE(pending->dirtyNatSrc().at(Wirly::IpGenAddr("10.0.0.1")));
  EXPECT_TRUE(pending->dirtyGroupSet().at(Wirly::IpGenAddr("ff05::1")));
  EXPECT_EQ(rec.nat, 1);
  EXPECT_FALSE(other->dirtyNatSrc().at(Wirly::IpGenAddr("10.0.0.1")));
}

TEST(DirtyChangeSet, CountersWrapAndNotifyOnlyOnChange) {
  auto c = dirtyChangeSetFactory();
  struct Rec : DirtyChangeSet::NotifieeConst {
    using DirtyChangeSet::NotifieeConst::NotifieeConst;
    void onDirtyLagCount() override { ++n; }
    int n = 0;
  } rec(c);
  c->dirtyLagCountInc(0);
  c->dirtyLagCountIs(0xFFFFFFFF);
  EXPECT_EQ(c->dirtyLagCountInc(1), 0u);
  EXPECT_EQ(rec.n, 2);
  c->vlanIdIs(VlanId(5));
  EXPECT_EQ(c->vlanId(), VlanIdOrNone(VlanId(5)));
}

// ---- Review requests and static NAT ----

TEST(ReviewInfo, EntriesNotifyPerFamilyOnlyOnChange) {
  auto ri = reviewInfoFactory();
  struct Rec : ReviewInfo::NotifieeConst {
    using ReviewInfo::NotifieeConst::NotifieeConst;
    void onReview(L3::VrfName const& v) override { v4.push_back(v.str()); }
    void onReview6(L3::VrfName const& v) override { v6.push_back(v.str()); }
    std::vector<std::string> v4, v6;
  } rec(ri);
  ri->reviewIs("red", 1);
  ri->reviewIs("red", 1);
  ri->reviewIs("red", 2);
  ri->review6Is("red", 1);
  ri->reviewDel("blue");
  ri->reviewDelAll();
  EXPECT_EQ(rec.v4, (std::vector<std::string>{"red", "red", "red"}));
  EXPECT_EQ(rec.v6, (std::vector<std::string>{"red"}));
  EXPECT_EQ(ri->review("red"), 0u);
  EXPECT_EQ(ri->review6("red"), 1u);
}

TEST(StaticNatInfo, EqualValuesChangeNothing) {
  StaticNatIpInfo a, b;
  a.vlanIs(VlanId(10), true);
  a.vlanIs(VlanId(20), true);
  b.vlanIs(VlanId(20), true);
  b.vlanIs(VlanId(10), true);
  EXPECT_TRUE(a == b);
  b.vlanIs(VlanId(10), false);
  EXPECT_FALSE(a == b);

  auto n = staticNatInfoFactory();
  struct Rec : StaticNatInfo::NotifieeConst {
    using StaticNatInfo::NotifieeConst::NotifieeConst;
    void onIpInfo(Wirly::IpGenAddr const&) override { ++n; }
    int n = 0;
  } rec(n);
  Wirly::IpGenAddr const addr("10.1.1.1");
  n->ipInfoIs(addr, a);
  StaticNatIpInfo same;
  same.vlanIs(VlanId(20), true);
  same.vlanIs(VlanId(10), true);
  n->ipInfoIs(addr, same);
  EXPECT_EQ(rec.n, 1);
  n->ipInfoIs(addr, b);
  n->ipInfoDelAll();
  EXPECT_EQ(rec.n, 3);
  EXPECT_TRUE(n->ipInfo(addr) == StaticNatIpInfo());
}

TEST(StaticNatInfoDeathTest, IpInfoHasNoConstructorFromText) {
  EXPECT_DEATH(Kiv::valueFromStrep<StaticNatIpInfo>("Value('MrouteLib::StaticNatIpInfo', ** {'vlan': None})"),
               assertion("!\"No String constructor for StaticNatIpInfo - has collection\""));
}
