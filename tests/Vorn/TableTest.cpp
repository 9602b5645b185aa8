#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <set>

#include "Kiv/EventLoop.h"
#include "Kiv/Trace.h"
#include "VornTestUtil.h"

using namespace VornTest;
using Vorn::TestKey;
using Vorn::TestRecord;
using Mode = Vorn::Status::Mode;

namespace {

class OtherStatus : public Vorn::Status {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<OtherStatus> {
   public:
    virtual void onEntry(TestKey const&) {}
  };
  explicit OtherStatus(Kiv::Name const& n = Kiv::Name()) : Status(n) {}
  std::string_view typeName() const override { return "Vorn::OtherStatus"; }
  VORN_TABLE(OtherStatus, entry, Entry, TestKey, TestRecord, &TestRecord::key, 16)
};

// Entry index of `key` in table 0, found the way a debugger would.
std::uint32_t entryOf(Vorn::Status const& s, TestKey const& key) {
  Vorn::TableGeometry const& g = s.region()->table(0);
  for (std::uint32_t i = 1; i <= g.capacity(); ++i) {
    auto const* h = reinterpret_cast<Vorn::Layout::EntryHead const*>(g.entries + std::size_t(i) * g.entrySize);
    if (h->live == 1 && std::memcmp(g.entries + std::size_t(i) * g.entrySize + g.keyOffset, &key, sizeof key) == 0)
      return i;
  }
  return Vorn::Layout::kNone;
}

Vorn::Layout::EntryHead* headOf(Vorn::Status const& s, std::uint32_t i) {
  Vorn::TableGeometry const& g = s.region()->table(0);
  return reinterpret_cast<Vorn::Layout::EntryHead*>(g.entries + std::size_t(i) * g.entrySize);
}

// Compares every way of reading the table with the model.
void expectSame(Vorn::TestStatus const& s, std::map<TestKey, TestRecord> const& model, std::uint64_t keySpace) {
  auto const& t = s.entryTable();
  ASSERT_EQ(t.size(), model.size());
  for (std::uint64_t n = 0; n < keySpace; ++n) {
    auto it = model.find(TestKey(n));
    ASSERT_EQ(s.entry(TestKey(n)), it == model.end() ? TestRecord() : it->second) << n;
  }
  std::vector<TestKey> walked;
  Vorn::IterHint hint;
  TestKey k;
  TestRecord r;
  for (bool ok = t.first(k, r, hint); ok; ok = t.next(k, k, r, hint)) {
    ASSERT_EQ(r, model.at(k));
    walked.push_back(k);
  }
  std::vector<TestKey> expected;
  for (auto const& [key, rec] : model) expected.push_back(key);
  ASSERT_EQ(walked, expected);
  // next/lowerBound from keys that are absent.
  for (std::uint64_t n = 0; n < keySpace; n += 7) {
    TestKey const probe(n);
    auto up = model.upper_bound(probe);
    Vorn::IterHint fresh;
    bool found = t.next(probe, k, r, fresh);
    ASSERT_EQ(found, up != model.end());
    if (found) {
      ASSERT_EQ(k, up->first);
    }
    auto lb = model.lower_bound(probe);
    found = t.lowerBound(probe, k, r, fresh);
    ASSERT_EQ(found, lb != model.end());
    if (found) {
      ASSERT_EQ(k, lb->first);
    }
  }
  std::set<TestKey> unordered;
  std::uint32_t pos = 0;
  while (t.unorderedNext(pos, k, r)) unordered.insert(k);
  ASSERT_EQ(unordered.size(), model.size());
}

class VornTable : public ::testing::Test {
 protected:
  PrivateRoot root;
  std::string path = root.file("t.vorn");
};

}  // namespace

