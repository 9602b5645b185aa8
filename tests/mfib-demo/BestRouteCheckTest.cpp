#include "BestRouteCheck.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/Mfib/MfibTestUtil.h"

using namespace MfibTest;
using MfibDemo::BestMap;
using MfibDemo::Mismatch;

namespace {

class BestRouteCheckTest : public ::testing::Test {
 protected:
  Tables tables;
  Kiv::Ptr<Status> a = tables.table("a");
  Kiv::Ptr<Status> b = tables.table("b");
  Kiv::Ptr<MfibVornColl> coll = mfibVornCollFactory(L3::VrfName("default"));
  Status* first = nullptr;
  Status* second = nullptr;

  void SetUp() override {
    coll->vornPtrIs(a.ptr(), a);
    coll->vornPtrIs(b.ptr(), b);
    first = const_cast<Status*>(coll->vornPtrMap().begin()->first);
    second = first == a.ptr() ? b.ptr() : a.ptr();
  }
};

TEST_F(BestRouteCheckTest, BruteForceAgreesWithTheCollectionsOwnChoice) {
  IpGenRouteKey const beaten = key(1), tied = key(2), zero = key(3), single = key(4);
  first->routePublish(route(beaten, 1));
  second->routePublish(route(beaten, 2));
  first->routePublish(route(tied, 2));
  second->routePublish(route(tied, 2));
  second->routePublish(route(zero, 0));
  second->routePublish(route(single, 1));

  BestMap const best = MfibDemo::bestRoutes(*coll);
  EXPECT_EQ(best, (BestMap{{beaten, second}, {tied, first}, {single, second}}));
  for (IpGenRouteKey const& k : {beaten, tied, zero, single}) {
    auto it = best.find(k);
    EXPECT_EQ(it == best.end() ? nullptr : it->second, coll->vornKey(k)) << k;
  }
  EXPECT_EQ(MfibDemo::topTables(*coll, tied), (std::vector<Status const*>{first, second}));
  EXPECT_EQ(MfibDemo::topTables(*coll, beaten), (std::vector<Status const*>{second}));
  EXPECT_TRUE(MfibDemo::topTables(*coll, zero).empty());
}

TEST_F(BestRouteCheckTest, MismatchesNameMissingExtraAndWrongOwnerKeysInKeyOrder) {
  auto ordered = RouteOrderedCollection::create();
  BestMap const best = {{key(1), first}, {key(2), first}, {key(4), second}};
  ordered->routeIs(key(1), first);
  ordered->routeIs(key(2), second);
  ordered->routeIs(key(3), first);
  EXPECT_EQ(MfibDemo::mismatches(*ordered, best),
            (std::vector<Mismatch>{{key(2), second, first}, {key(3), first, nullptr}, {key(4), nullptr, second}}));
  ordered->routeIs(key(2), first);
  ordered->routeDel(key(3));
  ordered->routeIs(key(4), second);
  EXPECT_TRUE(MfibDemo::mismatches(*ordered, best).empty());
}

// The demonstration relies on this: right after the initial pass only the
// tied keys differ, and one change notification for a tied key settles it.
TEST_F(BestRouteCheckTest, InitialPassDiffersOnlyOnTiesUntilTheirNextChange) {
  IpGenRouteKey const tied = key(1), plain = key(2);
  first->routePublish(route(tied, 2));
  second->routePublish(route(tied, 2));
  first->routePublish(route(plain, 1));
  second->routePublish(route(plain, 3));
  auto ordered = RouteOrderedCollection::create();
  auto sm = orderRouteSmFactory(coll, ordered);

  EXPECT_EQ(MfibDemo::mismatches(*ordered, MfibDemo::bestRoutes(*coll)),
            (std::vector<Mismatch>{{tied, second, first}}));
  first->routePublish(route(tied, 2));  // a rewrite by either table will do
  EXPECT_TRUE(MfibDemo::mismatches(*ordered, MfibDemo::bestRoutes(*coll)).empty());
}

}  // namespace
