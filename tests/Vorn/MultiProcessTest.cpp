// One writer and readers in separate processes, sharing real shared memory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "Kiv/EventLoop.h"
#include "VornTestUtil.h"

using namespace VornTest;
using Vorn::TestKey;
using Vorn::TestRecord;
using Mode = Vorn::Status::Mode;
using Clock = std::chrono::steady_clock;

namespace {

// A pipe both sides use to say "go" with one byte.
class Signal {
 public:
  Signal() { EXPECT_EQ(pipe(fd_), 0); }
  ~Signal() {
    ::close(fd_[0]);
    ::close(fd_[1]);
  }
  void raise() {
    char c = 1;
    [[maybe_unused]] ssize_t n = ::write(fd_[1], &c, 1);
  }
  void wait() {
    char c;
    [[maybe_unused]] ssize_t n = ::read(fd_[0], &c, 1);
  }

 private:
  int fd_[2];
};

// Runs fn in a child process; its return value is the exit code.
pid_t spawn(std::function<int()> const& fn) {
  pid_t pid = fork();
  if (pid == 0) {
    int code = 99;
    try {
      code = fn();
    } catch (std::exception const& e) {
      fprintf(stderr, "child: %s\n", e.what());
    }
    _exit(code);
  }
  return pid;
}

// The child's exit code, or -signal; kills it after timeout seconds (-100).
int reap(pid_t pid, double timeout) {
  auto const end = Clock::now() + std::chrono::duration<double>(timeout);
  for (;;) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    if (Clock::now() > end) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -100;
    }
    usleep(2000);
  }
}

// The writer's deterministic workload: (key, version or 0 for delete).
std::vector<std::pair<std::uint64_t, std::uint64_t>> workload(int n) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ops;
  for (int i = 0; i < n; ++i) ops.push_back({std::uint64_t(i * 7 % 300), i % 5 == 4 ? 0 : std::uint64_t(i + 1)});
  return ops;
}

class VornProcesses : public ::testing::Test {
 protected:
  PrivateRoot root;
  std::string path = root.file("mp.vorn");
};

}  // namespace

TEST_F(VornProcesses, ReaderProcessHearsEveryChangeInOrderAndSeesTheSameTable) {
  Signal ready, go, done;
  auto ops = workload(2000);
  pid_t writer = spawn([&] {
    auto w = mounted(path, Mode::writer);
    ready.raise();
    go.wait();
    for (auto [k, v] : ops) v ? w->entryIs(record(k, v)) : w->entryDel(TestKey(k));
    done.wait();
    return 0;
  });
  ready.wait();
  std::map<TestKey, TestRecord> model;
  std::vector<TestKey> expected;
  for (auto [k, v] : ops) {
    if (v) {
      model[TestKey(k)] = record(k, v);
      expected.push_back(TestKey(k));
    } else if (model.erase(TestKey(k))) {
      expected.push_back(TestKey(k));
    }
  }
  // A second reader, in a process of its own.
  Signal following;
  pid_t other = spawn([&] {
    auto r = mounted(path, Mode::reader);
    Kiv::EventLoop loop;
    r->followIs(&loop);
    Recorder heard(r);
    following.raise();
    loop.runUntil([&] { return heard.entries.size() >= expected.size(); }, 20.0);
    return heard.entries == expected ? 0 : 1;
  });
  auto r = mounted(path, Mode::reader);
  Kiv::EventLoop loop;
  r->followIs(&loop);
  Recorder heard(r);
  following.wait();
  go.raise();
  EXPECT_TRUE(loop.runUntil([&] { return heard.entries.size() >= expected.size(); }, 20.0));
  EXPECT_EQ(reap(other, 20), 0);
  EXPECT_EQ(heard.entries, expected);
  EXPECT_EQ(r->resyncs(), 0u);
  done.raise();
  EXPECT_EQ(reap(writer, 10), 0);
  EXPECT_EQ(r->entryTable().size(), model.size());
  Vorn::IterHint hint;
  TestKey k;
  TestRecord rec;
  auto it = model.begin();
  for (bool ok = r->entryTable().first(k, rec, hint); ok; ok = r->entryTable().next(k, k, rec, hint), ++it) {
    ASSERT_NE(it, model.end());
    EXPECT_EQ(k, it->first);
    EXPECT_EQ(rec, it->second);
  }
  EXPECT_EQ(it, model.end());
}

