#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Brisklog/Layout.h"
#include "Brisklog/Reader.h"
#include "TraceDir.h"

namespace {

using Brisklog::Arg;
using Brisklog::Reader;
using Brisklog::Record;
using Brisklog::Test::TraceDir;

Arg integer(std::int64_t v) {
  Arg a;
  a.kind = 'd';
  a.i = v;
  return a;
}

Arg text(std::string s) {
  Arg a;
  a.kind = 's';
  a.bytes = std::move(s);
  return a;
}

TEST(BrisklogFormat, ConversionsFollowPrintfAndToleratePoorFormats) {
  using Brisklog::formatText;
  EXPECT_EQ(formatText("[%5d|%-4s|%x|%%|%08.3f]",
                       {integer(42), text("ab"), integer(255),
                        [] {
                          Arg f;
                          f.kind = 'f';
                          f.f = 3.14159;
                          return f;
                        }()},
                       false),
            "[   42|ab  |ff|%|0003.142]");
  // The argument's own kind wins over a conversion that disagrees with it.
  EXPECT_EQ(formatText("%d and %s", {text("eth1"), integer(-3)}, false), "eth1 and -3");
  // Arguments without a place follow; places without an argument say so.
  EXPECT_EQ(formatText("handleMfibDir", {text("app"), integer(2)}, false), "handleMfibDir app 2");
  EXPECT_EQ(formatText("%s then %s", {text("one")}, false), "one then <missing>");
  EXPECT_EQ(formatText("%s then %s", {text("one")}, true), "one then [truncated]");
  // A conversion that would write, an unknown one and a dangling % are text.
  EXPECT_EQ(formatText("%n%y 100%", {integer(1)}, false), "%n%y 100% 1");
  // Absurd widths from a damaged descriptor are bounded.
  EXPECT_EQ(formatText("%999999999d", {integer(1)}, false).size(), 4096u);
}

// A finished trace file of 300 records "seq N <name>" as bytes.
struct SampleFile {
  std::string path;
  std::vector<char> bytes;
};

// Written by a child that has exited, as an operator finds it after a crash.
SampleFile sample(TraceDir const&) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  pid_t child = fork();
  if (child == 0) {
    for (int i = 0; i < 300; ++i) BRISKLOG("Sample", "seq %d %s", i, "Ethernet1");
    std::string p = Brisklog::path();
    _exit(write(fds[1], p.data(), p.size()) == ssize_t(p.size()) ? 0 : 1);
  }
  ::close(fds[1]);
  char buf[512];
  ssize_t n = ::read(fds[0], buf, sizeof buf);
  ::close(fds[0]);
  waitpid(child, nullptr, 0);
  SampleFile s;
  s.path.assign(buf, n > 0 ? std::size_t(n) : 0);
  std::ifstream in(s.path, std::ios::binary);
  s.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return s;
}

void rewrite(std::string const& path, std::vector<char> const& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
}

std::vector<std::int64_t> sequence(std::vector<Record> const& records) {
  std::vector<std::int64_t> out;
  for (Record const& r : records) out.push_back(r.args.empty() ? -1 : r.args[0].i);
  return out;
}

constexpr std::size_t kFirstRecord = Brisklog::kHeaderBytes + (64u << 10) + Brisklog::kRingHeaderBytes;

TEST(BrisklogDamage, GarbageInsideTheRingIsReportedAndTheRestDecodes) {
  TraceDir dir;
  SampleFile s = sample(dir);
  std::mt19937 rng(7);
  std::size_t const at = kFirstRecord + 100 * 48;  // records of this sample are 48 bytes
  for (std::size_t i = 0; i < 100; ++i) s.bytes[at + i] = char(rng());
  rewrite(s.path, s.bytes);

  Reader reader(s.path);
  std::vector<std::int64_t> seq = sequence(reader.read());
  ASSERT_FALSE(reader.problems().empty());
  EXPECT_NE(reader.problems()[0].find("hold no record"), std::string::npos) << reader.problems()[0];
  EXPECT_EQ(seq.front(), 0);
  EXPECT_EQ(seq.back(), 299);
  EXPECT_GE(seq.size(), 296u);
  EXPECT_LT(seq.size(), 300u);
}

