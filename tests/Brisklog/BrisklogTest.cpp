#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Brisklog/Reader.h"
#include "Kiv/Name.h"
#include "TraceDir.h"

namespace {

using Brisklog::Reader;
using Brisklog::Record;
using Brisklog::Test::TraceDir;

std::int64_t realNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::vector<std::string> texts(std::vector<Record> const& records) {
  std::vector<std::string> out;
  for (Record const& r : records) out.push_back(r.text());
  return out;
}

// The first integer argument of each record, in the order read.
std::vector<std::uint64_t> sequence(std::vector<Record> const& records) {
  std::vector<std::uint64_t> out;
  for (Record const& r : records)
    if (!r.args.empty()) out.push_back(r.args[0].kind == 'd' ? std::uint64_t(r.args[0].i) : r.args[0].u);
  return out;
}

bool consecutive(std::vector<std::uint64_t> const& seq) {
  for (std::size_t i = 1; i < seq.size(); ++i)
    if (seq[i] != seq[i - 1] + 1) return false;
  return true;
}

enum class Role : std::uint8_t { oif = 5 };

}  // namespace

// A value type of another library takes part through brisklogArg.
namespace Elsewhere {
struct GroupAddr {
  std::uint32_t hostOrder;
};
inline Brisklog::Addr brisklogArg(GroupAddr const& g) { return Brisklog::Addr::v4(g.hostOrder); }
}  // namespace Elsewhere

namespace {

TEST(BrisklogRoundTrip, EveryArgumentKindDecodesWithItsCallSite) {
  TraceDir dir;
  in6_addr v6;
  inet_pton(AF_INET6, "ff02::1:ff00:1", &v6);
  std::uint8_t const raw4[4] = {192, 0, 2, 7};
  std::string intf = "Ethernet4";
  std::string_view vrf = "red";
  char const* app = "mfibApp";
  Kiv::Name name("default");
  std::int64_t const before = realNs();
  int const line = __LINE__ + 1;
  BRISKLOG("RouteIntfIteratorConst",
           "i8=%d u16=%u min=%lld max=%llu b=%s c=%c f=%.3f p=%p v4=%s raw=%s v6=%s s=%s sv=%s cs=%s "
           "name=%s role=%d",
           std::int8_t(-5), std::uint16_t(65535), INT64_MIN, UINT64_MAX, true, 'x', 0.25,
           reinterpret_cast<void*>(0x1234), Brisklog::Addr::v4(0x0a010203),
           Brisklog::Addr(std::span<std::uint8_t const, 4>(raw4)), Brisklog::Addr(v6), intf, vrf, app, name, Role::oif);
  BRISKLOG("MfibDirSm", "handleInitialized, Initializing... grp %s", Elsewhere::GroupAddr{0xe0000001});
  std::int64_t const after = realNs();

  Reader reader(Brisklog::path());
  std::vector<Record> records = reader.read();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text(),
            "i8=-5 u16=65535 min=-9223372036854775808 max=18446744073709551615 b=true c=x "
            "f=0.250 p=0x1234 v4=10.1.2.3 raw=192.0.2.7 v6=ff02::1:ff00:1 s=Ethernet4 sv=red "
            "cs=mfibApp name=default role=5");
  EXPECT_EQ(records[0].source(), "RouteIntfIteratorConst");
  ASSERT_NE(records[0].descriptor, nullptr);
  EXPECT_EQ(records[0].descriptor->file, "BrisklogTest.cpp");
  EXPECT_EQ(records[0].descriptor->function, "TestBody");
  EXPECT_EQ(records[0].descriptor->line, std::uint32_t(line));
  EXPECT_EQ(records[1].text(), "handleInitialized, Initializing... grp 224.0.0.1");
  EXPECT_EQ(records[1].source(), "MfibDirSm");
  // Ticks become wall time through the calibration kept in the file.
  EXPECT_GE(records[0].wallNs, before - 1000000);
  EXPECT_LE(records[1].wallNs, after + 1000000);
  EXPECT_LE(records[0].wallNs, records[1].wallNs);
  EXPECT_TRUE(reader.problems().empty()) << reader.problems().front();
  EXPECT_EQ(reader.info().pid, std::uint32_t(getpid()));
}