TEST_F(VornProcesses, ReaderPastAWrappedLogHearsEveryKeyAnotherProcessChanged) {
  Vorn::MountOptions options;
  options.logCapacity = 16;
  Signal ready, go;
  auto ops = workload(600);
  pid_t writer = spawn([&] {
    auto w = mounted(path, Mode::writer, options);
    for (std::uint64_t n = 0; n < 300; n += 2) w->entryIs(record(n, 1000000));
    ready.raise();
    go.wait();
    for (auto [k, v] : ops) v ? w->entryIs(record(k, v)) : w->entryDel(TestKey(k));
    return 0;
  });
  ready.wait();
  auto r = mounted(path, Mode::reader);
  Kiv::EventLoop loop;
  r->followIs(&loop);
  Recorder heard(r);
  go.raise();
  ASSERT_EQ(reap(writer, 10), 0);  // every change made before the reader looks
  std::set<TestKey> changed;
  std::set<TestKey> present;
  for (std::uint64_t n = 0; n < 300; n += 2) present.insert(TestKey(n));
  for (auto [k, v] : ops) {
    if (v)
      changed.insert(TestKey(k)), present.insert(TestKey(k));
    else if (present.erase(TestKey(k)))
      changed.insert(TestKey(k));
  }
  loop.runUntil([&] { return false; }, 0.3);
  EXPECT_GE(r->resyncs(), 1u);
  std::set<TestKey> const got(heard.entries.begin(), heard.entries.end());
  for (TestKey const& k : changed) EXPECT_TRUE(got.count(k)) << k;
}

TEST_F(VornProcesses, ReadersInAnotherProcessNeverSeeATornRecord) {
  Vorn::MountOptions options;
  options.limit["entry"] = 512;
  auto w = mounted(path, Mode::writer, options);
  for (std::uint64_t n = 0; n < 256; ++n) w->entryIs(record(n, 1));
  Signal ready;
  auto const seconds = std::chrono::milliseconds(2500);
  pid_t reader = spawn([&] {
    auto r = mounted(path, Mode::reader);
    ready.raise();
    std::mt19937_64 rng(1);
    std::uint64_t reads = 0, torn = 0, walks = 0;
    auto const end = Clock::now() + seconds;
    while (Clock::now() < end) {
      for (int i = 0; i < 1000; ++i) {
        std::uint64_t n = rng() % 256;
        TestRecord const rec = r->entry(TestKey(n));
        ++reads;
        if (rec != TestRecord() && (!rec.whole() || rec.key != TestKey(n))) ++torn;
      }
      Vorn::IterHint hint;
      TestKey k, prev;
      TestRecord rec;
      bool first = true;
      for (bool ok = r->entryTable().first(k, rec, hint); ok; ok = r->entryTable().next(k, k, rec, hint)) {
        if (!rec.whole() || rec.key != k || (!first && !(prev < k))) ++torn;
        prev = k;
        first = false;
      }
      ++walks;
    }
    fprintf(stderr, "torn-read stress: %llu lookups, %llu walks, %llu torn\n", (unsigned long long)reads,
            (unsigned long long)walks, (unsigned long long)torn);
    return torn == 0 && reads > 0 ? 0 : 1;
  });
  ready.wait();
  std::mt19937_64 rng(2);
  std::uint64_t version = 1, writes = 0;
  auto const end = Clock::now() + seconds;
  while (Clock::now() < end) {
    for (int i = 0; i < 200; ++i, ++writes) {
      std::uint64_t n = rng() % 256;
      if (rng() % 8 == 0)
        w->entryDel(TestKey(n));
      else
        w->entryIs(record(n, ++version));
    }
  }
  EXPECT_GT(writes, 1000u);
  EXPECT_EQ(reap(reader, 20), 0);
}