TEST_F(VornTable, LookupInsertReplaceDeleteAndTheirNotifications) {
  auto w = mounted(path, Mode::writer);
  Recorder heard(w);
  EXPECT_EQ(w->entry(TestKey(5)), TestRecord());
  EXPECT_TRUE(w->entryIs(record(5)));
  EXPECT_FALSE(w->entryIs(record(5)));
  EXPECT_TRUE(w->entryIs(record(5, 2)));
  EXPECT_EQ(w->entry(TestKey(5)).version, 2u);
  EXPECT_TRUE(w->peerIs({7, 0, 70}));
  EXPECT_FALSE(w->entryDel(TestKey(6)));
  EXPECT_TRUE(w->entryDel(TestKey(5)));
  EXPECT_FALSE(w->entryDel(TestKey(5)));
  EXPECT_EQ(w->entry(TestKey(5)), TestRecord());
  EXPECT_EQ(w->peer(7).value, 70u);
  EXPECT_EQ(heard.entries, (std::vector<TestKey>{TestKey(5), TestKey(5), TestKey(5)}));
  EXPECT_EQ(heard.peers, std::vector<std::uint16_t>{7});
  EXPECT_EQ(w->entryTable().size(), 0u);
  EXPECT_EQ(w->peerTable().size(), 1u);
}

TEST_F(VornTable, RandomOperationsMatchAnOrderedMapFromASecondMapping) {
  Vorn::MountOptions options;
  options.limit["entry"] = 600;
  auto w = mounted(path, Mode::writer, options);
  auto r = mounted(path, Mode::reader);
  EXPECT_EQ(r->entryTable().limit(), 600u);
  std::map<TestKey, TestRecord> model;
  std::mt19937_64 rng(7);
  for (int i = 0; i < 30000; ++i) {
    std::uint64_t const n = rng() % 800;
    if (rng() % 3 == 0) {
      bool const had = model.erase(TestKey(n)) != 0;
      ASSERT_EQ(w->entryDel(TestKey(n)), had);
    } else if (model.size() < 600 || model.count(TestKey(n))) {
      TestRecord const rec = record(n, i);
      model[rec.key] = rec;
      ASSERT_TRUE(w->entryIs(rec));
    }
    if (i % 5000 == 0) expectSame(*r, model, 800);
  }
  expectSame(*r, model, 800);
  expectSame(*w, model, 800);
  // Every entry's prefetch hint names the entry four steps on.
  Vorn::TableGeometry const& g = r->region()->table(0);
  std::vector<std::uint32_t> chain;
  auto next0 = [&](std::uint32_t i) {
    return reinterpret_cast<Vorn::Layout::Link const*>(g.entries + std::size_t(i) * g.entrySize + g.linksOffset)
        ->load();
  };
  for (std::uint32_t x = next0(0); x != Vorn::Layout::kNone; x = next0(x)) chain.push_back(x);
  ASSERT_EQ(chain.size(), model.size());
  for (std::size_t i = 0; i < chain.size(); ++i) {
    auto const* h = reinterpret_cast<Vorn::Layout::EntryHead const*>(g.entries + std::size_t(chain[i]) * g.entrySize);
    ASSERT_EQ(h->ahead.load(), i + 4 < chain.size() ? chain[i + 4] : Vorn::Layout::kNone) << i;
  }
}

// Every level of the shared skip list holds exactly the live entries taller
// than it, in key order, and every entry's prefetch hint names the entry
// four steps on: what the writer's private indexes must keep true.
void expectSkipListWhole(Vorn::Status const& s, std::map<TestKey, TestRecord> const& model) {
  Vorn::TableGeometry const& g = s.region()->table(0);
  auto headAt = [&](std::uint32_t i) {
    return reinterpret_cast<Vorn::Layout::EntryHead const*>(g.entries + std::size_t(i) * g.entrySize);
  };
  auto link = [&](std::uint32_t i, std::uint32_t l) {
    return reinterpret_cast<Vorn::Layout::Link const*>(g.entries + std::size_t(i) * g.entrySize + g.linksOffset)[l]
        .load();
  };
  auto keyAt = [&](std::uint32_t i) {
    TestKey k;
    std::memcpy(&k, g.entries + std::size_t(i) * g.entrySize + g.keyOffset, sizeof k);
    return k;
  };
  std::vector<std::uint32_t> chain;
  for (std::uint32_t x = link(0, 0); x != Vorn::Layout::kNone; x = link(x, 0)) chain.push_back(x);
  std::vector<TestKey> keys;
  for (std::uint32_t x : chain) keys.push_back(keyAt(x));
  std::vector<TestKey> expected;
  for (auto const& [k, r] : model) expected.push_back(k);
  ASSERT_EQ(keys, expected);
  for (std::uint32_t l = 1; l < Vorn::Layout::kMaxLevel; ++l) {
    std::vector<std::uint32_t> tall, linked;
    for (std::uint32_t x : chain)
      if (headAt(x)->level > l) tall.push_back(x);
    for (std::uint32_t x = link(0, l); x != Vorn::Layout::kNone && linked.size() <= chain.size(); x = link(x, l))
      linked.push_back(x);
    ASSERT_EQ(linked, tall) << "level " << l;
  }
  for (std::size_t i = 0; i <= chain.size(); ++i) {
    std::uint32_t const x = i == 0 ? 0 : chain[i - 1];
    ASSERT_EQ(headAt(x)->ahead.load(), i + 3 < chain.size() ? chain[i + 3] : Vorn::Layout::kNone) << i;
  }
}

