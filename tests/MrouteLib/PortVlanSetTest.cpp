#include "MrouteLib/PortVlanSet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <vector>

#include "Kiv/Exception.h"
#include "MrouteLibTestUtil.h"

using namespace MrouteLib;
using MrouteLibTest::pv;

namespace {

// The hash written out from its definition, over a byte list the test
// builds itself.
std::uint32_t oneAtATime(std::vector<std::uint8_t> const& bytes) {
  std::uint32_t h = 0;
  for (std::uint8_t b : bytes) {
    h += b;
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

void le(std::vector<std::uint8_t>& out, std::uint64_t v, int n) {
  for (int i = 0; i < n; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

}  // namespace

TEST(PortVlanSetHash, MatchesTheByteSequenceComputedByHand) {
  // Empty: only the accepting VLAN (2 bytes) and the current interface (8).
  PortVlanSet empty;
  EXPECT_EQ(empty.computeHash(), oneAtATime({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  Wirly::IntfId const e1("Ethernet1"), e2("Ethernet2"), e9("Ethernet9");
  PortVlanSet s;
  // Inserted out of order: the hash walks ascending elements.
  s.portVlanIs(PortVlan(e2, OutLif(0x12345)), false);
  s.portVlanIs(PortVlan(e1, Bridging::VlanId(10)), true);
  s.natVlanIs(Bridging::VlanId(300));
  s.natVlanIs(Bridging::VlanId(7));
  s.acceptingVlanIdIs(Bridging::VlanId(0x102));
  s.currentIifIs(e9);
  s.portVlanFrrIs(PortVlan(e9, Bridging::VlanId(4094)), true);

  std::vector<std::uint8_t> b;
  le(b, e1.value(), 8), le(b, 10, 4);
  le(b, e2.value(), 8), le(b, 0x12345, 4);
  b.insert(b.end(), {7, 0, 0x2c, 0x01});  // NAT VLANs 7 and 300, low byte first
  b.insert(b.end(), {0x02, 0x01});        // accepting VLAN 0x102
  le(b, e9.value(), 8);
  le(b, e9.value(), 8), b.insert(b.end(), {0xfe, 0x0f, 0, 0});
  std::uint32_t const expected = oneAtATime(b);
  EXPECT_EQ(s.computeHash(), expected);

  // Flags, CPU purposes, feature bits, type and fastdrop stay out.
  PortVlanSet t = s;
  t.portVlanIs(PortVlan(e1, Bridging::VlanId(10)), false);
  t.toCpuIs(true);
  t.featureFlagIs(0x40);
  t.typeIs(Routing::Multicast::Fib::anySource);
  t.fastdropIs(true);
  t.ignoreTypeIs(true);
  EXPECT_EQ(t.computeHash(), expected);
  EXPECT_FALSE(t == s);
}

TEST(PortVlanSetHash, SavedHashIsBelievedUntilSavedAgain) {
  PortVlanSet a;
  a.portVlanIs(pv("Ethernet1", 10), true);
  EXPECT_EQ(a.cachedHash(), 0u);
  std::uint32_t const h = a.hash();
  EXPECT_EQ(a.cachedHash(), 0u) << "hash() must not store";
  EXPECT_EQ(a.saveHash(), h);
  EXPECT_EQ(a.cachedHash(), h);

  a.portVlanIs(pv("Ethernet2", 10), true);  // edits leave the saved hash alone
  EXPECT_EQ(a.hash(), h);
  EXPECT_NE(a.computeHash(), h);

  PortVlanSet b;
  b.portVlanIs(pv("Ethernet1", 10), true);
  b.portVlanIs(pv("Ethernet2", 10), true);
  EXPECT_FALSE(a == b) << "a stale hash makes equal content unequal";
  a.saveHash();
  EXPECT_TRUE(a == b);
  b.saveHash();
  EXPECT_TRUE(a == b);
}

TEST(PortVlanSetEquality, EmptySetsDifferingOnlyOutsideTheHash) {
  PortVlanSet a, b;
  b.featureFlagIs(1);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);

  // A VLAN and a logical interface of the same number hash alike.
  PortVlanSet v, l;
  v.portVlanIs(PortVlan(Wirly::IntfId("Ethernet1"), Bridging::VlanId(5)), true);
  l.portVlanIs(PortVlan(Wirly::IntfId("Ethernet1"), OutLif(5)), true);
  EXPECT_EQ(v.hash(), l.hash());
  EXPECT_FALSE(v == l);
  EXPECT_TRUE(v < l);
}

TEST(PortVlanSetEquality, IgnoreTypeCountsForEqualityButNotOrdering) {
  PortVlanSet a, b;
  a.typeIs(Routing::Multicast::Fib::sourceGroup);
  b.typeIs(Routing::Multicast::Fib::anySource);
  EXPECT_FALSE(a == b);
  a.ignoreTypeIs(true);
  EXPECT_FALSE(a == b) << "both must ignore the type";
  b.ignoreTypeIs(true);
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(b == a);
  // The ordering still tells them apart, deliberately.
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
}

TEST(PortVlanSetEquality, FlagsOfEachCollectionAndEachFieldCount) {
  PortVlanSet base;
  base.portVlanIs(pv("Ethernet1", 10), true);
  base.portVlanFrrIs(pv("Ethernet2", 20), true);
  base.natVlanIs(Bridging::VlanId(30), true);
  EXPECT_TRUE(base == base);
  auto differs = [&](auto edit) {
    PortVlanSet o = base;
    edit(o);
    return !(o == base) && (o < base || base < o);
  };
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.portVlanIs(pv("Ethernet1", 10), false); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.portVlanFrrIs(pv("Ethernet2", 20), false); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.natVlanIs(Bridging::VlanId(30), false); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.toCpuPurposeIs(ToCpuPurpose(2)); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.fastdropIs(true); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.currentIifIs(Wirly::IntfId("Ethernet4")); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.acceptingVlanIdIs(Bridging::VlanId(2)); }));
  EXPECT_TRUE(differs([](PortVlanSet& o) { o.portVlanDel(o.portVlan().begin()); }));
}

TEST(PortVlanSet, ToCpuIsTouchesOnlyTheMulticastPurpose) {
  PortVlanSet s;
  ToCpuPurpose p;
  p.toCpuVxlanIs(true);
  s.toCpuPurposeIs(p);
  s.toCpuIs(false);
  EXPECT_TRUE(s.toCpu());
  s.toCpuIs(true);
  EXPECT_EQ(s.toCpuPurpose().value(), 3u);
}

TEST(PortVlanSet, PrettyAndTextForm) {
  PortVlanSet s;
  s.portVlanIs(PortVlan(Wirly::IntfId("Ethernet2"), OutLif(70000)), true);
  s.portVlanIs(pv("Ethernet1", 10), true);
  s.acceptingVlanIdIs(Bridging::VlanId(20));
  std::string const h = std::to_string(s.hash());
  EXPECT_EQ(s.pretty(), "2 PVs - acceptingVlanId: 20 hash: " + h + " vlan 10:Ethernet1 outLif 70000:Ethernet2");

  s.toCpuIs(true);
  s.featureFlagIs(0x1f);
  s.currentIifIs(Wirly::IntfId("Ethernet5"));
  s.portVlanFrrIs(pv("Ethernet6", 30), false);
  s.saveHash();
  EXPECT_EQ(s.pretty(), "2 PVs - (Cpu 0x1f) acceptingVlanId: 20 hash: " + std::to_string(s.hash()) +
                            " vlan 10:Ethernet1 outLif 70000:Ethernet2 currentIif: Ethernet5 vlan 30:Ethernet6");
  PortVlanSet f;
  f.featureFlagIs(0xa);
  EXPECT_EQ(f.pretty().substr(0, 15), "0 PVs - (0xa) a");

  EXPECT_EQ(s.valueToStrep(),
            "Value('MrouteLib::PortVlanSet', ** {'portVlan': None, 'toCpuPurpose': "
            "Value('MrouteLib::ToCpuPurpose', ** {'toCpuMcast': True, 'toCpuVxlan': False}), "
            "'featureFlag': 31, 'cachedHash': " +
                std::to_string(s.cachedHash()) +
                ", 'type': 'unknownKey', 'acceptingVlanId': 20, 'natVlan': None, 'fastdrop': False, "
                "'currentIif': " +
                Wirly::IntfId("Ethernet5").valueToStrep() + ", 'portVlanFrr': None, 'ignoreType': False})");
}

TEST(PortVlanSetDeathTest, HasNoConstructorFromText) {
  EXPECT_DEATH(Kiv::valueFromStrep<PortVlanSet>("Value('MrouteLib::PortVlanSet', ** {})"),
               MrouteLibTest::assertion("!\"No String constructor for PortVlanSet - has collection\""));
}

TEST(ToCpuPurpose, RangeAndTextForm) {
  try {
    ToCpuPurpose p(4);
    FAIL() << "no range error";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "ToCpuPurpose::value > 0x3 not allowed");
  }
  ToCpuPurpose p(2);
  EXPECT_EQ(p.valueToStrep(), "Value('MrouteLib::ToCpuPurpose', ** {'toCpuMcast': False, 'toCpuVxlan': True})");
  EXPECT_TRUE(Kiv::valueFromStrep<ToCpuPurpose>(p.valueToStrep()) == p);
  EXPECT_THROW(Kiv::valueFromStrep<ToCpuPurpose>("Value('MrouteLib::ToCpuPurpose', ** {'toCpuMcast': 1})"),
               Kiv::ParseException);
}

TEST(LagOperation, NamesReadBack) {
  for (auto op : {passLag, expandLag, chooseLagMember}) {
    EXPECT_EQ(Kiv::valueFromStrep<LagOperation>(Kiv::valueToStrep(op)), op);
  }
  EXPECT_EQ(Kiv::valueToStrep(chooseLagMember), "'chooseLagMember'");
  EXPECT_THROW(Kiv::valueFromStrep<LagOperation>("'splitLag'"), Kiv::ParseException);
}

TEST(MrouteFailureReason, PrettyKeepsItsFixedOrder) {
  EXPECT_EQ(MrouteFailureReason(0x20000).pretty(), " NoRouteInfo");
  EXPECT_EQ(MrouteFailureReason(0x800).pretty(), "");
  EXPECT_FALSE(MrouteFailureReason(0x800).hwFailure());
  EXPECT_EQ(MrouteFailureReason(0).pretty(), "");
  EXPECT_EQ(MrouteFailureReason(0xFFFFFFFF).pretty(),
            " MCDBFull PortNotMapped NoFeCard NoFreeMcastId NoSpaceInTcamOrLem NoRouteInfo"
            " vrfStatus not initialized BadAddr NoMacTableSpace NoRouteInfo BlockedTemporarily"
            " TimedOut NotInitialized InProgress");
}

TEST(MrouteFailureReason, LogExplainTakesTheFirstExhaustedResource) {
  EXPECT_EQ(MrouteFailureReason(0x9).logExplain(), ": replication table is full");
  EXPECT_EQ(MrouteFailureReason(0x10108).logExplain(), ": multicast ids exhausted");
  EXPECT_EQ(MrouteFailureReason(0x10100).logExplain(), ": tcam/lem is full");
  EXPECT_EQ(MrouteFailureReason(0x10000).logExplain(), ": mac table is full");
  EXPECT_EQ(MrouteFailureReason(0x2000006).logExplain(), "");
  for (std::uint32_t bit = 0; bit < 32; ++bit) {
    std::uint32_t const v = 1u << bit;
    EXPECT_EQ(MrouteFailureReason(v).hwFailure(), (v & 0x10109) != 0) << bit;
  }
}

TEST(MrouteFailureReason, BitsAndBytesLeaveTheRestAlone) {
  MrouteFailureReason r(0xFFFFFFFF);
  r.routeFailureBadAddrIs(false);
  EXPECT_EQ(r.value(), 0xFFFFFBFFu);
  r.macTableFailureMaskIs(0x12);
  EXPECT_EQ(r.value(), 0xFF12FBFFu);
  EXPECT_EQ(r.routeFailureMask(), 0xFB);
  r.valueIs(0);
  r.inProgressIs(true);
  r.oifSetFailureMaskIs(0x0F);
  EXPECT_EQ(r.value(), 0x800000Fu);
  EXPECT_TRUE(r.oifSetFailureMcastIdFull());
  EXPECT_EQ(r.valueToStrep(), std::to_string(0x800000F));
  EXPECT_TRUE(Kiv::valueFromStrep<MrouteFailureReason>(r.valueToStrep()) == r);
  EXPECT_TRUE(Kiv::valueFromStrep<MrouteFailureReason>("Value('MrouteLib::MrouteFailureReason', ** {'value': 5})") ==
              MrouteFailureReason(5));
}

TEST(PortVlan, OrderTextAndPrinting) {
  PortVlan a = pv("Ethernet1", 10);
  PortVlan b(Wirly::IntfId("Ethernet1"), OutLif(10));
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(pv("Ethernet1", 4000) < pv("Ethernet2", 1));
  EXPECT_FALSE(a == b);
  EXPECT_NE(a.hash(), b.hash());
  EXPECT_TRUE(b.isOutLif());
  EXPECT_EQ(Kiv::valueFromStrep<PortVlan>(b.valueToStrep()), b);
  EXPECT_EQ(Kiv::valueFromStrep<PortVlan>(a.valueToStrep()), a);
  std::ostringstream os;
  os << b << ' ' << OutLif(7);
  EXPECT_EQ(os.str(), "10:Ethernet1 7");
}
