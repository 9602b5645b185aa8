// Best-route selection across MFIB tables beside a brute-force baseline over
// std::maps of the same routes, measured in the same run, with 1, 2, 4 and
// 8 tables of 100k routes each:
//
//   RouteQuery    MfibVornColl::route(key): the best route for one key
//   MergeWalk     a full walk of MfibVornCollRouteIteratorConst
//   OrderInit     OrderRouteSm's initial pass into a new ordered collection
//
// Keys come from a space of 200k; table t holds a window of 100k of them
// shifted by 25k per table, so with 8 tables every key is in 4 tables, and
// priorities 1-4 are spread over (table, key), ties included. Tables are
// shared-memory writer tables read through a second, reader mapping (what
// an agent has); their files are unlinked as soon as both are mapped, so
// nothing is left under /dev/shm whatever way the program ends.
//
// Queries go to keys drawn at random from the whole key space (most miss
// the caches), or cycle through 1024 of them (all in cache).
//
// Counters: perTable is the time of one query divided by the number of
// tables; perRoute the time per (table, route) pair a walk or a pass
// visits, perPosition per position the walk yields; per1MRoutes and
// per1MPositions what a walk of 1M of either would take at that rate.
//
//   AnnounceToCollection   an application process calls doAddVorn for a new
//                          VRF; the time until this process's MfibVornColl
//                          for that VRF holds the mounted table (through the
//                          shared directory, MfibDirSm and its mount), one
//                          announcement at a time: median_us and p99_us
//   PublishMillionRoutes   1,000,000 routes into one table that grows from
//                          empty: routes per second, memory empty and full
//   PipeRoundTripBaseline  a timestamp through a plain pipe to another
//                          process and back, read from the same kind of
//                          event loop: the floor for any cross-process wake-up
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Kiv/EventLoop.h"
#include "Mfib/MfibDirSm.h"
#include "Mfib/MfibVorn.h"
#include "Mfib/MfibVornCollRouteIteratorConst.h"
#include "Stelo/Mount.h"

namespace {

using namespace Vorn::Multicast::Fib;

constexpr unsigned kRoutesPerTable = 100000;
constexpr unsigned kMaxTables = 8;
constexpr unsigned kKeySpace = 200000;
constexpr unsigned kShift = kKeySpace / kMaxTables;
constexpr unsigned kQueries = 1u << 16;

IpGenRouteKey keyOf(unsigned j) {
  return IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0x0a000000u + j / 16)),
                       Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0xe8000000u + j % 16)));
}

bool holds(unsigned table, unsigned j) { return (j + table * kShift) % kKeySpace < kRoutesPerTable; }

RoutePriority priorityOf(unsigned table, unsigned j) {
  std::uint32_t h = (table + 1) * 2654435761u ^ j * 40503u;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return RoutePriority(static_cast<std::uint8_t>(1 + h % 4));
}

Route routeOf(unsigned table, unsigned j) {
  Route r(keyOf(j));
  r.priorityIs(priorityOf(table, j));
  r.specialIntf1Is(Wirly::IntfId("Vlan" + std::to_string(1 + j % 4000)));
  r.oifIs(OifIndex(static_cast<std::uint16_t>(j % 500)), true);
  r.oifIs(OifIndex(static_cast<std::uint16_t>((j * 7 + table) % 500)), true);
  return r;
}

class Fixture {
 public:
  static Fixture& get() {
    static Fixture f;
    return f;
  }

  // The first n tables.
  Kiv::Ptr<MfibVornColl const> coll(unsigned n) const { return colls_[n]; }
  std::vector<std::map<IpGenRouteKey, Route>> const& maps() const { return maps_; }
  std::vector<IpGenRouteKey> const& queries() const { return queries_; }