TEST_F(VornTable, TheSkipListStaysWholeThroughGrowthChurnAndAdoption) {
  Vorn::MountOptions options;
  options.limit["entry"] = 20000;
  std::map<TestKey, TestRecord> model;
  std::mt19937_64 rng(11);
  // Runs of neighbouring keys make the predecessors of a tall node lie
  // far back, past the writer's short search.
  auto churn = [&](Vorn::TestStatus& w, int ops) {
    for (int i = 0; i < ops; ++i) {
      std::uint64_t const n = rng() % 30000;
      if (rng() % 4 == 0) {
        ASSERT_EQ(w.entryDel(TestKey(n)), model.erase(TestKey(n)) == 1);
      } else if (model.size() < 20000 || model.count(TestKey(n))) {
        model[TestKey(n)] = record(n, i);
        w.entryIs(record(n, i));
      }
    }
  };
  {
    auto w = mounted(path, Mode::writer, options);
    churn(*w, 25000);
    expectSkipListWhole(*w, model);
  }
  auto w = mounted(path, Mode::writer, options);
  expectSkipListWhole(*w, model);
  churn(*w, 25000);
  expectSkipListWhole(*w, model);
  // Emptied, then filled again.
  for (auto it = model.begin(); it != model.end(); it = model.erase(it)) ASSERT_TRUE(w->entryDel(it->first));
  expectSkipListWhole(*w, model);
  churn(*w, 5000);
  auto r = mounted(path, Mode::reader);
  expectSame(*r, model, 30000);
  expectSkipListWhole(*r, model);
}

TEST_F(VornTable, OrderedWalkContinuesAfterItsKeyAndSuccessorAreDeleted) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 20; ++n) w->entryIs(record(n * 10));
  auto r = mounted(path, Mode::reader);
  auto const& t = r->entryTable();
  Vorn::IterHint hint;
  TestKey k;
  TestRecord rec;
  ASSERT_TRUE(t.lowerBound(TestKey(50), k, rec, hint));
  ASSERT_EQ(k, TestKey(50));
  TestKey const here = k;
  // Keys are ordered by their fields, not by n: find the two next ones.
  std::map<TestKey, int> order;
  for (std::uint64_t n = 0; n < 20; ++n) order[TestKey(n * 10)] = 0;
  auto it = order.upper_bound(here);
  TestKey const succ = it->first;
  TestKey const succ2 = std::next(it)->first;
  w->entryDel(here);
  w->entryDel(succ);
  ASSERT_TRUE(t.next(k, k, rec, hint));
  EXPECT_EQ(k, succ2);
  // A key inserted right after the cursor is found by the next step.
  TestKey const between(1000);
  w->entryIs(TestRecord(between, 1));
  Vorn::IterHint h2;
  ASSERT_TRUE(t.first(k, rec, h2));
  std::vector<TestKey> walk{k};
  while (t.next(k, k, rec, h2)) walk.push_back(k);
  EXPECT_TRUE(std::is_sorted(walk.begin(), walk.end()));
  EXPECT_EQ(walk.size(), 19u);
  EXPECT_NE(std::find(walk.begin(), walk.end(), between), walk.end());
}

