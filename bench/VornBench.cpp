// Vorn tables beside their baselines, measured in the same run: an
// in-process std::unordered_map (the bound for lookups), std::map (the bound
// for ordered steps) and LMDB on /dev/shm (MDB_WRITEMAP | MDB_NOSYNC, one
// reused read transaction, one write transaction per put or delete).
// Records are Vorn::TestRecord (200 bytes) under Vorn::TestKey (32 bytes).
//
// bench/vorn_ratios.py runs this program and prints the ratios.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Kiv/EventLoop.h"
#include "Vorn/TestSchema.h"

using Vorn::TestKey;
using Vorn::TestRecord;

namespace {

struct KeyHasher {
  std::size_t operator()(TestKey const& k) const { return k.hash(); }
};

std::string benchDir() {
  static std::string const dir = "/dev/shm/vorn-bench-" + std::to_string(getpid());
  return dir;
}

void check(int rc, char const* what) {
  if (rc != 0) {
    fprintf(stderr, "%s: %s\n", what, mdb_strerror(rc));
    abort();
  }
}

// One data set of n records, built once per size and shared by every
// benchmark of that size.
struct Fixture {
  std::uint64_t n;
  std::string path;
  Kiv::Ptr<Vorn::TestStatus> writer;
  Kiv::Ptr<Vorn::TestStatus> reader;  // a second mapping, as a reader process has
  std::unordered_map<TestKey, TestRecord, KeyHasher> hash;
  std::map<TestKey, TestRecord> ordered;
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  MDB_txn* readTxn = nullptr;
  std::vector<TestKey> hits, misses;
  std::uint64_t version = 1;