TEST_F(VornProcesses, WriterKilledMidStreamLeavesATableReadersReadAndANewWriterAdopts) {
  Vorn::MountOptions options;
  options.limit["entry"] = 1024;
  Signal ready;
  pid_t writer = spawn([&] {
    auto w = mounted(path, Mode::writer, options);
    for (std::uint64_t n = 0; n < 500; ++n) w->entryIs(record(n, 1));
    ready.raise();
    std::mt19937_64 rng(3);
    for (std::uint64_t v = 2;; ++v) {
      std::uint64_t n = rng() % 800;
      if (rng() % 4 == 0)
        w->entryDel(TestKey(n));
      else
        w->entryIs(record(n, v));
    }
    return 0;
  });
  ready.wait();
  auto r = mounted(path, Mode::reader);
  usleep(300000);
  kill(writer, SIGKILL);
  EXPECT_EQ(reap(writer, 5), -SIGKILL);
  auto readAll = [&](int& reported) {
    std::size_t found = 0;
    for (std::uint64_t n = 0; n < 800; ++n) {
      try {
        TestRecord const rec = r->entry(TestKey(n));
        if (rec != TestRecord()) {
          EXPECT_TRUE(rec.whole());
          EXPECT_EQ(rec.key, TestKey(n));
          ++found;
        }
      } catch (Pelto::CorruptionDetectedException const& e) {
        ++reported;  // the one record the writer was writing when it died
        EXPECT_NE(std::string(e.what()).find("which is gone"), std::string::npos) << e.what();
      }
    }
    return found;
  };
  int reported = 0;
  std::size_t const before = readAll(reported);
  EXPECT_LE(reported, 1);
  EXPECT_GT(before, 0u);
  auto w2 = mounted(path, Mode::writer, options);
  reported = 0;
  std::size_t const after = readAll(reported);
  EXPECT_EQ(reported, 0);
  EXPECT_EQ(after, w2->entryTable().size());
  EXPECT_GE(after + 1, before);
  Vorn::IterHint hint;
  TestKey k;
  TestRecord rec;
  std::size_t walked = 0;
  for (bool ok = r->entryTable().first(k, rec, hint); ok; ok = r->entryTable().next(k, k, rec, hint)) ++walked;
  EXPECT_EQ(walked, after);
  EXPECT_TRUE(w2->entryIs(record(5000, 1)));
  EXPECT_EQ(r->entry(TestKey(5000)), record(5000, 1));
}

