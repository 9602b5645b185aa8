// The route model at scale, each figure beside a baseline measured in the
// same run: a std::unordered_map from route key to a plain struct holding
// the same fields as a route (scalars, raw pointers in place of counted
// ones, and the two MFIB route copies).
//
//   Lifecycle   create N routes in one table (mrouteIs), look each up in a
//               shuffled order, delete them; counters createNs, lookupNs,
//               deleteNs per route, and bytesPerRoute: resident memory
//               after creation minus before (read from /proc/self/statm,
//               after handing freed memory back to the system).
//   Share       N routes over 10k distinct sets of 8 port-VLANs each, every
//               route's set computed afresh and found or created through
//               the registry (MrouteTableColl::oifSetFor); perRoute and
//               liveOifSets (10k expected). Baseline: a hash map from the
//               sorted pair list to a shared_ptr.
//   Review      one DirtyInfo with one dirty VLAN bucket tested against
//               every route of the table with mrouteDirty, walking the
//               table's route list; perRoute. Beside it the same walk over
//               the table's hash map. Baseline: the same bit test over the
//               plain structs of the baseline map.
//
// N is 100k by default so that `make bench` stays short; pass --routes=N
// (for example --routes=1000000) for the figures at scale.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "MrouteLib/MrouteLib.h"

namespace {

using namespace MrouteLib;
// Phases are timed in this thread's CPU time: the figures are compared with
// a baseline on a machine that other work shares.
struct Clock {
  using time_point = std::chrono::nanoseconds;
  static time_point now() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
  }
};

unsigned gRoutes = 100000;
constexpr unsigned kSets = 10000;
constexpr unsigned kPvsPerSet = 8;

IpGenRouteKey keyOf(unsigned i) {
  return IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0x0a000000u + i / 64)),
                       Wirly::IpGenPrefix(Wirly::IpGenAddr::v4(0xe8000000u + i % 64)));
}

std::vector<IpGenRouteKey> const& keys() {
  static std::vector<IpGenRouteKey> k = [] {
    std::vector<IpGenRouteKey> v;
    v.reserve(gRoutes);
    for (unsigned i = 0; i < gRoutes; ++i) v.push_back(keyOf(i));
    return v;
  }();
  return k;
}

std::vector<IpGenRouteKey> const& shuffledKeys() {
  static std::vector<IpGenRouteKey> k = [] {
    std::vector<IpGenRouteKey> v = keys();
    std::shuffle(v.begin(), v.end(), std::mt19937(42));
    return v;
  }();
  return k;
}

// What a route holds, as plain fields.
struct PlainRoute {
  std::uint32_t vlanFilter = 0, vlanPortFilter = 0;
  std::uint64_t vlanGroupFilter = 0;
  std::uint32_t lagFilter = 0;
  bool dirty = false, noRpf = false, markedForDeletion = false, fastdropDirty = false, optimizeStatus = false;
  std::uint16_t fastdropCount = 0;
  VlanIdOrNone acceptingVlanId, notifyingVlanId, staticFastdropVlanId, frrVlanId, prevFrr;
  IpGenRouteKey key;
  void* table = nullptr;
  Wirly::IntfId acceptingIntfId;
  std::uint32_t review = 0, version = 0, mcastGroupRequestId = 0;
  Vorn::Multicast::Fib::RpaIndex rpaId;
  void *oifSet = nullptr, *notifyOifSet = nullptr, *staticFastdropOifSet = nullptr, *frrOifSet = nullptr;
  void *rpfFailureCount = nullptr, *fastdrop = nullptr, *oifIndexIntfIdCache = nullptr;
  Vorn::Multicast::Fib::Route vornRoute, lastSeenVornRoute;
};
using PlainMap = std::unordered_map<IpGenRouteKey, PlainRoute>;