 private:
  Fixture() : maps_(kMaxTables), colls_(kMaxTables + 1) {
    std::string const dir = "/dev/shm/mfib-bench-" + std::to_string(getpid());
    ::mkdir(dir.c_str(), 0700);
    Vorn::MountOptions options;
    options.limit["route"] = kRoutesPerTable + 1024;
    for (unsigned t = 0; t < kMaxTables; ++t) {
      std::string const path = dir + "/t" + std::to_string(t);
      Kiv::Ptr<Status> writer = new Status("bench-writer-" + std::to_string(t));
      Kiv::Ptr<Status> reader = new Status("bench-" + std::to_string(t));
      writer->mountIs(path, Vorn::Status::Mode::writer, options);
      reader->mountIs(path, Vorn::Status::Mode::reader);
      ::unlink(path.c_str());
      for (unsigned j = 0; j < kKeySpace; ++j) {
        if (!holds(t, j)) continue;
        Route const r = routeOf(t, j);
        writer->routePublish(r);
        maps_[t].emplace(r.key(), writer->route(r.key()));
      }
      writers_.push_back(writer);
      readers_.push_back(reader);
    }
    ::rmdir(dir.c_str());
    for (unsigned n = 1; n <= kMaxTables; ++n) {
      colls_[n] = mfibVornCollFactory(L3::VrfName("default"));
      for (unsigned t = 0; t < n; ++t) colls_[n]->vornPtrIs(readers_[t].ptr(), readers_[t]);
    }
    std::mt19937 rng(7);
    std::uniform_int_distribution<unsigned> pick(0, kKeySpace - 1);
    for (unsigned i = 0; i < kQueries; ++i) queries_.push_back(keyOf(pick(rng)));
  }

  std::vector<Kiv::Ptr<Status>> writers_, readers_;
  std::vector<std::map<IpGenRouteKey, Route>> maps_;
  std::vector<Kiv::Ptr<MfibVornColl>> colls_;
  std::vector<IpGenRouteKey> queries_;
};

unsigned tablesOf(benchmark::State const& state) { return static_cast<unsigned>(state.range(0)); }