TEST(BrisklogRoundTrip, MonotonicClockGivesWallTimesToo) {
  TraceDir dir;
  Brisklog::Config c = Brisklog::config();
  c.useTsc = false;
  Brisklog::configIs(c);
  std::int64_t const before = realNs();
  BRISKLOG("Clock", "one");
  usleep(2000);
  BRISKLOG("Clock", "two");
  std::int64_t const after = realNs();
  Reader reader(Brisklog::path());
  std::vector<Record> records = reader.read();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_FALSE(reader.info().tsc);
  EXPECT_GE(records[0].wallNs, before - 1000000);
  EXPECT_LE(records[1].wallNs, after + 1000000);
  EXPECT_GE(records[1].wallNs - records[0].wallNs, 2000000);
}

TEST(BrisklogRoundTrip, OversizedStringsAndRecordsAreCutVisibly) {
  // 4 KiB rings allow records of 1 KiB; strings are cut at 200 bytes.
  TraceDir dir(4096, 1);
  std::string const longText(300, 'a');
  std::string const piece(200, 'b');
  BRISKLOG("Cut", "name=%s", longText);
  BRISKLOG("Cut", "%s|%s|%s|%s|%s|%s", piece, piece, piece, piece, piece, piece);
  BRISKLOG("Cut", "after %d", 7);

  Reader reader(Brisklog::path());
  std::vector<Record> records = reader.read();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].text(), "name=" + std::string(200, 'a') + "[cut]");
  EXPECT_FALSE(records[0].truncated);
  // Four strings of 202 bytes fit in 1 KiB beside the header; the rest do not.
  EXPECT_TRUE(records[1].truncated);
  EXPECT_EQ(records[1].args.size(), 4u);
  EXPECT_EQ(records[1].text(), piece + "|" + piece + "|" + piece + "|" + piece + "|[truncated]|[truncated]");
  EXPECT_EQ(records[2].text(), "after 7");
  EXPECT_TRUE(reader.problems().empty());
}

TEST(BrisklogRing, WrapAroundKeepsTheNewestRecordsInOrder) {
  TraceDir dir(4096, 1);
  // Records of varying size, so that laps end in padding at varying places.
  std::string const filler(60, 'z');
  for (std::uint32_t i = 0; i < 5000; ++i) BRISKLOG("Wrap", "seq %u %s", i, std::string_view(filler).substr(0, i % 61));

  Reader reader(Brisklog::path());
  std::vector<Record> records = reader.read();
  std::vector<std::uint64_t> seq = sequence(records);
  ASSERT_GE(seq.size(), 40u);
  EXPECT_EQ(seq.back(), 4999u);
  EXPECT_TRUE(consecutive(seq));
  EXPECT_TRUE(reader.problems().empty()) << reader.problems().front();
}

TEST(BrisklogRing, FollowingReaderGetsEachRecordOnceAndNotesWhatItMissed) {
  TraceDir dir(4096, 1);
  for (int i = 0; i < 3; ++i) BRISKLOG("Follow", "n %d", i);
  Reader reader(Brisklog::path());
  EXPECT_EQ(sequence(reader.read()), (std::vector<std::uint64_t>{0, 1, 2}));
  EXPECT_TRUE(reader.read().empty());
  for (int i = 3; i < 5; ++i) BRISKLOG("Follow", "n %d", i);
  EXPECT_EQ(sequence(reader.read()), (std::vector<std::uint64_t>{3, 4}));

  for (int i = 5; i < 2000; ++i) BRISKLOG("Follow", "n %d", i);
  std::vector<std::uint64_t> seq = sequence(reader.read());
  ASSERT_FALSE(seq.empty());
  EXPECT_EQ(seq.back(), 1999u);
  EXPECT_TRUE(consecutive(seq));
  ASSERT_EQ(reader.notes().size(), 1u);
  EXPECT_NE(reader.notes()[0].find("overwritten before they were read"), std::string::npos);
  EXPECT_TRUE(reader.problems().empty());
}

TEST(BrisklogRing, ThreadsBeyondTheExclusiveRingsShareOneWithoutLoss) {
  // One exclusive ring and one shared by every other thread.
  TraceDir dir(1u << 20, 2);
  constexpr int kThreads = 4;
  constexpr int kPerThread = 3000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) BRISKLOG("Threads", "%d %d", i, t);
    });
  }
  for (std::thread& th : threads) th.join();

  Reader reader(Brisklog::path());
  std::map<std::int64_t, std::vector<std::uint64_t>> perThread;
  for (Record const& r : reader.read()) perThread[r.args[1].i].push_back(std::uint64_t(r.args[0].i));
  ASSERT_EQ(perThread.size(), std::size_t(kThreads));
  for (auto const& [t, seq] : perThread) {
    EXPECT_EQ(seq.size(), std::size_t(kPerThread)) << "thread " << t;
    EXPECT_TRUE(consecutive(seq)) << "thread " << t;
  }
  EXPECT_TRUE(reader.problems().empty()) << reader.problems().front();
}