  explicit Fixture(std::uint64_t size) : n(size) {
    mkdir(benchDir().c_str(), 0700);
    path = benchDir() + "/t" + std::to_string(n) + ".vorn";
    Vorn::MountOptions options;
    options.limit["entry"] = static_cast<std::uint32_t>(n + n / 8 + 64);
    writer = new Vorn::TestStatus("bench");
    writer->mountIs(path, Vorn::Status::Mode::writer, options);
    std::string const lmdbDir = benchDir() + "/lmdb" + std::to_string(n);
    mkdir(lmdbDir.c_str(), 0700);
    check(mdb_env_create(&env), "mdb_env_create");
    check(mdb_env_set_mapsize(env, n * 1024 + (64u << 20)), "mdb_env_set_mapsize");
    check(mdb_env_open(env, lmdbDir.c_str(), MDB_WRITEMAP | MDB_NOSYNC, 0600), "mdb_env_open");
    MDB_txn* txn;
    check(mdb_txn_begin(env, nullptr, 0, &txn), "mdb_txn_begin");
    check(mdb_dbi_open(txn, nullptr, 0, &dbi), "mdb_dbi_open");
    for (std::uint64_t i = 0; i < n; ++i) {
      TestRecord const r(TestKey(i), 1);
      writer->entryIs(r);
      hash[r.key] = r;
      ordered[r.key] = r;
      MDB_val k{sizeof(TestKey), const_cast<TestKey*>(&r.key)}, v{sizeof r, const_cast<TestRecord*>(&r)};
      check(mdb_put(txn, dbi, &k, &v, 0), "mdb_put");
      hits.push_back(r.key);
      misses.push_back(TestKey(n + i));
    }
    check(mdb_txn_commit(txn), "mdb_txn_commit");
    reader = new Vorn::TestStatus("bench-reader");
    reader->mountIs(path, Vorn::Status::Mode::reader);
    std::mt19937_64 rng(n);
    std::shuffle(hits.begin(), hits.end(), rng);
    std::shuffle(misses.begin(), misses.end(), rng);
  }
  ~Fixture() {
    if (readTxn) mdb_txn_abort(readTxn);
    mdb_env_close(env);
    reader = nullptr;
    writer = nullptr;
  }
  // The reused read transaction, renewed so it sees the latest writes.
  MDB_txn* lmdbReader() {
    if (readTxn == nullptr) {
      check(mdb_txn_begin(env, nullptr, MDB_RDONLY, &readTxn), "mdb_txn_begin(read)");
    } else {
      mdb_txn_reset(readTxn);
      check(mdb_txn_renew(readTxn), "mdb_txn_renew");
    }
    return readTxn;
  }
  void lmdbReaderDone() {
    if (readTxn) mdb_txn_reset(readTxn);
  }
};

std::map<std::uint64_t, std::unique_ptr<Fixture>>& fixtures() {
  static std::map<std::uint64_t, std::unique_ptr<Fixture>> f;
  return f;
}

Fixture& fixture(std::uint64_t n) {
  auto& f = fixtures()[n];
  if (!f) f = std::make_unique<Fixture>(n);
  return *f;
}

void sizes(benchmark::internal::Benchmark* b) { b->Arg(1000)->Arg(65536)->Arg(1 << 20); }

// ---- lookups -------------------------------------------------------------

template <bool hit>
void lookupVorn(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  auto const& keys = hit ? f.hits : f.misses;
  std::size_t i = 0;
  for (auto _ : st) {
    TestRecord r = f.reader->entry(keys[i]);
    benchmark::DoNotOptimize(r);
    if (++i == keys.size()) i = 0;
  }
}

template <bool hit>
void lookupUnorderedMap(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  auto const& keys = hit ? f.hits : f.misses;
  std::size_t i = 0;
  for (auto _ : st) {
    auto it = f.hash.find(keys[i]);
    TestRecord r = it == f.hash.end() ? TestRecord() : it->second;
    benchmark::DoNotOptimize(r);
    if (++i == keys.size()) i = 0;
  }
}

template <bool hit>
void lookupLmdb(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  auto const& keys = hit ? f.hits : f.misses;
  MDB_txn* txn = f.lmdbReader();
  std::size_t i = 0;
  for (auto _ : st) {
    MDB_val k{sizeof(TestKey), const_cast<TestKey*>(&keys[i])}, v;
    TestRecord r;
    if (mdb_get(txn, f.dbi, &k, &v) == 0 && v.mv_size == sizeof r) std::memcpy(&r, v.mv_data, sizeof r);
    benchmark::DoNotOptimize(r);
    if (++i == keys.size()) i = 0;
  }
  f.lmdbReaderDone();
}

BENCHMARK(lookupVorn<true>)->Name("LookupHit/Vorn")->Apply(sizes);
BENCHMARK(lookupUnorderedMap<true>)->Name("LookupHit/UnorderedMap")->Apply(sizes);
BENCHMARK(lookupLmdb<true>)->Name("LookupHit/Lmdb")->Apply(sizes);
BENCHMARK(lookupVorn<false>)->Name("LookupMiss/Vorn")->Apply(sizes);
BENCHMARK(lookupUnorderedMap<false>)->Name("LookupMiss/UnorderedMap")->Apply(sizes);
BENCHMARK(lookupLmdb<false>)->Name("LookupMiss/Lmdb")->Apply(sizes);

// ---- insert-or-replace ---------------------------------------------------

void replaceVorn(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  std::size_t i = 0;
  TestRecord r(TestKey(0), 0);
  for (auto _ : st) {
    r.key = f.hits[i];
    r.version = ++f.version;
    f.writer->entryIs(r);
    if (++i == f.hits.size()) i = 0;
  }
}

void replaceUnorderedMap(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  std::size_t i = 0;
  TestRecord r(TestKey(0), 0);
  for (auto _ : st) {
    r.key = f.hits[i];
    r.version = ++f.version;
    f.hash[r.key] = r;
    if (++i == f.hits.size()) i = 0;
  }
}

void replaceLmdb(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  std::size_t i = 0;
  TestRecord r(TestKey(0), 0);
  for (auto _ : st) {
    r.key = f.hits[i];
    r.version = ++f.version;
    MDB_txn* txn;
    check(mdb_txn_begin(f.env, nullptr, 0, &txn), "mdb_txn_begin");
    MDB_val k{sizeof(TestKey), &r.key}, v{sizeof r, &r};
    check(mdb_put(txn, f.dbi, &k, &v, 0), "mdb_put");
    check(mdb_txn_commit(txn), "mdb_txn_commit");
    if (++i == f.hits.size()) i = 0;
  }
}

BENCHMARK(replaceVorn)->Name("InsertOrReplace/Vorn")->Apply(sizes);
BENCHMARK(replaceUnorderedMap)->Name("InsertOrReplace/UnorderedMap")->Apply(sizes);
BENCHMARK(replaceLmdb)->Name("InsertOrReplace/Lmdb")->Apply(sizes);

// ---- delete (each batch of 256 deleted keys is put back untimed) ---------

template <class Del, class Put>
void deleteLoop(benchmark::State& st, Fixture& f, Del del, Put put) {
  std::size_t i = 0, batchStart = 0;
  for (auto _ : st) {
    del(f.hits[i]);
    if (++i - batchStart == 256 || i == f.hits.size()) {
      st.PauseTiming();
      for (std::size_t j = batchStart; j < i; ++j) put(TestRecord(f.hits[j], 1));
      if (i == f.hits.size()) i = 0;
      batchStart = i;
      st.ResumeTiming();
    }
  }
  for (std::size_t j = batchStart; j < i; ++j) put(TestRecord(f.hits[j], 1));
}

void deleteVorn(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  deleteLoop(
      st, f, [&](TestKey const& k) { f.writer->entryDel(k); }, [&](TestRecord const& r) { f.writer->entryIs(r); });
}

void deleteUnorderedMap(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  deleteLoop(
      st, f, [&](TestKey const& k) { f.hash.erase(k); }, [&](TestRecord const& r) { f.hash[r.key] = r; });
}

void lmdbDel(Fixture& f, TestKey const& key) {
  MDB_txn* txn;
  check(mdb_txn_begin(f.env, nullptr, 0, &txn), "mdb_txn_begin");
  MDB_val k{sizeof(TestKey), const_cast<TestKey*>(&key)};
  mdb_del(txn, f.dbi, &k, nullptr);
  check(mdb_txn_commit(txn), "mdb_txn_commit");
}

void lmdbPut(Fixture& f, TestRecord const& r) {
  MDB_txn* txn;
  check(mdb_txn_begin(f.env, nullptr, 0, &txn), "mdb_txn_begin");
  MDB_val k{sizeof(TestKey), const_cast<TestKey*>(&r.key)}, v{sizeof r, const_cast<TestRecord*>(&r)};
  check(mdb_put(txn, f.dbi, &k, &v, 0), "mdb_put");
  check(mdb_txn_commit(txn), "mdb_txn_commit");
}

void deleteLmdb(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  deleteLoop(
      st, f, [&](TestKey const& k) { lmdbDel(f, k); }, [&](TestRecord const& r) { lmdbPut(f, r); });
}

// ---- insert of a new key (each batch of 256 is deleted first, untimed) ---

template <class Del, class Put>
void insertLoop(benchmark::State& st, Fixture& f, Del del, Put put) {
  std::size_t i = 0, batchEnd = 0;
  TestRecord r(TestKey(0), 1);
  for (auto _ : st) {
    if (i == batchEnd) {
      st.PauseTiming();
      batchEnd = std::min(i + 256, f.hits.size());
      for (std::size_t j = i; j < batchEnd; ++j) del(f.hits[j]);
      st.ResumeTiming();
    }
    r.key = f.hits[i];
    put(r);
    if (++i == f.hits.size()) i = batchEnd = 0;
  }
  for (; i < batchEnd; ++i) {
    r.key = f.hits[i];
    put(r);
  }
}

void insertVorn(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  insertLoop(
      st, f, [&](TestKey const& k) { f.writer->entryDel(k); }, [&](TestRecord const& r) { f.writer->entryIs(r); });
}

void insertUnorderedMap(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  insertLoop(
      st, f, [&](TestKey const& k) { f.hash.erase(k); }, [&](TestRecord const& r) { f.hash[r.key] = r; });
}

void insertLmdb(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  insertLoop(
      st, f, [&](TestKey const& k) { lmdbDel(f, k); }, [&](TestRecord const& r) { lmdbPut(f, r); });
}

BENCHMARK(insertVorn)->Name("InsertNewKey/Vorn")->Apply(sizes);
BENCHMARK(insertUnorderedMap)->Name("InsertNewKey/UnorderedMap")->Apply(sizes);
BENCHMARK(insertLmdb)->Name("InsertNewKey/Lmdb")->Apply(sizes);

BENCHMARK(deleteVorn)->Name("Delete/Vorn")->Apply(sizes);
BENCHMARK(deleteUnorderedMap)->Name("Delete/UnorderedMap")->Apply(sizes);
BENCHMARK(deleteLmdb)->Name("Delete/Lmdb")->Apply(sizes);

// ---- ordered walk, per record --------------------------------------------

void walkVorn(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  auto const& t = f.reader->entryTable();
  Vorn::IterHint hint;
  TestKey k;
  TestRecord r;
  bool ok = t.first(k, r, hint);
  for (auto _ : st) {
    ok = ok ? t.next(k, k, r, hint) : t.first(k, r, hint);
    benchmark::DoNotOptimize(r);
  }
}

void walkOrderedMap(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  auto it = f.ordered.begin();
  for (auto _ : st) {
    TestRecord r = it->second;
    benchmark::DoNotOptimize(r);
    if (++it == f.ordered.end()) it = f.ordered.begin();
  }
}

void walkLmdb(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  MDB_txn* txn = f.lmdbReader();
  MDB_cursor* c;
  check(mdb_cursor_open(txn, f.dbi, &c), "mdb_cursor_open");
  MDB_val k, v;
  bool ok = mdb_cursor_get(c, &k, &v, MDB_FIRST) == 0;
  for (auto _ : st) {
    ok = mdb_cursor_get(c, &k, &v, ok ? MDB_NEXT : MDB_FIRST) == 0;
    TestRecord r;
    if (ok) std::memcpy(&r, v.mv_data, sizeof r);
    benchmark::DoNotOptimize(r);
  }
  mdb_cursor_close(c);
  f.lmdbReaderDone();
}

BENCHMARK(walkVorn)->Name("OrderedStep/Vorn")->Apply(sizes);
BENCHMARK(walkOrderedMap)->Name("OrderedStep/OrderedMap")->Apply(sizes);
BENCHMARK(walkLmdb)->Name("OrderedStep/Lmdb")->Apply(sizes);

// ---- across processes ----------------------------------------------------

std::uint64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1000000000u + std::uint64_t(ts.tv_nsec);
}