TEST(BrisklogDamage, DamagedCallSiteIsReportedWithTheRecordsThatNeedIt) {
  TraceDir dir;
  SampleFile s = sample(dir);
  s.bytes[Brisklog::kHeaderBytes + 20] ^= 0x5a;  // inside the first descriptor's texts
  s.bytes[Brisklog::kHeaderBytes] ^= 0x01;       // and its commit stamp
  rewrite(s.path, s.bytes);

  Reader reader(s.path);
  EXPECT_TRUE(reader.read().empty());
  ASSERT_GE(reader.problems().size(), 2u);
  EXPECT_NE(reader.problems()[0].find("descriptor table damaged"), std::string::npos);
  EXPECT_NE(reader.problems()[1].find("which the descriptor table lacks"), std::string::npos);
}

TEST(BrisklogDamage, TruncatedFileDecodesWhatRemains) {
  TraceDir dir;
  SampleFile s = sample(dir);
  s.bytes.resize(kFirstRecord + 150 * 48 + 20);
  rewrite(s.path, s.bytes);

  Reader reader(s.path);
  std::vector<std::int64_t> seq = sequence(reader.read());
  ASSERT_EQ(seq.size(), 150u);
  EXPECT_EQ(seq.back(), 149);
  ASSERT_FALSE(reader.problems().empty());
  EXPECT_NE(reader.problems()[0].find("file truncated"), std::string::npos);
}

// A file cut short while it is mapped, under the reader and under the
// writer: both live on, the reader says so, the writer's later records are
// lost.
TEST(BrisklogDamage, TruncationUnderAMappedFileKillsNeitherReaderNorWriter) {
  TraceDir dir(1u << 16, 1);
  for (int i = 0; i < 100; ++i) BRISKLOG("Cut", "record %d", i);
  std::string const path = Brisklog::path();
  Reader reader(path);
  ASSERT_EQ(reader.read().size(), 100u);
  pid_t child = fork();
  if (child == 0) {
    // The writer's own file, cut short under its mapping.
    BRISKLOG("Cut", "record %d", 0);
    if (truncate(Brisklog::path().c_str(), 4096) != 0) _exit(2);
    for (int i = 0; i < 5000; ++i) BRISKLOG("Cut", "record %d", i);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer died, status " << status;
  for (int i = 0; i < 5000; ++i) BRISKLOG("Cut", "record %d", i);
  ASSERT_EQ(truncate(path.c_str(), 4096), 0);
  EXPECT_TRUE(reader.read().empty());
  ASSERT_FALSE(reader.problems().empty());
  EXPECT_NE(reader.problems().back().find("truncated while being read"), std::string::npos);
  EXPECT_FALSE(reader.writerAlive());
}

// A head moved back, or on by a lap or more, or to no record position at
// all: the ring's records still decode, and the damage is reported by ring.
TEST(BrisklogDamage, ADamagedRingHeadIsReportedAndItsRecordsStillDecode) {
  TraceDir dir;
  SampleFile s = sample(dir);
  std::size_t const headAt = kFirstRecord - Brisklog::kRingHeaderBytes;
  std::uint64_t const head = 300 * 48, lap = 64u << 10;
  for (std::uint64_t damaged : {std::uint64_t(0), std::uint64_t(48 * 100), head + lap, head + lap / 2 + 8,
                                head + (std::uint64_t(1) << 40), head + 3, std::uint64_t(1) << 63}) {
    std::vector<char> bytes = s.bytes;
    std::memcpy(bytes.data() + headAt, &damaged, 8);
    rewrite(s.path, bytes);
    Reader reader(s.path);
    std::vector<std::int64_t> seq = sequence(reader.read());
    ASSERT_EQ(seq.size(), 300u) << damaged << " " << (reader.problems().empty() ? "" : reader.problems()[0]);
    EXPECT_EQ(seq.back(), 299);
    ASSERT_EQ(reader.problems().size(), 1u) << damaged;
    EXPECT_EQ(reader.problems()[0].rfind("ring 0: head position " + std::to_string(damaged) + " is damaged: it ", 0),
              0u)
        << reader.problems()[0];
    EXPECT_NE(reader.problems()[0].find("records read up to position " + std::to_string(head)), std::string::npos)
        << reader.problems()[0];
  }
  // A head that runs less than half a ring ahead of the records is what
  // writers stopped mid-record leave: no damage.
  std::vector<char> bytes = s.bytes;
  std::uint64_t const unfinished = head + 200;
  std::memcpy(bytes.data() + headAt, &unfinished, 8);
  rewrite(s.path, bytes);
  Reader reader(s.path);
  EXPECT_EQ(sequence(reader.read()).size(), 300u);
  EXPECT_TRUE(reader.problems().empty()) << reader.problems()[0];
}

// A process killed while one of the threads sharing a ring was mid-record
// leaves that record unfinished among finished ones: a note, not damage.
std::atomic<bool> gHeld{false};
void holdForever(int) {
  gHeld = true;
  for (;;) pause();
}

TEST(BrisklogDamage, AKilledWritersUnfinishedSharedRecordIsANoteNotDamage) {
  TraceDir dir(1u << 16, 1);
  bool noted = false;
  for (int round = 0; round < 40 && !noted; ++round) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    if (child == 0) {
      signal(SIGUSR1, holdForever);
      BRISKLOG("Shared", "start %d", 0);
      std::string p = Brisklog::path();
      [[maybe_unused]] ssize_t n = write(fds[1], p.data(), p.size());
      std::atomic<bool> going{false};
      std::thread late([&] {
        char text[151];
        std::memset(text, 'x', 150);
        text[150] = '\0';
        for (int i = 0;; ++i) {
          BRISKLOG("Shared", "late %d %s", i, static_cast<char const*>(text));
          going = true;
        }
      });
      while (!going) std::this_thread::yield();
      pthread_kill(late.native_handle(), SIGUSR1);
      while (!gHeld) std::this_thread::yield();
      for (int i = 0; i < 50; ++i) BRISKLOG("Shared", "after %d", i);
      raise(SIGKILL);
    }
    ::close(fds[1]);
    char buf[512];
    ssize_t n = ::read(fds[0], buf, sizeof buf);
    ::close(fds[0]);
    waitpid(child, nullptr, 0);
    std::string const path(buf, n > 0 ? std::size_t(n) : 0);
    Reader reader(path);
    std::vector<Record> records = reader.read();
    EXPECT_TRUE(reader.problems().empty()) << reader.problems()[0];
    for (std::string const& note : reader.notes())
      noted = noted || note.find("was never finished") != std::string::npos;
    unlink(path.c_str());
  }
  EXPECT_TRUE(noted);
}