TEST_F(VornTable, AFullTableRefusesNewKeysButNotReplacements) {
  Vorn::MountOptions options;
  options.limit["entry"] = 4;
  auto w = mounted(path, Mode::writer, options);
  for (std::uint64_t n = 0; n < 4; ++n) w->entryIs(record(n));
  try {
    w->entryIs(record(4));
    FAIL() << "insert into a full table";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "Vorn table 'entry' is full: its limit is 4 records");
  }
  EXPECT_TRUE(w->entryIs(record(3, 9)));
  EXPECT_TRUE(w->entryDel(TestKey(0)));
  EXPECT_TRUE(w->entryIs(record(4)));
  EXPECT_EQ(w->entryTable().size(), 4u);
}

TEST_F(VornTable, MountChecksFileTypeAndAccess) {
  EXPECT_THROW(mounted(path, Mode::reader), Kiv::ErrnoException);
  auto w = mounted(path, Mode::writer);
  Kiv::Ptr<OtherStatus> other = new OtherStatus();
  try {
    other->mountIs(path, Mode::reader);
    FAIL() << "mounted a region of another type";
  } catch (Pelto::CorruptionDetectedException const& e) {
    EXPECT_EQ(std::string(e.what()), path + ": holds type 'Vorn::TestStatus', not 'Vorn::OtherStatus'");
  }
  auto r = mounted(path, Mode::reader);
  try {
    r->entryIs(record(1));
    FAIL() << "a reader wrote";
  } catch (Kiv::Exception const& e) {
    EXPECT_STREQ(e.what(), "Vorn table 'entry' is mounted read-only in this process");
  }
  Kiv::Ptr<Vorn::TestStatus> idle = new Vorn::TestStatus();
  EXPECT_THROW(idle->entry(TestKey(1)), Kiv::Exception);
  EXPECT_THROW(w->mountIs(path, Mode::writer), Kiv::Exception);
}

TEST_F(VornTable, NewWriterAdoptsRecordsAndDropsOneTornByACrash) {
  Vorn::MountOptions options;
  options.limit["entry"] = 128;
  std::map<TestKey, TestRecord> model;
  {
    auto w = mounted(path, Mode::writer, options);
    for (std::uint64_t n = 0; n < 100; ++n) model[record(n).key] = record(n), w->entryIs(record(n));
    for (std::uint64_t n = 0; n < 100; n += 10) model.erase(TestKey(n)), w->entryDel(TestKey(n));
    // A crash in the middle of rewriting record 42 leaves its dseq odd.
    auto* h = headOf(*w, entryOf(*w, TestKey(42)));
    h->dseq.fetch_add(1);
    model.erase(TestKey(42));
  }
  auto r = mounted(path, Mode::reader);
  Kiv::EventLoop loop;
  r->followIs(&loop);
  Recorder heard(r);
  auto w2 = mounted(path, Mode::writer, options);
  EXPECT_EQ(w2->region()->header()->writerEpoch.load(), 2u);
  EXPECT_EQ(w2->entryTable().limit(), 128u);
  expectSame(*w2, model, 100);
  r->drain();
  EXPECT_EQ(heard.entries, std::vector<TestKey>{TestKey(42)});
  expectSame(*r, model, 100);
  // The free list came back: exactly capacity - size more records fit.
  for (std::uint64_t n = 0; n < 128 - model.size(); ++n) w2->entryIs(record(1000 + n));
  EXPECT_THROW(w2->entryIs(record(5000)), Kiv::RangeException);
}

TEST_F(VornTable, AdoptionRepairsTheSkipListHeadLeftMidRelink) {
  std::map<TestKey, TestRecord> model;
  {
    auto w = mounted(path, Mode::writer);
    for (std::uint64_t n = 0; n < 50; ++n) model[record(n).key] = record(n), w->entryIs(record(n));
    // A writer killed while relinking the head leaves the head's lseq odd.
    headOf(*w, 0)->lseq.fetch_add(1);
  }
  for (int adoption = 0; adoption < 2; ++adoption) {
    auto w = mounted(path, Mode::writer);
    expectSame(*w, model, 60);
    auto r = mounted(path, Mode::reader);
    expectSame(*r, model, 60);
  }
}

