#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "BitMapperTestUtil.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Trace.h"

using namespace BitMapper;
using BitMapperTest::Allocator;
using BitMapperTest::key;
using Mode = Vorn::Status::Mode;

namespace {

class BitMapperSmTest : public ::testing::Test {
 protected:
  VornTest::PrivateRoot root;
  std::string path = root.file("bitmapper.vorn");
};

TEST_F(BitMapperSmTest, AllocatesUpwardFromTheMinimumThenParksAndServesAWaitingKey) {
  Allocator a(path, 4, false, 10);
  EXPECT_EQ(a.sm->minBitIndex(), 10u);
  EXPECT_EQ(a.sm->maxBitIndex(), 14u);
  EXPECT_EQ(a.sm->bitIndexFreePoolLimit(), 8u);
  for (unsigned n = 0; n < 4; ++n) EXPECT_EQ(a.alloc(key(n)), BitIndex(10 + n));
  EXPECT_EQ(a.alloc(key(4)), BitIndex::waitlist());
  EXPECT_EQ(a.vorn->waitlistMap(key(4)), WaitlistMap(key(4), 1));
  EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(10)), BitIndexMap(BitIndex(10), key(0), 1, true));

  a.dealloc(key(1));
  EXPECT_EQ(a.status->bitIndex(key(1)), BitIndex::null());
  EXPECT_EQ(a.status->bitIndex(key(4)), BitIndex(11));
  EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(11)), BitIndexMap(BitIndex(11), key(4), 1, false));
  EXPECT_EQ(a.vorn->waitlistMap(key(4)), WaitlistMap());
  EXPECT_TRUE(a.pool().empty());
}

TEST_F(BitMapperSmTest, ReleasedIndicesAreReusedOldestFirstNotLowestFirst) {
  Allocator a(path, 4, false, 10);
  for (unsigned n = 0; n < 4; ++n) a.alloc(key(n));
  a.dealloc(key(2));  // 12
  a.dealloc(key(1));  // 11
  EXPECT_EQ(a.pool(), (std::vector<unsigned>{12, 11}));
  EXPECT_EQ(a.alloc(key(5)), BitIndex(12));
  EXPECT_EQ(a.alloc(key(6)), BitIndex(11));
}

TEST_F(BitMapperSmTest, RepeatedAllocationsCountAndOnlyRefCountedReleasesHonourThem) {
  {
    Allocator a(path, 4, true);
    EXPECT_EQ(a.alloc(key(0)), BitIndex(0));
    EXPECT_EQ(a.alloc(key(0)), BitIndex(0));
    EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(0)), BitIndexMap(BitIndex(0), key(0), 2, false));
    EXPECT_EQ(a.dealloc(key(0)), BitIndex(0));
    EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(0)).refCount(), 1u);
    EXPECT_EQ(a.dealloc(key(0)), BitIndex::null());
    EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(0)), BitIndexMap());
    a.vorn->unmount();
    ::unlink(path.c_str());
  }
  Allocator b(path, 4, false);
  b.alloc(key(0));
  b.alloc(key(0));
  EXPECT_EQ(b.dealloc(key(0)), BitIndex::null());
  EXPECT_EQ(b.pool(), (std::vector<unsigned>{1, 2, 3, 0}));
}

TEST_F(BitMapperSmTest, WaitingKeyCountsItsRequestsAndLeavesWhenTheyAreWithdrawn) {
  Allocator a(path, 1, false);
  a.alloc(key(0));
  a.alloc(key(1));
  a.alloc(key(1));
  a.alloc(key(2));
  EXPECT_EQ(a.vorn->waitlistMap(key(1)).requestCount(), 2u);
  // A waiting key with one request withdraws without touching the pool.
  EXPECT_EQ(a.dealloc(key(2)), BitIndex::null());
  EXPECT_EQ(a.vorn->waitlistMap(key(2)), WaitlistMap());
  EXPECT_TRUE(a.pool().empty());
  a.dealloc(key(0));
  EXPECT_EQ(a.status->bitIndex(key(1)), BitIndex(0));
  EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(0)), BitIndexMap(BitIndex(0), key(1), 2, false));
}

TEST_F(BitMapperSmTest, OneReleaseServesOneWaitingKeyAndTheRestWait) {
  Allocator a(path, 1, false);
  a.alloc(key(0));
  for (unsigned n = 1; n <= 3; ++n) a.alloc(key(n));
  a.dealloc(key(0));
  int served = 0, waiting = 0;
  for (unsigned n = 1; n <= 3; ++n) {
    if (a.status->bitIndex(key(n)).isValid()) ++served;
    if (a.status->bitIndex(key(n)) == BitIndex::waitlist()) ++waiting;
  }
  EXPECT_EQ(served, 1);
  EXPECT_EQ(waiting, 2);
  EXPECT_EQ(a.vorn->waitlistMapTable().size(), 2u);
}