// A reader following writers that lap it again and again must never return
// a record mixed from two, nor call a lapped region damage.
TEST(BrisklogRing, ReaderRacingWritersGetsOnlyWholeRecords) {
  TraceDir dir(4096, 1);  // one shared ring: both writers reserve by compare-and-swap
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  for (std::uint64_t t = 0; t < 2; ++t) {
    writers.emplace_back([t, &done] {
      for (std::uint64_t i = 0; i < 40000; ++i) {
        // Bursts of about half a ring, so that the reader sometimes keeps up.
        if (i % 48 == 0) usleep(20);
        std::uint64_t check = i * 7919 + t;
        BRISKLOG("Race", "%llu %llu %llu %s", static_cast<unsigned long long>(i), static_cast<unsigned long long>(t),
                 static_cast<unsigned long long>(check), i % 2 ? "odd" : "even-numbered");
      }
      done = true;
    });
  }
  while (Brisklog::path().empty()) std::this_thread::yield();
  Reader reader(Brisklog::path());
  std::map<std::uint64_t, std::uint64_t> next;  // per writer: lowest sequence not yet seen
  std::size_t seen = 0;
  bool last = false;
  while (!last) {
    last = done;
    for (Record const& r : reader.read()) {
      ASSERT_EQ(r.args.size(), 4u);
      std::uint64_t i = r.args[0].u, t = r.args[1].u;
      ASSERT_EQ(r.args[2].u, i * 7919 + t);
      ASSERT_EQ(r.args[3].bytes, i % 2 ? "odd" : "even-numbered");
      ASSERT_GE(i, next[t]) << "writer " << t << " went back";
      next[t] = i + 1;
      ++seen;
    }
  }
  for (std::thread& w : writers) w.join();
  EXPECT_GT(seen, 0u);
  EXPECT_TRUE(reader.problems().empty()) << reader.problems().front();
}

// A writer stopped at any instruction (here by a signal whose handler waits)
// while the other threads lap a shared ring, then let go: whatever it was
// writing must come out whole or be reported lost, and never leave its bytes
// inside a newer record that is then printed as valid.
std::atomic<bool> gLateHeld{false};
std::atomic<bool> gLateRelease{false};
void holdLateWriter(int) {
  gLateHeld = true;
  while (!gLateRelease) sched_yield();
}

// Allocates nothing: the held thread may be stopped anywhere, and another
// thread must not wait for a lock it holds.
void writeCheckedRecord(std::uint64_t i, std::uint64_t t) {
  char text[151];
  std::size_t const n = i % 3 == 0 ? 150 : 3;
  std::memset(text, 'a' + int((i + t) % 26), n);
  text[n] = '\0';
  BRISKLOG("Late", "%llu %llu %llu %s", static_cast<unsigned long long>(i), static_cast<unsigned long long>(t),
           static_cast<unsigned long long>(i * 7919 + t), static_cast<char const*>(text));
}

TEST(BrisklogRing, AWriterStoppedMidRecordNeverLeavesForeignBytesInAnother) {
  TraceDir dir(4096, 1);  // every thread shares the one ring
  struct sigaction sa {};
  sa.sa_handler = holdLateWriter;
  struct sigaction old {};
  ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
  writeCheckedRecord(0, 0);
  std::size_t lost = 0;
  for (std::uint64_t round = 0; round < 40; ++round) {
    gLateHeld = false;
    gLateRelease = false;
    std::atomic<bool> stop{false};
    std::atomic<bool> started{false};
    std::thread late([&] {
      for (std::uint64_t i = 0; !stop; ++i) {
        writeCheckedRecord(i, 1);
        started = true;
      }
    });
    while (!started) std::this_thread::yield();
    pthread_kill(late.native_handle(), SIGUSR1);
    while (!gLateHeld) std::this_thread::yield();
    for (std::uint64_t i = 0; i < 120; ++i) writeCheckedRecord(i + round, 2);
    stop = true;
    gLateRelease = true;
    late.join();

    Reader reader(Brisklog::path());
    for (Record const& r : reader.read()) {
      ASSERT_EQ(r.args.size(), 4u) << r.text();
      std::uint64_t i = r.args[0].u, t = r.args[1].u;
      ASSERT_EQ(r.args[2].u, i * 7919 + t) << "round " << round << ": " << r.text();
      ASSERT_EQ(r.args[3].bytes, std::string(i % 3 == 0 ? 150 : 3, char('a' + (i + t) % 26)))
          << "round " << round << ": " << r.text();
    }
    lost += reader.notes().size();
    EXPECT_TRUE(reader.problems().empty()) << "round " << round << ": " << reader.problems()[0];
  }
  sigaction(SIGUSR1, &old, nullptr);
  // Some rounds stopped the writer inside a record, and the loss was said.
  EXPECT_GT(lost, 0u);
}