TEST_F(VornProcesses, ByteFlipsAndTruncationOfALiveFileOnlyRaiseInAReaderProcess) {
  Vorn::MountOptions options;
  options.limit["entry"] = 512;
  auto w = mounted(path, Mode::writer, options);
  for (std::uint64_t n = 0; n < 400; ++n) w->entryIs(record(n, 1));
  std::uint64_t const size = w->region()->fileSize();
  Signal ready;
  pid_t reader = spawn([&] {
    auto r = mounted(path, Mode::reader);
    ready.raise();
    std::mt19937_64 rng(4);
    std::uint64_t raised = 0, ops = 0;
    auto const end = Clock::now() + std::chrono::milliseconds(2000);
    while (Clock::now() < end) {
      try {
        ++ops;
        r->entry(TestKey(rng() % 500));
        Vorn::IterHint hint;
        TestKey k;
        TestRecord rec;
        int steps = 0;
        for (bool ok = r->entryTable().first(k, rec, hint); ok && steps < 2000;
             ok = r->entryTable().next(k, k, rec, hint))
          ++steps;
        r->entryTable().size();
        std::uint32_t pos = 0;
        while (r->entryTable().unorderedNext(pos, k, rec)) {
        }
        if (ops % 50 == 0) mounted(path, Mode::reader);  // mounting a damaged file
      } catch (Pelto::CorruptionDetectedException const&) {
        ++raised;
      } catch (Kiv::ErrnoException const&) {
        ++raised;
      }
    }
    fprintf(stderr, "corruption: %llu operations, %llu raised\n", (unsigned long long)ops, (unsigned long long)raised);
    return raised > 0 ? 0 : 1;
  });
  ready.wait();
  int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  std::mt19937_64 rng(5);
  auto const end = Clock::now() + std::chrono::milliseconds(1200);
  while (Clock::now() < end) {
    for (int i = 0; i < 20; ++i) {
      unsigned char b = static_cast<unsigned char>(rng());
      [[maybe_unused]] ssize_t n = pwrite(fd, &b, 1, static_cast<off_t>(rng() % size));
    }
    usleep(1000);
  }
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size / 2)), 0);
  ::close(fd);
  EXPECT_EQ(reap(reader, 20), 0);
  w->unmount();
}

TEST_F(VornProcesses, RandomBytesAreRefusedAtMount) {
  std::mt19937_64 rng(6);
  for (std::uint64_t size : {0ull, 100ull, 4096ull, 65536ull}) {
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
    EXPECT_THROW(mounted(path, Mode::reader), Pelto::CorruptionDetectedException) << size;
  }
  // A writer replaces what it cannot adopt.
  auto w = mounted(path, Mode::writer);
  EXPECT_EQ(w->entryTable().size(), 0u);
}

TEST_F(VornProcesses, ASecondWriterIsRefusedWhileTheFirstRuns) {
  Signal ready, done;
  pid_t writer = spawn([&] {
    auto w = mounted(path, Mode::writer);
    w->entryIs(record(1));
    ready.raise();
    done.wait();
    return 0;
  });
  ready.wait();
  try {
    mounted(path, Mode::writer);
    ADD_FAILURE() << "two writers";
  } catch (Kiv::Exception const& e) {
    EXPECT_EQ(std::string(e.what()), path + " is being written by pid " + std::to_string(writer));
  }
  auto r = mounted(path, Mode::reader);
  EXPECT_EQ(r->region()->writerPid(), static_cast<std::uint32_t>(writer));
  EXPECT_EQ(r->entry(TestKey(1)), record(1));
  done.raise();
  EXPECT_EQ(reap(writer, 5), 0);
  EXPECT_EQ(r->region()->writerPid(), 0u);
}

// A writer that died is gone even while its parent has not reaped it, and a
// process that later got the same pid is not the writer.
TEST_F(VornProcesses, AZombieOrAStrangerWithTheWritersPidDoesNotHoldTheTable) {
  Signal ready;
  pid_t writer = spawn([&] {
    auto w = mounted(path, Mode::writer);
    w->entryIs(record(1));
    ready.raise();
    pause();  // killed here, and left unreaped
    return 0;
  });
  ready.wait();
  kill(writer, SIGKILL);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(writer), &info, WEXITED | WNOWAIT), 0);
  {
    auto w = mounted(path, Mode::writer);
    EXPECT_EQ(w->entry(TestKey(1)), record(1));
    w->entryIs(record(2));
  }
  EXPECT_EQ(reap(writer, 5), -SIGKILL);

  // The header names a running process that never mounted the table.
  Signal stop;
  pid_t stranger = spawn([&] {
    stop.wait();
    return 0;
  });
  {
    auto r = mounted(path, Mode::reader);
    r->region()->header()->writerPid.store(static_cast<std::uint32_t>(stranger));
    EXPECT_FALSE(r->region()->writerAlive());
  }
  auto w = mounted(path, Mode::writer);
  EXPECT_EQ(w->entry(TestKey(2)), record(2));
  stop.raise();
  EXPECT_EQ(reap(stranger, 5), 0);
}