long residentBytes() {
  malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

double nsPer(Clock::time_point a, Clock::time_point b, unsigned n) {
  return std::chrono::duration<double, std::nano>(b - a).count() / n;
}

struct Phases {
  double create = 0, lookup = 0, del = 0, bytes = 0;
  void report(benchmark::State& state) {
    double const n = static_cast<double>(state.iterations());
    state.counters["createNs"] = create / n;
    state.counters["lookupNs"] = lookup / n;
    state.counters["deleteNs"] = del / n;
    state.counters["bytesPerRoute"] = bytes / n;
    state.counters["routes"] = gRoutes;
  }
};

void BM_Lifecycle_Mroute(benchmark::State& state) {
  Phases p;
  for (auto _ : state) {
    long const before = residentBytes();
    auto table = mrouteTableFactory("default");
    auto t0 = Clock::now();
    for (auto const& k : keys()) table->mrouteIs(k);
    auto t1 = Clock::now();
    p.bytes += double(residentBytes() - before) / gRoutes;
    auto t2 = Clock::now();
    for (auto const& k : shuffledKeys()) benchmark::DoNotOptimize(table->mroute(k).ptr());
    auto t3 = Clock::now();
    for (auto const& k : shuffledKeys()) table->mrouteDel(k);
    auto t4 = Clock::now();
    p.create += nsPer(t0, t1, gRoutes);
    p.lookup += nsPer(t2, t3, gRoutes);
    p.del += nsPer(t3, t4, gRoutes);
  }
  p.report(state);
}

void BM_Lifecycle_Baseline(benchmark::State& state) {
  Phases p;
  for (auto _ : state) {
    long const before = residentBytes();
    PlainMap map;
    auto t0 = Clock::now();
    for (auto const& k : keys()) map.try_emplace(k).first->second.key = k;
    auto t1 = Clock::now();
    p.bytes += double(residentBytes() - before) / gRoutes;
    auto t2 = Clock::now();
    for (auto const& k : shuffledKeys()) {
      auto it = map.find(k);
      benchmark::DoNotOptimize(it == map.end() ? nullptr : &it->second);
    }
    auto t3 = Clock::now();
    for (auto const& k : shuffledKeys()) map.erase(k);
    auto t4 = Clock::now();
    p.create += nsPer(t0, t1, gRoutes);
    p.lookup += nsPer(t2, t3, gRoutes);
    p.del += nsPer(t3, t4, gRoutes);
  }
  p.report(state);
}

// The 8 port-VLAN pairs of set s: a spread of interfaces and VLANs.
PortVlan pvOf(unsigned s, unsigned j) {
  static std::vector<Wirly::IntfId> const ports = [] {
    std::vector<Wirly::IntfId> v;
    for (int i = 1; i <= 48; ++i) v.emplace_back("Ethernet" + std::to_string(i));
    return v;
  }();
  return PortVlan(ports[(s * 7 + j) % 48], Bridging::VlanId(1 + (s / 7 + j * 13) % 4000));
}

void BM_Share_Mroute(benchmark::State& state) {
  auto coll = mrouteTableCollFactory();
  auto table = coll->vrfMrouteTableIs("default");
  std::vector<Kiv::Ptr<Mroute>> routes;
  routes.reserve(gRoutes);
  for (auto const& k : keys()) routes.push_back(table->mrouteIs(k));
  std::size_t live = 0;
  for (auto _ : state) {
    auto t0 = Clock::now();
    for (unsigned i = 0; i < gRoutes; ++i) {
      unsigned const s = i % kSets;
      PortVlanSet set;
      for (unsigned j = 0; j < kPvsPerSet; ++j) set.portVlanIs(pvOf(s, j), true);
      set.acceptingVlanIdIs(Bridging::VlanId(1 + s % 4000));
      routes[i]->oifSetIs(coll->oifSetFor(std::move(set)));
    }
    auto t1 = Clock::now();
    live = coll->oifSets();
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    for (auto const& r : routes) r->oifSetIs(nullptr);  // the registry empties again
    if (coll->oifSets() != 0) state.SkipWithError("registry kept sets nobody holds");
  }
  state.counters["perRoute"] =
      benchmark::Counter(double(gRoutes), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["liveOifSets"] = double(live);
}

struct PvVecHash {
  std::size_t operator()(std::vector<PortVlan> const& v) const noexcept {
    std::size_t h = 0;
    for (auto const& p : v) h = h * 31 + p.hash();
    return h;
  }
};

void BM_Share_Baseline(benchmark::State& state) {
  struct PlainSet {
    std::vector<PortVlan> pvs;
    Bridging::VlanId acceptingVlanId;
  };
  std::unordered_map<std::vector<PortVlan>, std::weak_ptr<PlainSet>, PvVecHash> registry;
  std::vector<std::shared_ptr<PlainSet>> routes(gRoutes);
  std::size_t live = 0;
  for (auto _ : state) {
    auto t0 = Clock::now();
    for (unsigned i = 0; i < gRoutes; ++i) {
      unsigned const s = i % kSets;
      std::vector<PortVlan> pvs;
      pvs.reserve(kPvsPerSet);
      for (unsigned j = 0; j < kPvsPerSet; ++j) pvs.push_back(pvOf(s, j));
      std::sort(pvs.begin(), pvs.end());
      auto& slot = registry[pvs];
      auto set = slot.lock();
      if (!set) {
        set = std::make_shared<PlainSet>(PlainSet{pvs, Bridging::VlanId(1 + s % 4000)});
        slot = set;
      }
      routes[i] = std::move(set);
    }
    auto t1 = Clock::now();
    live = registry.size();
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    for (auto& r : routes) r.reset();
    registry.clear();
  }
  state.counters["perRoute"] =
      benchmark::Counter(double(gRoutes), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["liveOifSets"] = double(live);
}

// Routes whose VLAN filters spread over the 32 buckets; one bucket dirty,
// so one route in 32 is touched.
void BM_Review_Mroute(benchmark::State& state) {
  auto table = mrouteTableFactory("default");
  for (unsigned i = 0; i < gRoutes; ++i) table->mrouteIs(keys()[i])->vlanFilterIs(1u << (i % 32));
  auto dirty = table->dirtyInfoIs();
  dirty->dirtyVlanIs(1u << 5);
  std::size_t touched = 0;
  for (auto _ : state) {
    touched = 0;
    for (Mroute const& r : table->mrouteList()) touched += dirty->mrouteDirty(r);
    benchmark::DoNotOptimize(touched);
  }
  state.counters["perRoute"] =
      benchmark::Counter(double(gRoutes), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["touched"] = double(touched);
}

// The same review walking the table's hash map instead of its dense list:
// one dependent cache miss per route, which the list exists to avoid.
void BM_Review_MrouteMapWalk(benchmark::State& state) {
  auto table = mrouteTableFactory("default");
  for (unsigned i = 0; i < gRoutes; ++i) table->mrouteIs(keys()[i])->vlanFilterIs(1u << (i % 32));
  auto dirty = table->dirtyInfoIs();
  dirty->dirtyVlanIs(1u << 5);
  std::size_t touched = 0;
  for (auto _ : state) {
    touched = 0;
    for (auto const& [k, r] : table->mrouteMap()) touched += dirty->mrouteDirty(*r);
    benchmark::DoNotOptimize(touched);
  }
  state.counters["perRoute"] =
      benchmark::Counter(double(gRoutes), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["touched"] = double(touched);
}

void BM_Review_Baseline(benchmark::State& state) {
  PlainMap map;
  for (unsigned i = 0; i < gRoutes; ++i) map[keys()[i]].vlanFilter = 1u << (i % 32);
  std::uint32_t const dirtyVlan = 1u << 5;
  std::size_t touched = 0;
  for (auto _ : state) {
    touched = 0;
    for (auto const& [k, r] : map) touched += r.dirty || (dirtyVlan & r.vlanFilter) != 0;
    benchmark::DoNotOptimize(touched);
  }
  state.counters["perRoute"] =
      benchmark::Counter(double(gRoutes), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["touched"] = double(touched);
}

BENCHMARK(BM_Lifecycle_Mroute)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lifecycle_Baseline)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Share_Mroute)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Share_Baseline)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Review_Mroute)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Review_MrouteMapWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Review_Baseline)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // --routes=N is ours; everything else goes to Google Benchmark.
  int out = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--routes=", 9) == 0) {
      gRoutes = static_cast<unsigned>(std::strtoul(argv[i] + 9, nullptr, 10));
      if (gRoutes == 0) {
        std::fprintf(stderr, "MrouteLibBench: --routes needs a positive number\n");
        return 2;
      }
    } else {
      argv[out++] = argv[i];
    }
  }
  argc = out;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext("routes", std::to_string(gRoutes));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
