// One allocation followed by one release through the bit mapper, with the
// index space half full, including the writes to the shared table; beside an
// in-process baseline of the same policy (a std::deque free list and a
// std::unordered_map from key to index) in the same run. The space grows
// from 1k to 64k to show that the cost does not.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "BitMapper/BitMapperSm.h"

namespace {

BitMapper::BitMapperKey key(unsigned n) {
  return BitMapper::BitMapperKey(Wirly::IntfId("Ethernet" + std::to_string(n % 1000 + 1)),
                                 Wirly::IpGenAddr::v4(0xe0000000u + n));
}

std::vector<BitMapper::BitMapperKey> keys(unsigned n) {
  std::vector<BitMapper::BitMapperKey> out;
  for (unsigned i = 0; i < n; ++i) out.push_back(key(i));
  return out;
}

void BitMapperAllocRelease(benchmark::State& state) {
  unsigned const size = static_cast<unsigned>(state.range(0));
  std::string const path = "/dev/shm/bitmapper-bench-" + std::to_string(getpid());
  ::unlink(path.c_str());
  Kiv::Ptr<BitMapper::VornStatus> vorn = new BitMapper::VornStatus("bench");
  Vorn::MountOptions options;
  options.limit["bitIndexMap"] = size;
  vorn->mountIs(path, Vorn::Status::Mode::writer, options);
  auto config = BitMapper::configFactory(size, false);
  auto status = BitMapper::statusFactory();
  auto sm = BitMapper::bitMapperSmFactory(config, status, vorn);
  auto const ks = keys(size);
  for (unsigned i = 0; i < size / 2; ++i) {
    config->allocRequestKeyIs(ks[i]);
    config->allocRequestCountInc(1);
  }
  unsigned next = size / 2;
  for (auto _ : state) {
    BitMapper::BitMapperKey const& k = ks[next];
    config->allocRequestKeyIs(k);
    config->allocRequestCountInc(1);
    config->deallocRequestKeyIs(k);
    config->deallocRequestCountInc(1);
    if (++next == size) next = size / 2;
  }
  state.counters["tableSize"] = vorn->bitIndexMapTable().size();
  sm = nullptr;
  vorn->unmount();
  ::unlink(path.c_str());
}
BENCHMARK(BitMapperAllocRelease)->Arg(1024)->Arg(16384)->Arg(65534);

// The same policy in process memory only.
void BaselineDequeAndHashMap(benchmark::State& state) {
  unsigned const size = static_cast<unsigned>(state.range(0));
  std::deque<std::uint16_t> pool;
  std::unordered_map<BitMapper::BitMapperKey, std::uint16_t> held;
  for (unsigned i = 0; i < size; ++i) pool.push_back(static_cast<std::uint16_t>(i));
  auto const ks = keys(size);
  for (unsigned i = 0; i < size / 2; ++i) {
    held.emplace(ks[i], pool.front());
    pool.pop_front();
  }
  unsigned next = size / 2;
  for (auto _ : state) {
    BitMapper::BitMapperKey const& k = ks[next];
    auto [it, added] = held.try_emplace(k, 0);
    if (added) {
      it->second = pool.front();
      pool.pop_front();
    }
    auto found = held.find(k);
    pool.push_back(found->second);
    held.erase(found);
    if (++next == size) next = size / 2;
  }
}
BENCHMARK(BaselineDequeAndHashMap)->Arg(1024)->Arg(16384)->Arg(65534);

}  // namespace

BENCHMARK_MAIN();