// A table written from 63 records to 24,000 grows nine times while a reader
// process looks keys up and walks it in order: every key the reader once
// found stays found, every walk holds every key known when it started (in
// order, each record whole), and the reader follows the growth itself.
TEST_F(VornProcesses, ReadersInAnotherProcessFollowATableThroughSeveralGrowths) {
  constexpr std::uint64_t kKeys = 24000;
  Vorn::MountOptions options;
  options.limit["entry"] = 30000;
  auto w = mounted(path, Mode::writer, options);
  ASSERT_EQ(w->entryTable().capacity(), 63u);
  Signal ready;
  pid_t reader = spawn([&] {
    auto r = mounted(path, Mode::reader);
    auto const& t = r->entryTable();
    ready.raise();
    std::mt19937_64 rng(3);
    std::uint64_t known = 0, missed = 0, torn = 0, lost = 0, walks = 0, walkGrowths = 0;
    std::set<std::uint32_t> capacities{t.capacity()};
    auto const end = Clock::now() + std::chrono::seconds(20);
    auto idOf = [](TestKey const& k) { return (k.a << 32) | (k.b & 0xffffffffu); };
    while (known < kKeys && Clock::now() < end) {
      // The writer inserts in key-number order: once n is found, 0..n are in.
      for (TestRecord rec; known < kKeys && (rec = r->entry(TestKey(known))) != TestRecord(); ++known)
        torn += !rec.whole();
      for (int i = 0; known > 0 && i < 200; ++i) {
        std::uint64_t const n = rng() % known;
        TestRecord const rec = r->entry(TestKey(n));
        if (rec == TestRecord())
          ++missed;
        else if (!rec.whole() || rec.key != TestKey(n))
          ++torn;
      }
      std::uint64_t const knownAtStart = known;
      std::uint32_t const capacityAtStart = t.capacity();
      std::vector<bool> walked(kKeys, false);
      Vorn::IterHint hint;
      TestKey k, prev;
      TestRecord rec;
      bool first = true;
      for (bool ok = t.first(k, rec, hint); ok; ok = t.next(k, k, rec, hint)) {
        if (!rec.whole() || rec.key != k || (!first && !(prev < k))) ++torn;
        if (idOf(k) < kKeys) walked[idOf(k)] = true;
        prev = k;
        first = false;
      }
      for (std::uint64_t n = 0; n < knownAtStart; ++n) lost += !walked[n];
      ++walks;
      walkGrowths += t.capacity() != capacityAtStart;
      capacities.insert(t.capacity());
    }
    std::fprintf(stderr,
                 "growth under a reader: %llu keys known, %llu walks (%llu across a growth), %zu capacities seen, "
                 "%llu missed, %llu lost from walks, %llu torn\n",
                 (unsigned long long)known, (unsigned long long)walks, (unsigned long long)walkGrowths,
                 capacities.size(), (unsigned long long)missed, (unsigned long long)lost, (unsigned long long)torn);
    if (known != kKeys) return 1;
    if (missed || lost || torn) return 2;
    if (capacities.size() < 3 || t.size() != kKeys) return 3;
    return 0;
  });
  ready.wait();
  std::mt19937_64 rng(4);
  std::uint64_t version = 1;
  for (std::uint64_t n = 0; n < kKeys; ++n) {
    ASSERT_TRUE(w->entryIs(record(n, 1)));
    // Rewrites of older records keep the seqlocks busy across the growths.
    if (n % 4 == 0) w->entryIs(record(rng() % (n + 1), ++version));
    if (n % 300 == 0) usleep(1000);
  }
  EXPECT_EQ(w->entryTable().capacity(), 30000u);
  EXPECT_EQ(reap(reader, 30), 0);
}
