// A writer killed at each step of its write, index rebuild and adoption
// paths: readers keep answering from what it left, and a fresh writer's
// adoption restores every reader operation.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "VornTestUtil.h"

using namespace VornTest;
using Vorn::TestKey;
using Vorn::TestRecord;
using Mode = Vorn::Status::Mode;

namespace {

char const* const kSteps[] = {
    "insert.entry", "insert.link", "insert.slot", "replace.record", "delete.unlink", "delete.retire", "rebuild.start",
    "rebuild.slot", "log.change",  "adopt.claim", "adopt.scan",     "adopt.head",    "adopt.link",    "adopt.end",
};

// Steps of a growth, reached by the growing workload below.
char const* const kGrowSteps[] = {"grow.reserve", "grow.slots", "grow.publish"};

char const* gTarget = nullptr;
int gAt = 0;
int gHits = 0;

void killAtTarget(char const* step) {
  if (std::strcmp(step, gTarget) == 0 && ++gHits == gAt) raise(SIGKILL);
}

Vorn::MountOptions smallTable() {
  Vorn::MountOptions options;
  options.limit["entry"] = 32;  // 64 hash slots: 17 deletes force a rebuild
  return options;
}

// The child's workload, over keys 0..23 that the parent wrote: replaces,
// inserts up to a full table, then enough deletes to rebuild the slots.
void workload(Vorn::TestStatus& w) {
  for (std::uint64_t n = 0; n < 4; ++n) w.entryIs(record(n, 2));
  for (std::uint64_t n = 100; n < 108; ++n) w.entryIs(record(n));
  for (std::uint64_t n = 4; n < 24; ++n) w.entryDel(TestKey(n));
  w.entryIs(record(4, 3));
}

// A table of 24 records in room for 63, grown by 80 more (to 127), with
// writes to old and new records after the growth.
Vorn::MountOptions growingTable() {
  Vorn::MountOptions options;
  options.limit["entry"] = 500;
  return options;
}
void growingWorkload(Vorn::TestStatus& w) {
  for (std::uint64_t n = 300; n < 380; ++n) w.entryIs(record(n));
  for (std::uint64_t n = 0; n < 4; ++n) w.entryIs(record(n, 2));
  for (std::uint64_t n = 300; n < 310; ++n) w.entryDel(TestKey(n));
}

std::vector<std::uint64_t> const& keySpace() {
  static std::vector<std::uint64_t> const keys = [] {
    std::vector<std::uint64_t> k;
    for (std::uint64_t n = 0; n < 24; ++n) k.push_back(n);
    for (std::uint64_t n = 100; n < 108; ++n) k.push_back(n);
    for (std::uint64_t n = 300; n < 380; ++n) k.push_back(n);
    k.push_back(200);
    return k;
  }();
  return keys;
}

// Every way of reading the table agrees, and every record is whole.
void expectServes(Vorn::TestStatus const& s, std::string const& where) {
  auto const& t = s.entryTable();
  std::set<TestKey> looked;
  for (std::uint64_t n : keySpace()) {
    TestRecord const r = s.entry(TestKey(n));
    if (r == TestRecord()) continue;
    EXPECT_TRUE(r.whole()) << where << ": key " << n;
    EXPECT_EQ(r.key, TestKey(n)) << where;
    looked.insert(TestKey(n));
  }
  std::vector<TestKey> walked;
  Vorn::IterHint hint;
  TestKey k;
  TestRecord r;
  for (bool ok = t.first(k, r, hint); ok; ok = t.next(k, k, r, hint)) walked.push_back(k);
  EXPECT_EQ(walked, std::vector<TestKey>(looked.begin(), looked.end())) << where;
  std::set<TestKey> unordered;
  std::uint32_t pos = 0;
  while (t.unorderedNext(pos, k, r)) unordered.insert(k);
  EXPECT_EQ(unordered, looked) << where;
  EXPECT_EQ(t.size(), looked.size()) << where;
}

class VornKillPoint : public ::testing::Test {
 protected:
  PrivateRoot root;
  std::string path = root.file("t.vorn");
};

void killAtEveryStep(std::string const& path, std::vector<char const*> const& steps, Vorn::MountOptions const& options,
                     void (*work)(Vorn::TestStatus&)) {
  for (char const* step : steps) {
    bool reached = false;
    for (int at : {1, 2, 5}) {
      std::string const where = std::string(step) + " #" + std::to_string(at);
      ::unlink(path.c_str());
      {
        auto w = mounted(path, Mode::writer, options);
        for (std::uint64_t n = 0; n < 24; ++n) w->entryIs(record(n));
      }
      pid_t child = fork();
      if (child == 0) {
        gTarget = step;
        gAt = at;
        Vorn::stepHook = killAtTarget;
        try {
          auto w = mounted(path, Mode::writer, options);
          work(*w);
        } catch (...) {
          _exit(2);
        }
        _exit(0);
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      if (WIFEXITED(status)) {
        ASSERT_EQ(WEXITSTATUS(status), 0) << where;
        continue;  // the step comes fewer times than that
      }
      ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << where;
      reached = true;

      // Before any adoption: lookups answer for every key but the one the
      // writer was in the middle of, and while the indexes were being
      // rebuilt, ordered walks answer too.
      {
        auto r = mounted(path, Mode::reader);
        int failed = 0;
        for (std::uint64_t n : keySpace()) {
          try {
            TestRecord const rec = r->entry(TestKey(n));
            EXPECT_TRUE(rec == TestRecord() || rec.whole()) << where;
          } catch (Pelto::CorruptionDetectedException const&) {
            ++failed;
          }
        }
        EXPECT_LE(failed, 1) << where;
        auto const& t = r->entryTable();
        bool const rebuilding = t.capacity() && (r->region()->table(0).control->structGen.load() & 1);
        // A walk that completes and the lookups disagree on at most the one
        // key the writer was in the middle of, and size() on at most one.
        std::set<TestKey> walked, looked;
        bool walkedThrough = false;
        try {
          Vorn::IterHint hint;
          TestKey k;
          TestRecord rec;
          for (bool ok = t.first(k, rec, hint); ok; ok = t.next(k, k, rec, hint)) walked.insert(k);
          walkedThrough = true;
        } catch (Pelto::CorruptionDetectedException const&) {
          EXPECT_FALSE(rebuilding) << where << ": walks answer while the indexes were being rebuilt";
        }
        for (std::uint64_t n : keySpace()) {
          try {
            if (r->entry(TestKey(n)) != TestRecord()) looked.insert(TestKey(n));
          } catch (Pelto::CorruptionDetectedException const&) {
          }
        }
        if (walkedThrough) {
          std::vector<TestKey> differ;
          std::set_symmetric_difference(walked.begin(), walked.end(), looked.begin(), looked.end(),
                                        std::back_inserter(differ));
          EXPECT_LE(differ.size() + std::size_t(failed), 1u) << where;
          EXPECT_LE(std::max(t.size(), std::uint32_t(walked.size())) - std::min(t.size(), std::uint32_t(walked.size())),
                    1u)
              << where;
        }
      }

      auto w = mounted(path, Mode::writer, options);
      expectServes(*w, where + ", writer");
      auto r = mounted(path, Mode::reader);
      expectServes(*r, where + ", reader");
      // The adopted table takes writes again, and a second adoption is clean.
      w->entryDel(TestKey(0));
      w->entryIs(record(200));
      expectServes(*r, where + ", after new writes");
      w = nullptr;
      auto w2 = mounted(path, Mode::writer, options);
      expectServes(*w2, where + ", second adoption");
      // It still grows to its limit after the adoption.
      std::uint32_t const limit = w2->entryTable().limit();
      for (std::uint64_t n = 1000; w2->entryTable().size() < limit; ++n) w2->entryIs(record(n));
      EXPECT_EQ(w2->entryTable().capacity(), limit) << where;
      EXPECT_THROW(w2->entryIs(record(999)), Kiv::RangeException) << where;
    }
    EXPECT_TRUE(reached) << "the writer never reached step " << step;
  }
}

}  // namespace

TEST_F(VornKillPoint, EveryReaderOperationWorksAfterAWriterKilledAtAnyStepIsAdopted) {
  killAtEveryStep(path, std::vector<char const*>(std::begin(kSteps), std::end(kSteps)), smallTable(), workload);
}

TEST_F(VornKillPoint, AWriterKilledAtAnyStepOfAGrowthIsAdoptedLikeAnyOther) {
  killAtEveryStep(path, std::vector<char const*>(std::begin(kGrowSteps), std::end(kGrowSteps)), growingTable(),
                  growingWorkload);
}

// Killed while making a new region: the table is not there yet, and the
// next writer makes it and leaves nothing of the first behind.
TEST_F(VornKillPoint, AWriterKilledWhileMakingItsRegionLeavesNothingBehind) {
  pid_t child = fork();
  if (child == 0) {
    gTarget = "create.rename";
    gAt = 1;
    Vorn::stepHook = killAtTarget;
    mounted(path, Mode::writer, smallTable());
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  std::string const leftover = path + ".tmp." + std::to_string(child);
  EXPECT_EQ(access(leftover.c_str(), F_OK), 0);
  auto w = mounted(path, Mode::writer, smallTable());
  w->entryIs(record(1));
  EXPECT_NE(access(leftover.c_str(), F_OK), 0);
  expectServes(*w, "after a killed create");
}