void perTable(benchmark::State& state, unsigned tables) {
  state.counters["perTable"] = benchmark::Counter(double(state.iterations()) * tables,
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void perWalk(benchmark::State& state, unsigned tables, std::uint64_t yielded) {
  double const routes = double(state.iterations()) * tables * kRoutesPerTable;
  auto const rateInv = benchmark::Counter::kIsRate | benchmark::Counter::kInvert;
  state.counters["perRoute"] = benchmark::Counter(routes, rateInv);
  state.counters["per1MRoutes"] = benchmark::Counter(routes / 1e6, rateInv);
  if (yielded != 0) {
    double const positions = double(state.iterations()) * double(yielded);
    state.counters["perPosition"] = benchmark::Counter(positions, rateInv);
    state.counters["per1MPositions"] = benchmark::Counter(positions / 1e6, rateInv);
    state.counters["positions"] = double(yielded);
  }
}

// Queries cycle through the first `keys` of a random sample of the key
// space: 65536 touch far more than the caches hold, 1024 stay in them.
std::size_t keyMask(benchmark::State const& state) { return static_cast<std::size_t>(state.range(1)) - 1; }

void RouteQuery(benchmark::State& state) {
  unsigned const n = tablesOf(state);
  Kiv::Ptr<MfibVornColl const> const coll = Fixture::get().coll(n);
  auto const& qs = Fixture::get().queries();
  std::size_t const mask = keyMask(state);
  std::size_t i = 0, found = 0;
  for (auto _ : state) {
    Route const r = coll->route(qs[i++ & mask]);
    found += r.priority().value() != 0;
    benchmark::DoNotOptimize(r);
  }
  perTable(state, n);
  state.counters["hitRatio"] = double(found) / double(state.iterations());
}

// The same question over std::maps: the strictly greatest priority, the
// first map on ties, a copy of the winner.
void BaselineMapRouteQuery(benchmark::State& state) {
  unsigned const n = tablesOf(state);
  auto const& maps = Fixture::get().maps();
  auto const& qs = Fixture::get().queries();
  std::size_t const mask = keyMask(state);
  std::size_t i = 0;
  for (auto _ : state) {
    IpGenRouteKey const& k = qs[i++ & mask];
    Route const* best = nullptr;
    for (unsigned t = 0; t < n; ++t) {
      auto it = maps[t].find(k);
      if (it != maps[t].end() && (best ? best->priority() : RoutePriority()) < it->second.priority())
        best = &it->second;
    }
    Route const r = best ? *best : Route();
    benchmark::DoNotOptimize(r);
  }
  perTable(state, n);
}

void MergeWalk(benchmark::State& state) {
  unsigned const n = tablesOf(state);
  Kiv::Ptr<MfibVornColl const> const coll = Fixture::get().coll(n);
  std::uint64_t yielded = 0;
  for (auto _ : state) {
    yielded = 0;
    for (MfibVornCollRouteIteratorConst it(coll); !it.done(); it.updateToBestRouteIterators()) ++yielded;
    benchmark::DoNotOptimize(yielded);
  }
  perWalk(state, n, yielded);
}

// The merge iterator's rule over std::maps: each table's routes in key
// order, those that no other table beats with a strictly greater priority.
void BaselineMapMergeWalk(benchmark::State& state) {
  unsigned const n = tablesOf(state);
  auto const& maps = Fixture::get().maps();
  std::uint64_t yielded = 0;
  for (auto _ : state) {
    yielded = 0;
    for (unsigned t = 0; t < n; ++t)
      for (auto const& [k, r] : maps[t]) {
        bool beaten = false;
        for (unsigned u = 0; u < n && !beaten; ++u) {
          if (u == t) continue;
          auto it = maps[u].find(k);
          beaten = it != maps[u].end() && r.priority() < it->second.priority();
        }
        yielded += !beaten;
      }
    benchmark::DoNotOptimize(yielded);
  }
  perWalk(state, n, yielded);
}

void OrderInit(benchmark::State& state) {
  unsigned const n = tablesOf(state);
  Kiv::Ptr<MfibVornColl const> const coll = Fixture::get().coll(n);
  std::size_t keys = 0;
  for (auto _ : state) {
    Kiv::Ptr<RouteOrderedCollection> ordered = RouteOrderedCollection::create();
    Kiv::Ptr<OrderRouteSm> sm = orderRouteSmFactory(coll, ordered);
    keys = ordered->routes();
    state.PauseTiming();
    sm = nullptr;
    ordered = nullptr;
    state.ResumeTiming();
  }
  perWalk(state, n, 0);
  state.counters["keys"] = double(keys);
}

// The best table per key from std::maps into a std::map: what the initial
// pass produces, computed the direct way.
void BaselineMapOrderInit(benchmark::State& state) {
  unsigned const n = tablesOf(state);
  auto const& maps = Fixture::get().maps();
  std::size_t keys = 0;
  for (auto _ : state) {
    std::map<IpGenRouteKey, std::pair<unsigned, RoutePriority>> best;
    for (unsigned t = 0; t < n; ++t)
      for (auto const& [k, r] : maps[t]) {
        auto [it, added] = best.try_emplace(k, t, r.priority());
        if (!added && it->second.second < r.priority()) it->second = {t, r.priority()};
      }
    keys = best.size();
    state.PauseTiming();
    best.clear();
    state.ResumeTiming();
  }
  perWalk(state, n, 0);
  state.counters["keys"] = double(keys);
}

void tableCounts(benchmark::internal::Benchmark* b) { b->ArgName("tables")->Arg(1)->Arg(2)->Arg(4)->Arg(8); }
void queryShapes(benchmark::internal::Benchmark* b) {
  b->ArgNames({"tables", "keys"});
  for (long keys : {long(kQueries), 1024L})
    for (long tables : {1, 2, 4, 8}) b->Args({tables, keys});
}

std::uint64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1000000000u + std::uint64_t(ts.tv_nsec);
}

void medianAndP99(benchmark::State& state, std::vector<double>& us) {
  std::sort(us.begin(), us.end());
  if (us.empty()) return;
  state.counters["median_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[us.size() * 99 / 100];
}

// A private table root, removed with everything in it when the run ends.
struct BenchRoot {
  BenchRoot() {
    char t[] = "/dev/shm/mfib-bench.XXXXXX";
    if (::mkdtemp(t) == nullptr) std::abort();
    path = t;
  }
  ~BenchRoot() {
    std::string const cmd = "rm -rf '" + path + "'";
    if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", path.c_str());
  }
  std::string path;
};

void AnnounceToCollection(benchmark::State& state) {
  BenchRoot root;
  // The directory machine's ring-buffer records go with the tables.
  Brisklog::Config trace = Brisklog::config();
  trace.dir = root.path;
  Brisklog::configIs(trace);
  int go[2], stamps[2];
  if (::pipe(go) != 0 || ::pipe(stamps) != 0) std::abort();
  pid_t const child = ::fork();
  if (child == 0) {
    // The application: one new VRF per byte read, its doAddVorn timed.
    ::close(go[1]);
    ::close(stamps[0]);
    auto em = Stelo::EntityManager::entityManagerIs(nullptr, root.path);
    KivVorn::Mount mount(em);
    mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf("bench"));
    auto dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
    auto writer = mfibDirWriterFactory("bench", dir, mfibVornDirFactory(), em);
    for (unsigned i = 0;; ++i) {
      char c;
      if (::read(go[0], &c, 1) != 1) break;
      std::string const vrf = "v" + std::to_string(i);
      std::uint64_t stamp[2];
      stamp[0] = nowNs();
      writer->doAddVorn(vrf, "mfib/" + vrf + "/bench");
      stamp[1] = nowNs();
      if (::write(stamps[1], stamp, sizeof stamp) != sizeof stamp) break;
    }
    ::_exit(0);
  }
  ::close(go[0]);
  ::close(stamps[1]);
  Kiv::EventLoop loop;
  auto em = Stelo::EntityManager::entityManagerIs(&loop, root.path);
  KivVorn::Mount mount(em);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
  auto vornDir = mfibVornDirFactory();
  auto sm = mfibDirSmFactory(Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl)), vornDir, em);
  // Stamps the moment a collection first holds a table.
  struct Watch : MfibVornDir::NotifieeConst {
    using MfibVornDir::NotifieeConst::NotifieeConst;
    struct Coll : MfibVornColl::NotifieeConst {
      Coll(Kiv::Ptr<MfibVornColl const> const& c, std::uint64_t* t) : MfibVornColl::NotifieeConst(c), t(t) {}
      void onVornPtr(Status const*) override {
        if (*t == 0) *t = nowNs();
      }
      std::uint64_t* t;
    };
    void onVornColl(L3::VrfName vrf) override {
      if (auto c = notifier()->vornColl(vrf)) colls.push_back(std::make_unique<Coll>(c, &t1));
    }
    std::vector<std::unique_ptr<Coll>> colls;
    std::uint64_t t1 = 0;
  } watch(vornDir);

  std::vector<double> us, addUs, readerUs;
  for (auto _ : state) {
    watch.t1 = 0;
    if (::write(go[1], "g", 1) != 1) break;
    if (!loop.runUntil([&] { return watch.t1 != 0; }, 10.0)) {
      state.SkipWithError("the reader never saw the table");
      break;
    }
    std::uint64_t stamp[2];
    if (::read(stamps[0], stamp, sizeof stamp) != sizeof stamp) break;
    us.push_back(double(watch.t1 - stamp[0]) / 1000.0);
    addUs.push_back(double(stamp[1] - stamp[0]) / 1000.0);
    // The reader may hold the table before doAddVorn has returned.
    readerUs.push_back((double(watch.t1) - double(stamp[1])) / 1000.0);
  }
  ::close(go[1]);
  ::waitpid(child, nullptr, 0);
  ::close(stamps[0]);
  Brisklog::close();
  medianAndP99(state, us);
  // Of which the writer spends this in doAddVorn itself (creating the
  // table), and the reader this from the announcement on (waking up,
  // mounting and following the table).
  std::sort(addUs.begin(), addUs.end());
  std::sort(readerUs.begin(), readerUs.end());
  if (!addUs.empty()) state.counters["doAddVorn_median_us"] = addUs[addUs.size() / 2];
  if (!readerUs.empty()) state.counters["reader_median_us"] = readerUs[readerUs.size() / 2];
}

