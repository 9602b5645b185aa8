// Cost of one trace record, side by side with formatting the same text with
// snprintf into a buffer and with spdlog's asynchronous logger, for records
// with no argument, three integers and one string; and the cost of the
// timestamp sources a record could use.
//
// Each benchmark iteration times a batch of kBatch calls; the reported
// percentiles are over those batches, in nanoseconds per call. A summary
// table with the ratios follows Google Benchmark's own output.

// Debian builds spdlog as a library on the system fmt.
#define SPDLOG_COMPILED_LIB
#define SPDLOG_FMT_EXTERNAL

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "Brisklog/Brisklog.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace {

constexpr int kBatch = 64;

std::string gDir;
std::shared_ptr<spdlog::logger> gSpdlog;       // drops the oldest message when full
std::shared_ptr<spdlog::logger> gSpdlogBlock;  // spdlog's default: the caller waits

struct Figures {
  double p50 = 0;
  double p99 = 0;
  double mean = 0;
};
std::map<std::string, Figures> gFigures;

std::int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

template <class F>
void timed(benchmark::State& state, char const* name, F&& call) {
  std::vector<double> samples;
  samples.reserve(1 << 16);
  for (auto _ : state) {
    std::int64_t t0 = nowNs();
    for (int i = 0; i < kBatch; ++i) call(i);
    std::int64_t t1 = nowNs();
    if (samples.size() < samples.capacity()) samples.push_back(double(t1 - t0) / kBatch);
  }
  if (samples.empty()) return;
  std::sort(samples.begin(), samples.end());
  Figures f;
  f.p50 = samples[samples.size() / 2];
  f.p99 = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
  double sum = 0;
  for (double s : samples) sum += s;
  f.mean = sum / double(samples.size());
  state.counters["p50_ns"] = f.p50;
  state.counters["p99_ns"] = f.p99;
  state.counters["mean_ns"] = f.mean;
  state.SetItemsProcessed(state.iterations() * kBatch);
  gFigures[name] = f;
}

void useBrisklog(bool tsc, std::uint32_t rings = 4) {
  Brisklog::Config c;
  c.dir = gDir;
  c.ringBytes = 1u << 20;
  c.ringCount = rings;
  c.useTsc = tsc;
  Brisklog::configIs(c);
  Brisklog::open();
}

char const* const kIntf = "Ethernet12/1";

// -- Brisklog ------------------------------------------------------------

void Brisklog_NoArgs(benchmark::State& state) {
  useBrisklog(true);
  timed(state, "Brisklog_NoArgs", [](int) { BRISKLOG("Bench", "Start review of kernel upcalls"); });
}

void Brisklog_ThreeInts(benchmark::State& state) {
  useBrisklog(true);
  timed(state, "Brisklog_ThreeInts", [](int i) { BRISKLOG("Bench", "route version %d != %d at %d", i, i + 1, 512); });
}

void Brisklog_OneString(benchmark::State& state) {
  useBrisklog(true);
  timed(state, "Brisklog_OneString", [](int) { BRISKLOG("Bench", "WrongVifMessage on intf: %s", kIntf); });
}

// The same record with CLOCK_MONOTONIC read through the vDSO for its time.
void Brisklog_ThreeInts_ClockGettime(benchmark::State& state) {
  useBrisklog(false);
  timed(state, "Brisklog_ThreeInts_ClockGettime",
        [](int i) { BRISKLOG("Bench", "route version %d != %d at %d", i, i + 1, 512); });
  useBrisklog(true);
}

// The same records in a ring every thread shares: space taken by
// compare-and-swap, the record built on the stack and checksummed first.
void Brisklog_ThreeInts_SharedRing(benchmark::State& state) {
  useBrisklog(true, 1);
  timed(state, "Brisklog_ThreeInts_SharedRing",
        [](int i) { BRISKLOG("Bench", "route version %d != %d at %d", i, i + 1, 512); });
  useBrisklog(true);
}

void Brisklog_OneString_SharedRing(benchmark::State& state) {
  useBrisklog(true, 1);
  timed(state, "Brisklog_OneString_SharedRing", [](int) { BRISKLOG("Bench", "WrongVifMessage on intf: %s", kIntf); });
  useBrisklog(true);
}