TEST_F(VornTable, CorruptSlotsAndLinksRaiseInsteadOfCrashingOrLooping) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 50; ++n) w->entryIs(record(n));
  auto r = mounted(path, Mode::reader);
  Vorn::TableGeometry const& g = r->region()->table(0);
  std::uint32_t const victim = entryOf(*r, TestKey(7));
  // A hash slot naming an entry beyond the table.
  std::uint32_t slot = 0;
  while (std::uint32_t(g.slotsNow()[slot].load()) != victim + 1) ++slot;
  std::uint64_t const saved = g.slotsNow()[slot].load();
  g.slotsNow()[slot].store((saved & ~0xffffffffull) | (g.capacity() + 9));
  try {
    r->entry(TestKey(7));
    FAIL() << "read through a corrupt slot";
  } catch (Pelto::CorruptionDetectedException const& e) {
    EXPECT_NE(std::string(e.what()).find("hash slot " + std::to_string(slot) + " names entry " +
                                         std::to_string(g.capacity() + 8) + ", beyond capacity"),
              std::string::npos)
        << e.what();
    r->entryTable().corruptionDetected(e.what());
  }
  EXPECT_EQ(r->entryTable().corruptions(), 1u);
  EXPECT_EQ(r->corruptions(), 1u);
  g.slotsNow()[slot].store(saved);
  EXPECT_EQ(r->entry(TestKey(7)), record(7));
  // A level-0 link back to the first entry: walks raise, they do not cycle.
  Vorn::IterHint hint;
  TestKey k, firstKey;
  TestRecord rec;
  ASSERT_TRUE(r->entryTable().first(firstKey, rec, hint));
  std::uint32_t const firstEntry = hint.entry;
  std::uint32_t last = firstEntry;
  auto next0 = [&](std::uint32_t i) {
    return reinterpret_cast<Vorn::Layout::Link*>(reinterpret_cast<unsigned char*>(headOf(*r, i)) + g.linksOffset);
  };
  while (next0(last)->load() != Vorn::Layout::kNone) last = next0(last)->load();
  next0(last)->store(firstEntry);
  bool raised = false;
  k = firstKey;
  try {
    for (int i = 0; i < 1000 && r->entryTable().next(k, k, rec, hint); ++i) {
    }
  } catch (Pelto::CorruptionDetectedException const&) {
    raised = true;
  }
  EXPECT_TRUE(raised);
}

TEST_F(VornTable, RecordLeftMidWriteByADeadWriterIsReportedNotWaitedForever) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 10; ++n) w->entryIs(record(n));
  auto r = mounted(path, Mode::reader);
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  r->region()->header()->writerPid.store(static_cast<std::uint32_t>(child));
  headOf(*r, entryOf(*r, TestKey(3)))->dseq.fetch_add(1);
  try {
    r->entry(TestKey(3));
    FAIL() << "read a torn record";
  } catch (Pelto::CorruptionDetectedException const& e) {
    EXPECT_NE(
        std::string(e.what()).find("was left mid-write by writer pid " + std::to_string(child) + ", which is gone"),
        std::string::npos)
        << e.what();
  }
  EXPECT_EQ(r->entry(TestKey(4)), record(4));
}