// Threads sharing a ring, each of them now and then stopped for a while
// (here by a signal whose handler spins for 0.3 ms, as a preemption would),
// often in the middle of a record while the others go round the ring: no
// record may be lost for it.
std::atomic<int> gPreempted{0};
void preempt(int) {
  timespec start, now;
  clock_gettime(CLOCK_MONOTONIC, &start);
  do clock_gettime(CLOCK_MONOTONIC, &now);
  while ((now.tv_sec - start.tv_sec) * 1000000000 + (now.tv_nsec - start.tv_nsec) < 300000);
  gPreempted.fetch_add(1);
}

TEST(BrisklogRing, AThreadPreemptedMidRecordLosesNoRecordOfTheThreadsSharingItsRing) {
  TraceDir dir(1u << 14, 1);  // one ring, shared by all
  struct sigaction sa {};
  sa.sa_handler = preempt;
  sa.sa_flags = SA_RESTART;
  struct sigaction old {};
  ASSERT_EQ(sigaction(SIGUSR2, &sa, &old), 0);
  constexpr int kThreads = 3;
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t, &stop] {
      for (std::uint64_t i = 0; !stop; ++i) writeCheckedRecord(i, std::uint64_t(t));
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  for (int n = 0; n < 400; ++n) {
    pthread_kill(writers[std::size_t(n) % kThreads].native_handle(), SIGUSR2);
    std::this_thread::sleep_for(std::chrono::microseconds(750));
  }
  stop = true;
  for (std::thread& w : writers) w.join();
  sigaction(SIGUSR2, &old, nullptr);

  Reader reader(Brisklog::path());
  std::map<std::uint64_t, std::vector<std::uint64_t>> perThread;
  for (Record const& r : reader.read()) {
    ASSERT_EQ(r.args.size(), 4u) << r.text();
    ASSERT_EQ(r.args[2].u, r.args[0].u * 7919 + r.args[1].u) << r.text();
    perThread[r.args[1].u].push_back(r.args[0].u);
  }
  EXPECT_GT(gPreempted.load(), 200);
  for (auto const& [t, seq] : perThread) EXPECT_TRUE(consecutive(seq)) << "thread " << t;
  EXPECT_TRUE(reader.problems().empty()) << reader.problems()[0];
  EXPECT_TRUE(reader.notes().empty()) << reader.notes()[0];
}

TEST(BrisklogRing, AThreadsRingIsFreedForTheNextWhenItEnds) {
  TraceDir dir(1u << 16, 2);
  for (int t = 0; t < 3; ++t) std::thread([t] { BRISKLOG("Turns", "thread %d", t); }).join();
  Reader reader(Brisklog::path());
  std::vector<Record> records = reader.read();
  ASSERT_EQ(records.size(), 3u);
  for (Record const& r : records) EXPECT_EQ(r.ring, 0u) << r.text();  // never the shared ring 1
}

template <int N>
void distinctCallSite() {
  BRISKLOG("Many", "call site number %d with a format long enough to fill the table", N);
}

template <int... N>
void everyCallSite(std::integer_sequence<int, N...>) {
  (distinctCallSite<N>(), ...);
}

TEST(BrisklogRing, CallSitesBeyondTheDescriptorTableStillLeaveVisibleRecords) {
  TraceDir dir(1u << 16, 2, 200, 4096);
  everyCallSite(std::make_integer_sequence<int, 80>());
  Reader reader(Brisklog::path());
  std::vector<Record> records = reader.read();
  ASSERT_EQ(records.size(), 80u);
  EXPECT_EQ(records.front().text(), "call site number 0 with a format long enough to fill the table");
  EXPECT_EQ(records.back().text(), "<record of a call site that found the descriptor table full>");
  EXPECT_GT(reader.info().descriptorOverflows, 0u);
  EXPECT_FALSE(reader.notes().empty());
}