TEST_F(BitMapperSmTest, MinimumIndexChangeRebuildsAnIdlePool) {
  Kiv::TraceCapture cap("Mroute::BitMapper");
  Allocator a(path, 3, false, 0);
  a.config->bitMapMinIndexIs(20);
  EXPECT_EQ(a.pool(), (std::vector<unsigned>{20, 21, 22}));
  EXPECT_EQ(a.sm->maxBitIndex(), 23u);
  EXPECT_TRUE(cap.contains("handleBitMapMinIndex(): FreePool size: 3"));
  EXPECT_EQ(a.alloc(key(0)), BitIndex(20));
  EXPECT_TRUE(cap.contains("handleAllocRequestCountAllocate index 20"));
  EXPECT_TRUE(cap.contains("handleInitialized(): Initializing "));
}

TEST_F(BitMapperSmTest, RestartAdoptsTheSharedTable) {
  {
    Allocator a(path, 4, false, 10);
    for (unsigned n = 0; n < 4; ++n) a.alloc(key(n));
    a.dealloc(key(1));
    a.dealloc(key(3));
  }
  Allocator b(path, 4, false, 10);
  EXPECT_EQ(b.pool(), (std::vector<unsigned>{11, 13}));
  EXPECT_EQ(b.status->bitIndex(key(0)), BitIndex(10));
  EXPECT_EQ(b.status->bitIndex(key(2)), BitIndex(12));
  EXPECT_EQ(b.status->bitIndexs(), 2u);
  EXPECT_EQ(b.alloc(key(7)), BitIndex(11));
}

using BitMapperSmDeathTest = BitMapperSmTest;

TEST_F(BitMapperSmDeathTest, BrokenInvariantsAbortWithTheirExpressions) {
  EXPECT_DEATH(Allocator(path, 0, false), "config\\(\\)->bitMapSize\\(\\)");
  EXPECT_DEATH(
      {
        Allocator a(path, 4, false);
        a.alloc(BitMapperKey());
      },
      "bitMapperKey != BitMapperKey\\(\\)");
  EXPECT_DEATH(
      {
        Allocator a(path, 4, false);
        a.dealloc(key(9));
      },
      "bitIndex != BitIndex::null\\(\\)");
  EXPECT_DEATH(
      {
        Allocator a(path, 4, false);
        a.dealloc(BitMapperKey());
      },
      "key != BitMapperKey\\(\\)");
  EXPECT_DEATH(
      {
        Allocator a(path, 4, false);
        a.alloc(key(0));
        a.config->bitMapMinIndexIs(8);
      },
      "bitIndexFreePools\\(\\) == config\\(\\)->bitMapSize\\(\\)");
}

TEST_F(BitMapperSmDeathTest, SpaceReachingTheWaitlistMarkerMistakesAWaitingKeyForAHolder) {
  EXPECT_DEATH(
      {
        Allocator a(path, 5, false, 65530);  // maxBitIndex 65535
        a.sm->bitIndexFreePoolDel(4);        // 65534 never goes out
        for (unsigned n = 0; n < 4; ++n) a.alloc(key(n));
        a.alloc(key(5));  // waits: 65534
        a.alloc(key(5));
      },
      "bitIndexMap != BitIndexMap\\(\\)");
}

// Index of the live entry holding `k` in table `t`, found the way a debugger
// would, so a test can break it as a dying writer would.
template <class K>
Vorn::Layout::EntryHead* entryHeadOf(Vorn::Status const& s, std::uint32_t t, K const& k) {
  Vorn::TableGeometry const& g = s.region()->table(t);
  for (std::uint32_t i = 1; i <= g.capacity(); ++i) {
    auto* h = reinterpret_cast<Vorn::Layout::EntryHead*>(g.entries + std::size_t(i) * g.entrySize);
    K stored;
    std::memcpy(static_cast<void*>(&stored), g.entries + std::size_t(i) * g.entrySize + g.keyOffset, sizeof stored);
    if (h->live == 1 && stored == k) return h;
  }
  return nullptr;
}

// Leaves the record of `k` half-written by a writer that is gone.
template <class K>
void tear(Vorn::Status& s, std::uint32_t table, K const& k) {
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  s.region()->header()->writerPid.store(static_cast<std::uint32_t>(child));
  auto* h = entryHeadOf(s, table, k);
  ASSERT_NE(h, nullptr);
  h->dseq.fetch_add(1);
}

TEST_F(BitMapperSmTest, CorruptRecordDuringTheReplayIsReportedAndInitialisationCompletes) {
  {
    Allocator a(path, 4, false);
    for (unsigned n = 0; n < 3; ++n) a.alloc(key(n));
  }
  auto config = configFactory(4, false);
  auto status = statusFactory();
  auto vorn = BitMapperTest::vornStatus(path, Mode::writer);
  tear(*vorn, 0, BitIndex(1));
  auto sm = bitMapperSmFactory(config, status, vorn);
  EXPECT_TRUE(sm->initialized());
  EXPECT_GE(vorn->bitIndexMapTable().corruptions(), 1u);
  EXPECT_EQ(status->bitIndex(key(0)), BitIndex(0));
}