// Every entry looks mid-write while the writer runs: a reader that starts
// to follow the table gives up on them all within one bound, not one bound
// per entry, and says what it thinks.
TEST_F(VornTable, AReaderGivesUpOnATableOfStuckEntriesWithinOneBound) {
  Vorn::MountOptions options;
  options.limit["entry"] = 2000;
  auto w = mounted(path, Mode::writer, options);
  for (std::uint64_t n = 0; n < 2000; ++n) w->entryIs(record(n));
  for (std::uint32_t i = 0; i < 2000; ++i) headOf(*w, i)->dseq.fetch_add(1);
  try {
    auto r = mounted(path, Mode::reader);
    r->entry(TestKey(1));
    FAIL() << "read a record left mid-write";
  } catch (Pelto::CorruptionDetectedException const& e) {
    EXPECT_NE(std::string(e.what()).find("damaged or stuck"), std::string::npos) << e.what();
  }
  pid_t child = fork();
  if (child == 0) {
    alarm(10);
    auto r = mounted(path, Mode::reader);
    Kiv::EventLoop loop;
    auto const start = std::chrono::steady_clock::now();
    r->followIs(&loop);
    _exit(std::chrono::steady_clock::now() - start < std::chrono::seconds(3) ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST_F(VornTable, FileTruncatedUnderAReaderRaisesInsteadOfKillingIt) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 100; ++n) w->entryIs(record(n));
  auto r = mounted(path, Mode::reader);
  ASSERT_EQ(truncate(path.c_str(), 4096), 0);
  bool raised = false;
  for (std::uint64_t n = 0; n < 100 && !raised; ++n) {
    try {
      r->entry(TestKey(n));
    } catch (Pelto::CorruptionDetectedException const& e) {
      raised = std::string(e.what()).find("truncated") != std::string::npos;
    }
  }
  EXPECT_TRUE(raised);
  EXPECT_THROW(mounted(path, Mode::reader), Pelto::CorruptionDetectedException);
}

TEST_F(VornTable, EveryMappingIsGuardedAgainstTruncationHoweverManyAProcessHolds) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 100; ++n) w->entryIs(record(n));
  pid_t child = fork();
  if (child == 0) {
    std::vector<Kiv::Ptr<Vorn::TestStatus>> readers;
    for (int i = 0; i < 300; ++i) readers.push_back(mounted(path, Mode::reader));
    if (truncate(path.c_str(), 4096) != 0) _exit(2);
    for (auto& r : readers) {
      try {
        for (std::uint64_t n = 0; n < 100; ++n) r->entry(TestKey(n));
        _exit(3);  // the truncation went unnoticed
      } catch (Pelto::CorruptionDetectedException const&) {
      }
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST_F(VornTable, AWriterWhoseFileIsCutShortReportsItsWritesFailed) {
  auto w = mounted(path, Mode::writer);
  for (std::uint64_t n = 0; n < 10; ++n) w->entryIs(record(n));
  ASSERT_EQ(truncate(path.c_str(), 4096), 0);
  bool raised = false;
  for (std::uint64_t n = 100; n < 200 && !raised; ++n) {
    try {
      w->entryIs(record(n));
    } catch (Pelto::CorruptionDetectedException const& e) {
      raised = std::string(e.what()).find("truncated") != std::string::npos;
    }
  }
  EXPECT_TRUE(raised);
}

// A writer that keeps pace with the reader's hooks must not hold the
// reader's loop: each wake-up delivers a bounded batch, and the loop wakes
// again for the rest.
TEST_F(VornTable, ABusyWriterCannotKeepADrainFromReturning) {
  auto w = mounted(path, Mode::writer);
  auto r = mounted(path, Mode::reader);
  Kiv::EventLoop loop;
  r->followIs(&loop);
  std::uint64_t written = 0, heard = 0;
  r->changeHookIs([&](Vorn::TableBase const&, void const*) {
    ++heard;
    if (written < 5000) {
      ++written;
      w->entryIs(record(written % 500, written));
    }
  });
  w->entryIs(record(0, 999));
  std::size_t const first = r->drain();
  EXPECT_GT(first, 0u);
  EXPECT_LT(first, 2000u);
  int wakeUps = 0;
  while (heard < written + 1 && wakeUps < 100) {
    loop.runOnce(0.1);
    ++wakeUps;
  }
  EXPECT_EQ(heard, written + 1);
  EXPECT_GT(wakeUps, 2);
}

TEST_F(VornTable, FollowingReaderHearsEveryChangeInChangeOrderFromItsLoop) {
  auto w = mounted(path, Mode::writer);
  w->entryIs(record(99));
  auto r = mounted(path, Mode::reader);
  Kiv::EventLoop loop;
  r->followIs(&loop);
  Recorder heard(r);
  w->entryIs(record(1));
  w->peerIs({3, 0, 1});
  w->entryIs(record(2));
  w->entryDel(TestKey(1));
  w->entryIs(record(2));  // unchanged: not a change
  ASSERT_TRUE(loop.runUntil([&] { return heard.entries.size() >= 3; }, 5.0));
  loop.runOnce(0.05);
  EXPECT_EQ(heard.entries, (std::vector<TestKey>{TestKey(1), TestKey(2), TestKey(1)}));
  EXPECT_EQ(heard.peers, std::vector<std::uint16_t>{3});
  EXPECT_EQ(r->changesHeard(), 4u);
  r->followIs(nullptr);
  w->entryIs(record(5));
  loop.runOnce(0.05);
  EXPECT_EQ(heard.entries.size(), 3u);
}

TEST_F(VornTable, ReaderBehindAWrappedLogHearsEveryChangedKeyAndNoOther) {
  Vorn::MountOptions options;
  options.logCapacity = 16;
  auto w = mounted(path, Mode::writer, options);
  for (std::uint64_t n = 0; n < 100; ++n) w->entryIs(record(n));
  auto r = mounted(path, Mode::reader);
  Kiv::EventLoop loop;
  r->followIs(&loop);
  Recorder heard(r);
  std::set<TestKey> changed;
  for (std::uint64_t n = 0; n < 50; ++n) w->entryIs(record(n, 2)), changed.insert(TestKey(n));
  for (std::uint64_t n = 50; n < 60; ++n) w->entryDel(TestKey(n)), changed.insert(TestKey(n));
  for (std::uint64_t n = 100; n < 140; ++n) w->entryIs(record(n)), changed.insert(TestKey(n));
  // Changed and changed back: the record differs from what the reader saw
  // only by its stamp; hearing of it is allowed, missing any other is not.
  w->entryIs(record(70, 5));
  w->entryIs(record(70, 1));
  changed.insert(TestKey(70));
  loop.runUntil([&] { return false; }, 0.2);
  EXPECT_GE(r->resyncs(), 1u);
  std::set<TestKey> const got(heard.entries.begin(), heard.entries.end());
  EXPECT_EQ(got, changed);
}

TEST(VornUrl, UrlsMapToSafeFileNamesAndBack) {
  EXPECT_EQ(Vorn::fileNameOfUrl("mfib/default/pim"), "mfib%2Fdefault%2Fpim.vorn");
  EXPECT_EQ(Vorn::urlOfFileName("mfib%2Fdefault%2Fpim.vorn"), "mfib/default/pim");
  EXPECT_EQ(Vorn::urlOfFileName(Vorn::fileNameOfUrl("a b%c/.x")), "a b%c/.x");
  EXPECT_EQ(Vorn::fileNameOfUrl(".hidden"), "%2Ehidden.vorn");
  EXPECT_EQ(Vorn::urlOfFileName("notes.txt"), "");
  auto refused = [](std::string const& url) {
    try {
      Vorn::fileNameOfUrl(url);
    } catch (Kiv::ParseException const& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(refused("/etc/passwd"), "Vorn url '/etc/passwd' is absolute");
  EXPECT_EQ(refused("mfib/../../etc"), "Vorn url 'mfib/../../etc' contains '..'");
  EXPECT_EQ(refused("a//b"), "Vorn url 'a//b' has an empty component");
  EXPECT_EQ(refused(""), "Vorn url is empty");
}

TEST_F(VornTable, AHookMayUnmountItsStatusWhileChangesAreDelivered) {
  auto w = mounted(path, Mode::writer);
  Kiv::EventLoop loop;
  Kiv::Ptr<Vorn::TestStatus> r = mounted(path, Mode::reader);
  r->followIs(&loop);
  struct Unmounter : Vorn::TestStatus::NotifieeConst {
    int heard = 0;
    void onEntry(TestKey const&) override {
      ++heard;
      const_cast<Vorn::TestStatus*>(notifier().ptr())->unmount();
    }
  } unmounter;
  unmounter.notifierIs(r);
  Recorder later(r);
  w->entryIs(record(1));
  w->entryIs(record(2));
  loop.runUntil([&] { return false; }, 0.1);
  EXPECT_EQ(unmounter.heard, 1);
  EXPECT_FALSE(r->mounted());
  EXPECT_EQ(later.entries, std::vector<TestKey>{TestKey(1)});
  r = nullptr;
  w->entryIs(record(3));
  loop.runOnce(0.01);
}