// -- snprintf into a buffer ----------------------------------------------

void Snprintf_NoArgs(benchmark::State& state) {
  char buf[256];
  timed(state, "Snprintf_NoArgs", [&](int) {
    std::snprintf(buf, sizeof buf, "Start review of kernel upcalls");
    benchmark::DoNotOptimize(buf);
  });
}

void Snprintf_ThreeInts(benchmark::State& state) {
  char buf[256];
  timed(state, "Snprintf_ThreeInts", [&](int i) {
    std::snprintf(buf, sizeof buf, "route version %d != %d at %d", i, i + 1, 512);
    benchmark::DoNotOptimize(buf);
  });
}

void Snprintf_OneString(benchmark::State& state) {
  char buf[256];
  timed(state, "Snprintf_OneString", [&](int) {
    std::snprintf(buf, sizeof buf, "WrongVifMessage on intf: %s", kIntf);
    benchmark::DoNotOptimize(buf);
  });
}

// -- spdlog, asynchronous ------------------------------------------------

void Spdlog_NoArgs(benchmark::State& state) {
  timed(state, "Spdlog_NoArgs", [](int) { gSpdlog->info("Start review of kernel upcalls"); });
}

void Spdlog_ThreeInts(benchmark::State& state) {
  timed(state, "Spdlog_ThreeInts", [](int i) { gSpdlog->info("route version {} != {} at {}", i, i + 1, 512); });
}

void Spdlog_OneString(benchmark::State& state) {
  timed(state, "Spdlog_OneString", [](int) { gSpdlog->info("WrongVifMessage on intf: {}", kIntf); });
}

void SpdlogBlock_NoArgs(benchmark::State& state) {
  timed(state, "SpdlogBlock_NoArgs", [](int) { gSpdlogBlock->info("Start review of kernel upcalls"); });
}

void SpdlogBlock_ThreeInts(benchmark::State& state) {
  timed(state, "SpdlogBlock_ThreeInts",
        [](int i) { gSpdlogBlock->info("route version {} != {} at {}", i, i + 1, 512); });
}

void SpdlogBlock_OneString(benchmark::State& state) {
  timed(state, "SpdlogBlock_OneString", [](int) { gSpdlogBlock->info("WrongVifMessage on intf: {}", kIntf); });
}

// -- timestamp sources ---------------------------------------------------

#if defined(__x86_64__) || defined(__i386__)
void Clock_Rdtsc(benchmark::State& state) {
  timed(state, "Clock_Rdtsc", [](int) { benchmark::DoNotOptimize(__rdtsc()); });
}
#endif

template <clockid_t id>
void Clock_Gettime(benchmark::State& state) {
  char const* name = id == CLOCK_MONOTONIC  ? "Clock_Gettime_MONOTONIC"
                     : id == CLOCK_REALTIME ? "Clock_Gettime_REALTIME"
                                            : "Clock_Gettime_MONOTONIC_COARSE";
  timed(state, name, [](int) {
    timespec ts;
    clock_gettime(id, &ts);
    benchmark::DoNotOptimize(ts);
  });
}

BENCHMARK(Brisklog_NoArgs);
BENCHMARK(Brisklog_ThreeInts);
BENCHMARK(Brisklog_OneString);
BENCHMARK(Brisklog_ThreeInts_ClockGettime);
BENCHMARK(Brisklog_ThreeInts_SharedRing);
BENCHMARK(Brisklog_OneString_SharedRing);
BENCHMARK(Snprintf_NoArgs);
BENCHMARK(Snprintf_ThreeInts);
BENCHMARK(Snprintf_OneString);
BENCHMARK(Spdlog_NoArgs);
BENCHMARK(Spdlog_ThreeInts);
BENCHMARK(Spdlog_OneString);
BENCHMARK(SpdlogBlock_NoArgs);
BENCHMARK(SpdlogBlock_ThreeInts);
BENCHMARK(SpdlogBlock_OneString);
#if defined(__x86_64__) || defined(__i386__)
BENCHMARK(Clock_Rdtsc);
#endif
BENCHMARK(Clock_Gettime<CLOCK_MONOTONIC>)->Name("Clock_Gettime_MONOTONIC");
BENCHMARK(Clock_Gettime<CLOCK_REALTIME>)->Name("Clock_Gettime_REALTIME");
BENCHMARK(Clock_Gettime<CLOCK_MONOTONIC_COARSE>)->Name("Clock_Gettime_MONOTONIC_COARSE");