void PipeRoundTripBaseline(benchmark::State& state) {
  int there[2], back[2];
  if (::pipe(there) != 0 || ::pipe(back) != 0) std::abort();
  pid_t const child = ::fork();
  if (child == 0) {
    ::close(there[1]);
    ::close(back[0]);
    Kiv::EventLoop loop;
    bool done = false;
    loop.readableIs(there[0], [&] {
      std::uint64_t ts;
      if (::read(there[0], &ts, sizeof ts) != sizeof ts) {
        done = true;
        return;
      }
      if (::write(back[1], &ts, sizeof ts) != sizeof ts) done = true;
    });
    loop.runUntil([&] { return done; }, 120.0);
    ::_exit(0);
  }
  ::close(there[0]);
  ::close(back[1]);
  Kiv::EventLoop loop;
  std::uint64_t latest = 0;
  loop.readableIs(back[0], [&] {
    std::uint64_t ts;
    if (::read(back[0], &ts, sizeof ts) == sizeof ts) latest = ts;
  });
  std::vector<double> us;
  for (auto _ : state) {
    std::uint64_t const t0 = nowNs();
    if (::write(there[1], &t0, sizeof t0) != sizeof t0) break;
    if (!loop.runUntil([&] { return latest == t0; }, 10.0)) break;
    us.push_back(double(nowNs() - t0) / 1000.0);
  }
  ::close(there[1]);
  ::waitpid(child, nullptr, 0);
  ::close(back[0]);
  medianAndP99(state, us);
}

