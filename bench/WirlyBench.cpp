// The packet pool beside plain heap buffers of the same size, taken and
// released once per iteration as a receive loop does per datagram.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "Wirly/Pkt.h"

namespace {

void PktPoolTakeAndRelease(benchmark::State& state) {
  auto& m = Wirly::PktManager::global();
  std::size_t const size = std::size_t(state.range(0));
  std::uint64_t const before = m.allocations();
  for (auto _ : state) {
    auto p = m.newPkt(size);
    p->headDataIs(size);
    p->data()[0] = 1;
    benchmark::DoNotOptimize(p->data());
  }
  // Steady state allocates nothing: at most the first packet of the class.
  state.counters["allocations"] = double(m.allocations() - before);
}
BENCHMARK(PktPoolTakeAndRelease)->Arg(1490)->Arg(65535);

void BaselineHeapBuffer(benchmark::State& state) {
  std::size_t const size = std::size_t(state.range(0));
  for (auto _ : state) {
    std::unique_ptr<std::uint8_t[]> b(new std::uint8_t[size]);
    b[0] = 1;
    benchmark::DoNotOptimize(b.get());
  }
}
BENCHMARK(BaselineHeapBuffer)->Arg(1490)->Arg(65535);

}  // namespace

BENCHMARK_MAIN();