TEST(BrisklogProcess, ForkedChildWritesItsOwnFile) {
  TraceDir dir;
  BRISKLOG("Parent", "before fork %d", 1);
  std::string const parentPath = Brisklog::path();
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t child = fork();
  if (child == 0) {
    BRISKLOG("Child", "in child %d", 2);
    std::string p = Brisklog::path();
    ssize_t n = write(fds[1], p.data(), p.size());
    _exit(n == ssize_t(p.size()) ? 0 : 1);
  }
  ::close(fds[1]);
  BRISKLOG("Parent", "after fork %d", 3);
  char buf[512];
  ssize_t n = ::read(fds[0], buf, sizeof buf);
  ::close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_GT(n, 0);
  std::string const childPath(buf, std::size_t(n));
  ASSERT_NE(childPath, parentPath);
  EXPECT_NE(childPath.find("-" + std::to_string(child) + ".brisklog"), std::string::npos);

  Reader parent(parentPath);
  EXPECT_EQ(texts(parent.read()), (std::vector<std::string>{"before fork 1", "after fork 3"}));
  Reader fromChild(childPath);
  EXPECT_EQ(fromChild.info().pid, std::uint32_t(child));
  EXPECT_EQ(texts(fromChild.read()), (std::vector<std::string>{"in child 2"}));
}

// Forks a writer that reports how many records it has committed, then is
// killed while it keeps writing (or while it sleeps).
struct KilledWriter {
  std::string path;
  std::uint64_t committedBeforeReport = 0;
};

KilledWriter killWriter(bool keepWriting) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  pid_t child = fork();
  if (child == 0) {
    ::close(fds[0]);
    std::uint64_t i = 0;
    for (; i < 500; ++i) BRISKLOG("Killed", "n %llu", static_cast<unsigned long long>(i));
    std::string msg = Brisklog::path() + "\n" + std::to_string(i);
    if (write(fds[1], msg.data(), msg.size()) != ssize_t(msg.size())) _exit(1);
    for (;;) {
      if (keepWriting)
        BRISKLOG("Killed", "n %llu", static_cast<unsigned long long>(i++));
      else
        pause();
    }
  }
  ::close(fds[1]);
  char buf[512];
  ssize_t n = ::read(fds[0], buf, sizeof buf);
  ::close(fds[0]);
  usleep(20000);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  KilledWriter w;
  std::string msg(buf, n > 0 ? std::size_t(n) : 0);
  w.path = msg.substr(0, msg.find('\n'));
  w.committedBeforeReport = std::stoull(msg.substr(msg.find('\n') + 1));
  return w;
}

TEST(BrisklogProcess, SigkilledWriterLeavesEveryCommittedRecord) {
  TraceDir dir(1u << 16, 2);
  KilledWriter idle = killWriter(false);
  Reader reader(idle.path);
  std::vector<std::uint64_t> seq = sequence(reader.read());
  ASSERT_EQ(seq.size(), idle.committedBeforeReport);
  EXPECT_EQ(seq.front(), 0u);
  EXPECT_TRUE(consecutive(seq));
  EXPECT_TRUE(reader.problems().empty());
  EXPECT_FALSE(reader.writerAlive());
}

TEST(BrisklogProcess, WriterKilledMidStreamLeavesAnUnbrokenTail) {
  TraceDir dir(1u << 16, 2);
  KilledWriter busy = killWriter(true);
  Reader reader(busy.path);
  std::vector<std::uint64_t> seq = sequence(reader.read());
  ASSERT_FALSE(seq.empty());
  EXPECT_GE(seq.back() + 1, busy.committedBeforeReport);
  EXPECT_TRUE(consecutive(seq));
  // At most the record being written when the kill came is incomplete.
  EXPECT_TRUE(reader.problems().empty()) << reader.problems().front();
  EXPECT_LE(reader.notes().size(), 1u);
}

TEST(BrisklogProcess, DirectoryComesFromTheEnvironmentByDefault) {
  TraceDir dir;
  pid_t child = fork();
  if (child == 0) {
    setenv("BRISKLOG_DIR", dir.dir().c_str(), 1);
    // Back to the environment's configuration, as in a process that never
    // configured anything.
    Brisklog::configIs(Brisklog::Config{});
    BRISKLOG("Env", "from env");
    std::string p = Brisklog::path();
    _exit(p.rfind(dir.dir() + "/", 0) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
