#include "Mfib/RouteIntfIteratorConst.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Brisklog/Reader.h"
#include "Kiv/Trace.h"
#include "tests/Vorn/VornTestUtil.h"

using namespace Vorn::Multicast::Fib;
using BitMapper::BitIndex;
using BitMapper::BitIndexMap;
using BitMapper::BitMapperKey;
using Mode = Vorn::Status::Mode;
using Wirly::IntfId;

namespace {

IntfId eth(unsigned n) { return IntfId("Ethernet" + std::to_string(n)); }

// Each item as "role:interface", with "@index" for an outgoing interface,
// then "done" and a trailing "!" when a mapping was missing.
template <class It>
std::string walk(It& it) {
  std::ostringstream os;
  for (it.next(); !it.done(); it.next()) {
    os << unsigned(it.role()) << ':' << it.intfId().name();
    if (it.role() == RouteIntfRole::oif) os << '@' << it.oifIndex();
    os << ' ';
  }
  it.next();  // stays done
  os << (it.done() ? "done" : "NOT DONE") << (it.mappingMissing() ? "!" : "");
  return os.str();
}

// Leaves the record under `key` half-written by a writer that is gone, so
// that reading it raises Pelto::CorruptionDetectedException.
template <class Table>
void tear(Vorn::Status& s, Table const& table, typename Table::Key const& key) {
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  s.region()->header()->writerPid.store(static_cast<std::uint32_t>(child));
  Vorn::TableGeometry const& g = s.region()->table(table.index());
  for (std::uint32_t i = 1; i <= g.capacity(); ++i) {
    unsigned char* e = g.entries + std::size_t(i) * g.entrySize;
    auto* head = reinterpret_cast<Vorn::Layout::EntryHead*>(e);
    typename Table::Key stored;
    std::memcpy(static_cast<void*>(&stored), e + g.keyOffset, sizeof stored);
    if (head->live == 1 && stored == key) {
      head->dseq.fetch_add(1);
      return;
    }
  }
  FAIL() << "no live entry to tear";
}

class RouteIntfIteratorConstTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Brisklog::Config c = savedBrisklog;
    c.dir = root.path();  // goes with the tables
    Brisklog::configIs(c);
    status->mountIs(root.file("mfib"), Mode::writer);
    route.specialIntf1Is(eth(1));
    for (unsigned i : {3, 7, 300}) {
      route.oifIs(OifIndex(i), true);
      status->oifIndexIntfIs(OifIndexIntf(OifIndex(i), eth(100 + i)));
    }
    status->routePublish(route);
    route = status->route(route.key());
  }
  void TearDown() override { Brisklog::configIs(savedBrisklog); }

  Brisklog::Config const savedBrisklog = Brisklog::config();
  VornTest::PrivateRoot root;
  Kiv::Ptr<Status> status = new Status("mfib");
  Route route{IpGenRouteKey("10.0.0.1", "239.1.1.1")};
  Kiv::TraceCapture cap{"Mroute::MfibVorn/0-3"};
};

TEST_F(RouteIntfIteratorConstTest, SpecialInterfacesComeInSlotOrderOneThreeFourTwoThenOutgoingOnes) {
  Route r = route;
  r.specialIntf2Is(eth(2));
  r.specialIntf3Is(eth(3));
  r.specialIntf4Is(eth(4));
  RouteIntfIteratorConst it(status.ptr(), r);
  EXPECT_EQ(walk(it),
            "2:Ethernet1 4:Ethernet3 16:Ethernet4 32:Ethernet2 "
            "5:Ethernet103@3 5:Ethernet107@7 5:Ethernet400@300 done");

  r.flagsIs(Route::flagSpecialIntf1Alt);
  r.specialIntf3Is(IntfId());
  r.oifDelAll();
  RouteIntfIteratorConst alt(status.ptr(), r);
  EXPECT_EQ(walk(alt), "10:Ethernet1 16:Ethernet4 32:Ethernet2 done");
  RouteIntfIteratorConst empty(status.ptr(), Route(route.key()));
  EXPECT_EQ(walk(empty), "done");
  EXPECT_TRUE(cap.lines().empty());
}

TEST_F(RouteIntfIteratorConstTest, UnmappedIndexIsSkippedTracedAndRecordedAndTheWalkGoesOn) {
  status->oifIndexIntfDel(OifIndex(3));
  RouteIntfIteratorConst it(status.ptr(), route);
  EXPECT_EQ(walk(it), "2:Ethernet1 5:Ethernet107@7 5:Ethernet400@300 done!");
  EXPECT_EQ(cap.texts(), std::vector<std::string>{"RouteIntfIterator: missing intf mapping index 3"});

  status->oifIndexIntfDel(OifIndex(300));
  RouteIntfIteratorConst lastMissing(status.ptr(), route);
  EXPECT_EQ(walk(lastMissing), "2:Ethernet1 5:Ethernet107@7 done!");

  Brisklog::Reader reader(Brisklog::path());
  std::vector<std::string> records;
  for (Brisklog::Record const& rec : reader.read()) records.push_back(rec.source() + ": " + rec.text());
  // Each walk also leaves one record of itself when it ends.
  std::string const walked = "RouteIntfIteratorConst: walked route (10.0.0.1/32, 239.1.1.1/32) version 1: ";
  EXPECT_EQ(records,
            (std::vector<std::string>{"RouteIntfIteratorConst: RouteIntfIterator: missing intf mapping index 3",
                                      walked + "3 interfaces, mapping missing",
                                      "RouteIntfIteratorConst: RouteIntfIterator: missing intf mapping index 3",
                                      "RouteIntfIteratorConst: RouteIntfIterator: missing intf mapping index 300",
                                      walked + "2 interfaces, mapping missing"}));
}