TEST_F(BitMapperSmTest, CorruptWaitlistDuringAReviewIsReportedAndTheReviewEnds) {
  Allocator a(path, 1, false);
  a.alloc(key(0));
  a.alloc(key(1));
  tear(*a.vorn, 1, key(1));
  a.dealloc(key(0));
  EXPECT_GE(a.vorn->waitlistMapTable().corruptions(), 1u);
  EXPECT_EQ(a.pool(), (std::vector<unsigned>{0}));
}

// A reader in another process follows the allocator's table from its event
// loop and sees every record as written.
TEST_F(BitMapperSmTest, ReaderProcessHearsEveryAllocationAndReadsItsRecord) {
  constexpr unsigned kKeys = 50;
  Allocator a(path, 64, false);
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t child = fork();
  if (child == 0) {
    ::close(ready[0]);
    Kiv::EventLoop loop;
    auto reader = BitMapperTest::vornStatus(path, Mode::reader);
    struct Heard : VornStatus::NotifieeConst {
      using VornStatus::NotifieeConst::NotifieeConst;
      void onBitIndexMap(BitIndex i) override { indices.push_back(i); }
      std::vector<BitIndex> indices;
    } heard(reader);
    reader->followIs(&loop);
    char c = 'r';
    if (::write(ready[1], &c, 1) != 1) _exit(2);
    loop.runUntil([&] { return heard.indices.size() >= kKeys; }, 10.0);
    if (heard.indices.size() != kKeys) _exit(3);
    for (unsigned n = 0; n < kKeys; ++n) {
      if (heard.indices[n] != BitIndex(n)) _exit(4);
      if (reader->bitIndexMap(BitIndex(n)) != BitIndexMap(BitIndex(n), key(n), 1, true)) _exit(5);
    }
    _exit(0);
  }
  ::close(ready[1]);
  char c;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ::close(ready[0]);
  for (unsigned n = 0; n < kKeys; ++n) a.alloc(key(n));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(BitMapperSmTest, ReflectiveViewFollowsTheDeclarationOrderAndDrivesTheMachine) {
  BitMapperTest::Allocator a(path, 4, false, 10);
  std::vector<std::string> names;
  for (Kiv::Attr const& attr : Kiv::typeInfo(*a.sm).attrs()) names.push_back(attr.name);
  EXPECT_EQ(names, (std::vector<std::string>{"config", "status", "vornStatus", "handleAllocRequestCount",
                                             "handleDeallocRequestCount", "handleBitMapMinIndex", "doAllocBitIndex",
                                             "minBitIndex", "maxBitIndex", "bitIndexFreePool", "bitIndexFreePoolLimit",
                                             "reviewKeyWaitlist", "initialized", "handleInitialized"}));
  EXPECT_EQ(Kiv::attrGet(*a.sm, "config"), "Entity('BitMapper::Config', '')");
  EXPECT_EQ(Kiv::attrOf(*a.sm, "status").entity(*a.sm).ptr(), a.status.ptr());
  EXPECT_THROW(Kiv::attrSet(*a.sm, "bitIndexFreePoolLimit", "3"), Kiv::RangeException);
  EXPECT_EQ(Kiv::attrGet(*a.sm, "bitIndexFreePoolLimit"), "8");

  // An allocation by name is the typed one: the same index, the same record.
  EXPECT_EQ(Kiv::attrInvoke(*a.sm, "doAllocBitIndex", key(1).valueToStrep()), "10");
  EXPECT_EQ(a.status->bitIndex(key(1)), BitIndex(10));
  EXPECT_EQ(a.vorn->bitIndexMap(BitIndex(10)).bitMapperKey(), key(1));
  EXPECT_EQ(Kiv::attrInvoke(*a.sm, "reviewKeyWaitlist", ""), "True");

  // The pool's entries carry their sequence number and their bitIndex.
  auto entries = Kiv::attrEntries(*a.sm, "bitIndexFreePool");
  ASSERT_EQ(entries.size(), 3u);
  auto const* head = a.sm->bitIndexFreePool().head();
  EXPECT_EQ(entries[0].first, std::to_string(head->index));
  EXPECT_EQ(entries[0].second, "Value('BitMapper::BitMapperSm::KivBitIndexFreePool', ** {'index': " +
                                   std::to_string(head->index) + ", 'bitIndex': 11})");
  EXPECT_EQ(Kiv::attrLookup(*a.sm, "bitIndexFreePool", std::to_string(head->index)), entries[0].second);
  EXPECT_EQ(Kiv::attrLookup(*a.sm, "bitIndexFreePool", std::to_string(head->index - 1)), "None");
  Kiv::attrEntryDel(*a.sm, "bitIndexFreePool", std::to_string(head->index));
  EXPECT_EQ(a.pool(), (std::vector<unsigned>{12, 13}));
  Kiv::attrEntryIs(*a.sm, "bitIndexFreePool", "1000", "11");
  EXPECT_EQ(a.pool(), (std::vector<unsigned>{12, 13, 11}));
  EXPECT_TRUE(Kiv::attrHas(*a.sm, "bitIndexFreePool", "1000"));
}

}  // namespace