// Lookups in this process while another process rewrites records.
void lookupVornWhileWriting(benchmark::State& st) {
  Fixture& f = fixture(st.range(0));
  auto* stop =
      static_cast<std::atomic<int>*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  stop->store(0);
  std::uint64_t* writes = reinterpret_cast<std::uint64_t*>(stop + 16);
  *writes = 0;
  pid_t child = fork();
  if (child == 0) {
    // The writer, inherited across fork; this process alone writes now.
    TestRecord r(TestKey(0), 0);
    std::uint64_t v = f.version + 1000000000ull, i = 0;
    while (stop->load(std::memory_order_relaxed) == 0) {
      r.key = f.hits[i];
      r.version = ++v;
      f.writer->entryIs(r);
      ++*writes;
      if (++i == f.hits.size()) i = 0;
    }
    _exit(0);
  }
  std::size_t i = 0;
  for (auto _ : st) {
    TestRecord r = f.reader->entry(f.hits[i]);
    benchmark::DoNotOptimize(r);
    if (++i == f.hits.size()) i = 0;
  }
  stop->store(1);
  waitpid(child, nullptr, 0);
  st.counters["writerOpsPerLookup"] = double(*writes) / double(st.iterations());
  munmap(stop, 4096);
}
BENCHMARK(lookupVornWhileWriting)->Name("LookupHitWhileAnotherProcessWrites/Vorn")->Apply(sizes);