TEST_F(RouteIntfIteratorConstTest, RouteRepublishedOrDeletedMidWalkEndsItBeforeTheNextIndexIsYielded) {
  RouteIntfIteratorConst it(status.ptr(), route);
  it.next();
  it.next();
  EXPECT_EQ(it.intfId(), eth(103));
  status->routePublish(route);
  EXPECT_EQ(walk(it), "done!");
  EXPECT_EQ(cap.texts(), std::vector<std::string>{"next(): route version mismatch 2!=1"});

  // Special interfaces come from the copy; the check is made per index.
  route = status->route(route.key());
  RouteIntfIteratorConst gone(status.ptr(), route);
  status->routeDel(route.key());
  EXPECT_EQ(walk(gone), "2:Ethernet1 done!");
  EXPECT_TRUE(cap.contains("next(): route version mismatch 0!=2"));
}

TEST_F(RouteIntfIteratorConstTest, BitMapperTableTakesOverIndexResolution) {
  auto bitMapper = [&](char const* file, unsigned intf) {
    Kiv::Ptr<BitMapper::VornStatus> v = new BitMapper::VornStatus(file);
    v->mountIs(root.file(file), Mode::writer);
    for (unsigned i : {3, 300}) {
      BitMapperKey const key(eth(intf + i), Wirly::IpGenAddr::v4(0xe0000001u));
      v->bitIndexMapIs(BitIndexMap(BitIndex(i), key, 1, true));
    }
    return v;
  };
  auto own = bitMapper("own", 500), other = bitMapper("other", 600);
  status->bitMapperVornStatusIs(own);
  RouteIntfIteratorConst it(status.ptr(), route);
  EXPECT_EQ(walk(it), "2:Ethernet1 5:Ethernet503@3 5:Ethernet800@300 done!");
  EXPECT_EQ(cap.texts(), std::vector<std::string>{"RouteIntfIterator: missing intf mapping index 7"});
  RouteIntfIteratorConst explicitOne(status.ptr(), route, other.ptr());
  EXPECT_EQ(walk(explicitOne), "2:Ethernet1 5:Ethernet603@3 5:Ethernet900@300 done!");
}

TEST_F(RouteIntfIteratorConstTest, CorruptRecordsCountAsAbsentAndTheirTablesHearOfIt) {
  tear(*status, status->oifIndexIntfTable(), OifIndex(7));
  RouteIntfIteratorConst it(status.ptr(), route);
  EXPECT_EQ(walk(it), "2:Ethernet1 5:Ethernet103@3 5:Ethernet400@300 done!");
  EXPECT_EQ(status->oifIndexIntfTable().corruptions(), 1u);

  tear(*status, status->routeTable(), route.key());
  RouteIntfIteratorConst torn(status.ptr(), route);
  EXPECT_EQ(walk(torn), "2:Ethernet1 done!");
  EXPECT_EQ(status->routeTable().corruptions(), 1u);
  EXPECT_TRUE(cap.contains("next(): route version mismatch 0!=1"));
}

TEST_F(RouteIntfIteratorConstTest, CachedVariantSkipsIndicesTheCacheLacksOrMapsToNoInterface) {
  OifIndexIntfIdCache cache{{OifIndex(7), eth(7)}, {OifIndex(300), IntfId()}, {OifIndex(9), eth(9)}};
  status->routeDel(route.key());  // the cached variant never looks at the table
  CachedMapRouteIntfIteratorConst it(route, cache);
  EXPECT_EQ(walk(it), "2:Ethernet1 5:Ethernet7@7 done!");
  EXPECT_EQ(cap.texts(),
            (std::vector<std::string>{"CachedMapRouteIntfIterator: missing intf mapping from cache: 3",
                                      "CachedMapRouteIntfIterator: missing intf mapping from cache: 300"}));
  cache[OifIndex(3)] = eth(3);
  cache[OifIndex(300)] = eth(300);
  CachedMapRouteIntfIteratorConst full(route, cache);
  EXPECT_EQ(walk(full), "2:Ethernet1 5:Ethernet3@3 5:Ethernet7@7 5:Ethernet300@300 done");
}

using RouteIntfIteratorConstDeathTest = RouteIntfIteratorConstTest;

// An entry unlike the default one by its index alone is a hit that names no
// interface: the writer broke the table.
TEST_F(RouteIntfIteratorConstDeathTest, HitWithoutAnInterfaceAborts) {
  status->oifIndexIntfIs(OifIndexIntf(OifIndex(7), IntfId()));
  RouteIntfIteratorConst it(status.ptr(), route);
  EXPECT_DEATH(walk(it), "intfId != Wirly::IntfId\\(\\)");
}

}  // namespace