void summary() {
  std::printf("\nns per call (p50 / p99 over batches of %d)\n", kBatch);
  std::printf("%-10s %16s %16s %16s %16s %9s %9s\n", "record", "Brisklog", "snprintf", "spdlog drop", "spdlog block",
              "drop/B", "block/B");
  for (char const* kind : {"NoArgs", "ThreeInts", "OneString"}) {
    auto get = [&](std::string const& lib) {
      auto found = gFigures.find(lib + "_" + kind);
      return found == gFigures.end() ? Figures{} : found->second;
    };
    Figures b = get("Brisklog"), s = get("Snprintf"), l = get("Spdlog"), k = get("SpdlogBlock");
    auto cell = [](Figures f) {
      static char buf[4][32];
      static int n = 0;
      char* out = buf[n++ % 4];
      std::snprintf(out, 32, "%.1f / %.1f", f.p50, f.p99);
      return out;
    };
    std::printf("%-10s %16s %16s %16s %16s %8.1fx %8.1fx\n", kind, cell(b), cell(s), cell(l), cell(k),
                b.p50 > 0 ? l.p50 / b.p50 : 0.0, b.p50 > 0 ? k.p50 / b.p50 : 0.0);
  }
  auto p50 = [](char const* name) {
    auto found = gFigures.find(name);
    return found == gFigures.end() ? 0.0 : found->second.p50;
  };
  std::printf("\nBrisklog, three integers: rdtsc %.1f ns, clock_gettime %.1f ns\n", p50("Brisklog_ThreeInts"),
              p50("Brisklog_ThreeInts_ClockGettime"));
  std::printf(
      "Brisklog, shared ring (checksummed) beside an exclusive one: three integers %.1f vs %.1f ns,"
      " one string %.1f vs %.1f ns\n",
      p50("Brisklog_ThreeInts_SharedRing"), p50("Brisklog_ThreeInts"), p50("Brisklog_OneString_SharedRing"),
      p50("Brisklog_OneString"));
  std::printf("timestamp alone: rdtsc %.1f, MONOTONIC %.1f, REALTIME %.1f, MONOTONIC_COARSE %.1f ns\n",
              p50("Clock_Rdtsc"), p50("Clock_Gettime_MONOTONIC"), p50("Clock_Gettime_REALTIME"),
              p50("Clock_Gettime_MONOTONIC_COARSE"));
}

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/dev/shm/brisklog-bench-XXXXXX";
  if (!mkdtemp(tmpl)) {
    std::perror("mkdtemp");
    return 1;
  }
  gDir = tmpl;
  // spdlog with the policy closest to a ring's: a full queue drops its
  // oldest message rather than blocking the caller.
  spdlog::init_thread_pool(1 << 16, 1);
  auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(gDir + "/spdlog.log", true);
  gSpdlog = std::make_shared<spdlog::async_logger>("bench", sink, spdlog::thread_pool(),
                                                   spdlog::async_overflow_policy::overrun_oldest);
  gSpdlogBlock = std::make_shared<spdlog::async_logger>("benchBlock", sink, spdlog::thread_pool(),
                                                        spdlog::async_overflow_policy::block);

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  summary();
  benchmark::Shutdown();

  gSpdlog.reset();
  gSpdlogBlock.reset();
  spdlog::shutdown();
  std::string const path = Brisklog::path();
  Brisklog::close();
  unlink(path.c_str());
  unlink((gDir + "/spdlog.log").c_str());
  // Files of earlier configurations in this run.
  std::string const rm = "rm -rf '" + gDir + "'";
  return std::system(rm.c_str()) == 0 ? 0 : 1;
}