TEST(BrisklogDamage, HeaderDamageMakesTheFileUnusableWithAReason) {
  TraceDir dir;
  SampleFile s = sample(dir);
  std::vector<char> bad = s.bytes;
  std::uint32_t rings = 1000;
  std::memcpy(bad.data() + offsetof(Brisklog::FileLayout, ringCount), &rings, sizeof rings);
  rewrite(s.path, bad);
  Reader tooManyRings(s.path);
  EXPECT_FALSE(tooManyRings.usable());
  EXPECT_TRUE(tooManyRings.read().empty());
  ASSERT_EQ(tooManyRings.problems().size(), 2u);
  EXPECT_EQ(tooManyRings.problems()[0], "header checksum mismatch: the header is damaged");
  EXPECT_EQ(tooManyRings.problems()[1], "header damaged: ringCount = 1000");

  rewrite(s.path, std::vector<char>(5000, 'x'));
  Reader notTrace(s.path);
  EXPECT_FALSE(notTrace.usable());
  EXPECT_NE(notTrace.problems().at(0).find("bad magic"), std::string::npos);

  Reader missing(dir.dir() + "/none.brisklog");
  EXPECT_FALSE(missing.usable());
  EXPECT_NE(missing.problems().at(0).find("cannot open"), std::string::npos);
}

// Random damage anywhere, including the header and the ring heads, at any
// length: the reader must neither crash nor hang, and what it returns is
// in time order.
TEST(BrisklogDamage, RandomDamageAndTruncationNeverCrashOrHang) {
  TraceDir dir;
  SampleFile s = sample(dir);
  std::mt19937 rng(12345);
  auto const start = std::chrono::steady_clock::now();
  for (int round = 0; round < 300; ++round) {
    std::vector<char> bytes = s.bytes;
    int flips = 1 + int(rng() % 64);
    for (int i = 0; i < flips; ++i) {
      // Half the damage lands in the header and the descriptors, where it hurts most.
      std::size_t span = (rng() & 1) ? 8192 : bytes.size();
      bytes[rng() % span] = char(rng());
    }
    if (round % 3 == 0) bytes.resize(rng() % bytes.size());
    rewrite(s.path, bytes);
    Reader reader(s.path);
    std::vector<Record> records = reader.read();
    for (std::size_t i = 1; i < records.size(); ++i) ASSERT_LE(records[i - 1].ticks, records[i].ticks);
    for (Record const& r : records) (void)r.text();
    if (!reader.usable()) {
      EXPECT_FALSE(reader.problems().empty());
    }
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

}  // namespace