// A change by the writer reaching the hook of a reader in another process,
// one change at a time: median and 99th percentile.
void notifyLatency(benchmark::State& st) {
  Fixture& f = fixture(1000);
  int back[2];
  if (pipe(back) != 0) abort();
  pid_t child = fork();
  if (child == 0) {
    ::close(back[0]);
    Kiv::Ptr<Vorn::TestStatus> r = new Vorn::TestStatus("latency-reader");
    r->mountIs(f.path, Vorn::Status::Mode::reader);
    Kiv::EventLoop loop;
    struct Hook : Vorn::TestStatus::NotifieeConst {
      Vorn::TestStatus* status;
      int fd;
      bool done = false;
      void onEntry(TestKey const& k) override {
        TestRecord const rec = status->entry(k);
        std::uint64_t const lat = nowNs() - rec.payload[0];
        if (rec.version == 0) done = true;
        [[maybe_unused]] ssize_t n = ::write(fd, &lat, sizeof lat);
      }
    } hook;
    hook.status = r.ptr();
    hook.fd = back[1];
    hook.notifierIs(r);
    r->followIs(&loop);
    std::uint64_t ready = 0;
    [[maybe_unused]] ssize_t n = ::write(back[1], &ready, sizeof ready);
    loop.runUntil([&] { return hook.done; }, 120.0);
    _exit(0);
  }
  ::close(back[1]);
  std::uint64_t lat;
  [[maybe_unused]] ssize_t n = ::read(back[0], &lat, sizeof lat);
  std::vector<double> samples;
  TestRecord rec(TestKey(0), 0);
  rec.key = f.hits[0];
  for (auto _ : st) {
    rec.version = ++f.version;
    rec.payload[0] = nowNs();
    f.writer->entryIs(rec);
    if (::read(back[0], &lat, sizeof lat) != sizeof lat) break;
    samples.push_back(double(lat) / 1000.0);
  }
  rec.version = 0;
  rec.payload[0] = nowNs();
  f.writer->entryIs(rec);
  waitpid(child, nullptr, 0);
  ::close(back[0]);
  std::sort(samples.begin(), samples.end());
  if (!samples.empty()) {
    st.counters["median_us"] = samples[samples.size() / 2];
    st.counters["p99_us"] = samples[samples.size() * 99 / 100];
  }
}
BENCHMARK(notifyLatency)->Name("ChangeToReaderProcessHook/Vorn")->Iterations(3000)->UseRealTime();

