#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "Kiv/Exception.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Schema/Mfib/RouteOrderedCollection.h"
#include "tests/Vorn/VornTestUtil.h"

using namespace Vorn::Multicast::Fib;
using Routing::Multicast::Fib::invalidRouteKey;

namespace {

TEST(IpGenRouteKey, OrdersBySourceThenGroupHashesWithEqualityAndReadsBackItsText) {
  IpGenRouteKey a("10.0.0.1", "239.1.1.2"), b("10.0.0.2", "239.1.1.1"), c("10.0.0.1", "239.1.1.1");
  EXPECT_LT(c, a);
  EXPECT_LT(a, b);
  EXPECT_EQ(a, IpGenRouteKey("10.0.0.1", "239.1.1.2"));
  EXPECT_EQ(a.hash(), IpGenRouteKey("10.0.0.1", "239.1.1.2").hash());
  std::unordered_set<std::uint64_t> hashes{a.hash(), b.hash(), c.hash(), invalidRouteKey().hash()};
  EXPECT_EQ(hashes.size(), 4u);
  IpGenRouteKey v6("2001:db8::1", "ff3e::8000:1");
  EXPECT_EQ(IpGenRouteKey::fromStrep(v6.valueToStrep()), v6);
  EXPECT_EQ(IpGenRouteKey::fromStrep(invalidRouteKey().valueToStrep()), invalidRouteKey());
  std::ostringstream os;
  os << c;
  EXPECT_EQ(os.str(), "(s: 10.0.0.1/32 g: 239.1.1.1/32)");
  EXPECT_THROW(IpGenRouteKey::fromStrep("Value('Routing::Multicast::Fib::IpGenRouteKey', ** {})"), Kiv::ParseException);
}

TEST(Route, OutgoingInterfaceSetWalksInIndexOrderAndKeepsItsLastMember) {
  Route r;
  EXPECT_EQ(r, Route());
  EXPECT_EQ(r.firstOif(), OifIndex::end());
  EXPECT_EQ(r.lastOif(), OifIndex::end());
  for (std::uint16_t i : {511, 3, 64, 63, 0}) r.oifIs(OifIndex(i), true);
  std::vector<std::uint16_t> walked;
  for (OifIndex i = r.firstOif(); !i.isEnd(); i = r.nextOif(i)) walked.push_back(i.value());
  EXPECT_EQ(walked, (std::vector<std::uint16_t>{0, 3, 63, 64, 511}));
  EXPECT_EQ(r.nextOif(OifIndex(511)), OifIndex::end());
  EXPECT_EQ(r.nextOif(OifIndex::end()), OifIndex::end());
  EXPECT_EQ(r.lastOif(), OifIndex(511));
  r.oifIs(OifIndex(511), false);
  EXPECT_EQ(r.lastOif(), OifIndex(64));
  EXPECT_EQ(r.oifs(), 4u);
  EXPECT_THROW(r.oifIs(OifIndex(512), true), Kiv::RangeException);
  r.oifDelAll();
  EXPECT_EQ(r, Route());
}

class MfibStatusTest : public ::testing::Test {
 protected:
  VornTest::PrivateRoot root;
  Kiv::Ptr<Status> status = [this] {
    Kiv::Ptr<Status> s = new Status("pim");
    s->mountIs(root.file("mfib"), Vorn::Status::Mode::writer);
    return s;
  }();
};

TEST_F(MfibStatusTest, PublishingMovesTheVersionOnAndTellsNotifiees) {
  struct Heard : Status::NotifieeConst {
    using Status::NotifieeConst::NotifieeConst;
    void onRoute(IpGenRouteKey k) override { keys.push_back(k); }
    std::vector<IpGenRouteKey> keys;
  } heard(status);
  IpGenRouteKey const k("10.0.0.1", "239.1.1.1");
  Route r(k);
  r.priorityIs(RoutePriority(2));
  EXPECT_EQ(status->routePublish(r), 1u);
  EXPECT_EQ(status->routePublish(r), 2u);
  EXPECT_EQ(status->route(k).version(), 2u);
  EXPECT_EQ(status->route(IpGenRouteKey("10.0.0.9", "239.1.1.1")), Route());
  EXPECT_TRUE(status->routeDel(k));
  EXPECT_EQ(heard.keys, (std::vector<IpGenRouteKey>{k, k, k}));
  EXPECT_EQ(status->routePublish(r), 1u);
}

TEST(RouteOrderedCollection, NotifiesRealChangesAndWalksInKeyOrder) {
  auto coll = RouteOrderedCollection::create();
  struct Heard : RouteOrderedCollection::NotifieeConst {
    using RouteOrderedCollection::NotifieeConst::NotifieeConst;
    void onRoute(IpGenRouteKey) override { ++n; }
    int n = 0;
  } heard(coll);
  auto const* owner = reinterpret_cast<Status const*>(0x1000);
  IpGenRouteKey k1("10.0.0.2", "239.1.1.1"), k2("10.0.0.1", "239.1.1.1");
  coll->routeIs(k1, owner);
  coll->routeIs(k1, owner);
  coll->routeIs(k2, nullptr);
  EXPECT_EQ(coll->routeMap().begin()->first, k2);
  EXPECT_EQ(coll->route(k1), owner);
  EXPECT_FALSE(coll->routeDel(IpGenRouteKey("1.1.1.1", "239.0.0.1")));
  EXPECT_TRUE(coll->routeDel(k1));
  EXPECT_EQ(heard.n, 3);
  EXPECT_EQ(coll->route(k1), std::nullopt);
}

}  // namespace