// What a reader does when a table is announced, on a table of 0 or 100,000
// routes: map it, start following its changes and enter it in a VRF's
// collection.
void ReaderMount(benchmark::State& state) {
  unsigned const routes = static_cast<unsigned>(state.range(0));
  std::string const path = "/dev/shm/mfib-bench-mount-" + std::to_string(getpid());
  ::unlink(path.c_str());
  Kiv::Ptr<Status> writer = new Status("bench-mount-writer");
  writer->mountIs(path, Vorn::Status::Mode::writer);
  for (unsigned j = 0; j < routes; ++j) writer->routePublish(routeOf(0, j));
  Kiv::EventLoop loop;
  for (auto _ : state) {
    Kiv::Ptr<Status> reader = new Status("bench-mount-reader");
    reader->mountIs(path, Vorn::Status::Mode::reader);
    reader->followIs(&loop);
    auto coll = mfibVornCollFactory(L3::VrfName("default"));
    coll->vornPtrIs(reader.ptr(), reader);
    benchmark::DoNotOptimize(coll);
    state.PauseTiming();
    reader->followIs(nullptr);
    coll = nullptr;
    reader = nullptr;
    state.ResumeTiming();
  }
  ::unlink(path.c_str());
}

// One application publishes 1,000,000 routes into one VRF's table, which
// starts empty at the schema's limit and grows as it is written; a reader
// mapping in this process then finds every one. Counters: routes per
// second of the publish, and the table's memory (the file's allocated
// bytes) when empty and when full, in bytes per route.
void PublishMillionRoutes(benchmark::State& state) {
  constexpr unsigned kRoutes = 1000000;
  std::string const path = "/dev/shm/mfib-bench-million-" + std::to_string(getpid());
  auto allocated = [&] {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? double(st.st_blocks) * 512 : 0.0;
  };
  double emptyBytes = 0, fullBytes = 0, seconds = 0;
  for (auto _ : state) {
    ::unlink(path.c_str());
    Kiv::Ptr<Status> writer = new Status("bench-million-writer");
    writer->mountIs(path, Vorn::Status::Mode::writer);
    emptyBytes = allocated();
    auto const start = std::chrono::steady_clock::now();
    for (unsigned j = 0; j < kRoutes; ++j) writer->routePublish(routeOf(0, j));
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    fullBytes = allocated();
    Kiv::Ptr<Status> reader = new Status("bench-million-reader");
    reader->mountIs(path, Vorn::Status::Mode::reader);
    ::unlink(path.c_str());
    unsigned found = 0;
    for (unsigned j = 0; j < kRoutes; ++j) found += reader->route(keyOf(j)) != Route();
    if (found != kRoutes || reader->routeTable().size() != kRoutes) state.SkipWithError("routes went missing");
  }
  state.counters["routesPerSecond"] = kRoutes / seconds;
  state.counters["emptyTableKiB"] = emptyBytes / 1024;
  state.counters["fullTableMiB"] = fullBytes / (1024 * 1024);
  state.counters["bytesPerRoute"] = fullBytes / kRoutes;
}

BENCHMARK(AnnounceToCollection)->Iterations(100)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PipeRoundTripBaseline)->Iterations(100)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RouteQuery)->Apply(queryShapes);
BENCHMARK(BaselineMapRouteQuery)->Apply(queryShapes);
BENCHMARK(MergeWalk)->Apply(tableCounts)->Unit(benchmark::kMillisecond);
BENCHMARK(BaselineMapMergeWalk)->Apply(tableCounts)->Unit(benchmark::kMillisecond);
BENCHMARK(OrderInit)->Apply(tableCounts)->Unit(benchmark::kMillisecond);
BENCHMARK(BaselineMapOrderInit)->Apply(tableCounts)->Unit(benchmark::kMillisecond);
BENCHMARK(ReaderMount)->ArgName("routes")->Arg(0)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PublishMillionRoutes)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