// The floor under the figure above: the same one-way delay through a plain
// pipe between two processes (write a timestamp, the other side reads it
// from its event loop and answers), with no table involved.
void pipeLatency(benchmark::State& st) {
  int there[2], back[2];
  if (pipe(there) != 0 || pipe(back) != 0) abort();
  pid_t child = fork();
  if (child == 0) {
    ::close(there[1]);
    ::close(back[0]);
    Kiv::EventLoop loop;
    bool done = false;
    loop.readableIs(there[0], [&] {
      std::uint64_t ts;
      if (::read(there[0], &ts, sizeof ts) != sizeof ts || ts == 0) {
        done = true;
        return;
      }
      std::uint64_t const lat = nowNs() - ts;
      [[maybe_unused]] ssize_t n = ::write(back[1], &lat, sizeof lat);
    });
    loop.runUntil([&] { return done; }, 120.0);
    _exit(0);
  }
  ::close(there[0]);
  ::close(back[1]);
  std::vector<double> samples;
  for (auto _ : st) {
    std::uint64_t ts = nowNs(), lat;
    [[maybe_unused]] ssize_t n = ::write(there[1], &ts, sizeof ts);
    if (::read(back[0], &lat, sizeof lat) != sizeof lat) break;
    samples.push_back(double(lat) / 1000.0);
  }
  std::uint64_t zero = 0;
  [[maybe_unused]] ssize_t n = ::write(there[1], &zero, sizeof zero);
  waitpid(child, nullptr, 0);
  ::close(there[1]);
  ::close(back[0]);
  std::sort(samples.begin(), samples.end());
  if (!samples.empty()) {
    st.counters["median_us"] = samples[samples.size() / 2];
    st.counters["p99_us"] = samples[samples.size() * 99 / 100];
  }
}
BENCHMARK(pipeLatency)->Name("ChangeToReaderProcessHook/PipeBaseline")->Iterations(3000)->UseRealTime();

struct Cleanup {
  ~Cleanup() {
    fixtures().clear();
    std::string const cmd = "rm -rf '" + benchDir() + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", benchDir().c_str());
  }
};

}  // namespace

int main(int argc, char** argv) {
  Cleanup cleanup;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
