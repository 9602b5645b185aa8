// Upcall parsing per wire form and kind, beside a plain memcpy of the same
// bytes; and a real kernel storm in namespaces: upcalls drained per second
// through MrtNotifySm beside the rate at which the kernel raised them (root
// only; skipped otherwise).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <new>
#include <vector>

#include "../tests/MrtNotify/KernelTopology.h"
#include "Brisklog/Brisklog.h"
#include "Kiv/EventLoop.h"
#include "MrtNotify/MrtNotifySm.h"

namespace {
std::atomic<std::uint64_t> heapAllocations{0};
}  // namespace

// Counts heap allocations, so the parse can show it makes none. The pair
// below is malloc/free underneath, which GCC cannot see across the calls.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
  heapAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace Routing::Multicast::Notify;
using Bytes = std::vector<std::uint8_t>;

template <class T>
void append(Bytes& b, T const& v) {
  auto const* p = reinterpret_cast<std::uint8_t const*>(&v);
  b.insert(b.end(), p, p + sizeof(T));
}
void attr(Bytes& b, std::uint16_t type, void const* v, std::size_t n) {
  append(b, std::uint16_t(4 + n));
  append(b, type);
  auto const* p = static_cast<std::uint8_t const*>(v);
  b.insert(b.end(), p, p + n);
  b.resize((b.size() + 3) & ~std::size_t(3), 0);
}

// A kernel-shaped cache report of `kind`, with a 64-byte data packet for a
// whole packet.
Bytes netlinkReport(Wirly::AddressFamily af, std::uint8_t kind) {
  bool const v4 = af == Wirly::ipv4;
  Wirly::IpGenAddr const src(v4 ? "10.0.1.2" : "2001:db8:1::2"), grp(v4 ? "239.1.1.1" : "ff0e::1:1");
  Bytes b(20, 0);
  b[4] = 96;
  b[16] = v4 ? 128 : 129;
  attr(b, 1, &kind, 1);
  std::uint32_t const vif = kind == 3 ? 2 : 0;
  attr(b, 2, &vif, 4);
  attr(b, 3, src.bytes(), src.byteLength());
  attr(b, 4, grp.bytes(), grp.byteLength());
  Bytes data(64, 0);
  data[0] = v4 ? 0x45 : 0x60;
  std::memcpy(data.data() + (v4 ? 12 : 8), src.bytes(), src.byteLength());
  std::memcpy(data.data() + (v4 ? 16 : 24), grp.bytes(), grp.byteLength());
  attr(b, 5, data.data(), kind == 3 ? data.size() : (v4 ? 0 : 40));
  if (v4) {
    std::uint32_t const table = 253;  // what the kernel sends as attribute 6
    attr(b, 6, &table, 4);
  }
  std::uint32_t const len = std::uint32_t(b.size());
  std::memcpy(b.data(), &len, 4);
  return b;
}

Bytes igmpmsg(std::uint8_t kind) {
  Bytes b(kind == 3 ? 20 + 64 : 28, 0);
  b[0] = 0x45;
  b[8] = kind;
  Wirly::IpGenAddr const src("10.0.1.2"), grp("239.1.1.1");
  std::size_t const at = kind == 3 ? 20 + 12 : 12;
  std::memcpy(b.data() + at, src.bytes(), 4);
  std::memcpy(b.data() + at + 4, grp.bytes(), 4);
  if (kind == 3) b[20] = 0x45;
  return b;
}

struct TraceDir {
  TraceDir() {
    char tmpl[] = "/tmp/mrtnotify-bench.XXXXXX";
    dir = ::mkdtemp(tmpl);
    Brisklog::Config c = Brisklog::config();
    c.dir = dir;
    Brisklog::configIs(c);
  }
  ~TraceDir() {
    Brisklog::close();
    std::filesystem::remove_all(dir);
  }
  std::string dir;
};

// range(0): 0 routing socket IPv4, 1 netlink IPv4, 2 netlink IPv6; range(1): kind.
void ParseUpcall(benchmark::State& state) {
  int const form = int(state.range(0));
  auto const kind = std::uint8_t(state.range(1));
  Wirly::AddressFamily const af = form == 2 ? Wirly::ipv6 : Wirly::ipv4;
  Bytes const bytes = form == 0 ? igmpmsg(kind) : netlinkReport(af, kind);
  auto status = Routing::KernelMfib::Status::statusIs("kernelMfib");
  status->vifIntfIs(0, Wirly::IntfId("Ethernet1"));
  status->vifIntfIs(2, Wirly::IntfId("Register0"));
  auto m = mrtNotifyPamManagerFactory(af, Wirly::NamespaceName());
  if (form != 0) m->useNetlinkIs(true);
  auto pkt = Wirly::PktManager::global().newPkt(bytes.size());
  pkt->headDataIs(bytes.data(), bytes.size());
  m->readMrtMessage(pkt, status);  // warms the pool and the trace file
  std::uint64_t const before = heapAllocations.load();
  for (auto _ : state) {
    pkt->headDataIs(bytes.size());
    benchmark::DoNotOptimize(m->readMrtMessage(pkt, status));
  }
  state.counters["allocsPerUpcall"] =
      benchmark::Counter(double(heapAllocations.load() - before) / double(state.iterations()));
  state.SetBytesProcessed(std::int64_t(state.iterations() * bytes.size()));
}
BENCHMARK(ParseUpcall)->ArgNames({"form", "kind"})->ArgsProduct({{0, 1, 2}, {1, 2, 3}});

void BaselineMemcpy(benchmark::State& state) {
  int const form = int(state.range(0));
  auto const kind = std::uint8_t(state.range(1));
  Bytes const bytes = form == 0 ? igmpmsg(kind) : netlinkReport(form == 2 ? Wirly::ipv6 : Wirly::ipv4, kind);
  Bytes out(bytes.size());
  for (auto _ : state) {
    std::memcpy(out.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(std::int64_t(state.iterations() * bytes.size()));
}
BENCHMARK(BaselineMemcpy)->ArgNames({"form", "kind"})->ArgsProduct({{0, 1, 2}, {1, 2, 3}});

// A storm of distinct (S, G)s queued in the kernel, then drained.
void KernelStorm(benchmark::State& state) {
  using namespace MrtNotifyKernel;
  Topology t;
  if (!t.skip().empty() || !t.failed().empty()) {
    state.SkipWithError((t.skip() + t.failed()).c_str());
    return;
  }
  int const storm = int(state.range(0));
  Kiv::EventLoop loop;
  DefaultLoop useLoop(&loop);
  auto status = Routing::KernelMfib::Status::statusIs("kernelMfib");
  status->vifIntfIs(0, Wirly::IntfId("Ethernet1"));
  auto manager = mrtNotifyPamManagerFactory(Wirly::ipv4, t.router());
  manager->ipv4NativeReportsIs(true);
  manager->useNetlinkIs(true);
  manager->optionsIs(nocache);
  auto sm = mrtNotifySmFactory(manager, status);
  sm->handleInitialized();
  int const big = 64 << 20;
  ::setsockopt(manager->pam()->sd(), SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big));
  Router router(Wirly::ipv4, t.router(), "10.0.1.2", "239.9.0.1", "239.9.0.2");
  if (!router.ok()) {
    state.SkipWithError("cannot set up the multicast routing socket");
    return;
  }
  Fd s(Wirly::namespaceSocket(t.sender(), AF_INET, SOCK_DGRAM, 0));
  ip_mreqn mreq{};
  mreq.imr_ifindex = ifIndex(t.sender(), "vb");
  setOpt(s.fd, IPPROTO_IP, IP_MULTICAST_IF, mreq);
  setOpt(s.fd, IPPROTO_IP, IP_MULTICAST_TTL, 8);

  std::uint32_t next = 0;
  double sendSeconds = 0, drainSeconds = 0;
  std::uint64_t drained = 0;
  for (auto _ : state) {
    std::uint32_t const target = manager->noCacheCounter() + std::uint32_t(storm);
    auto const t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < storm; ++i) {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(5000);
      to.sin_addr.s_addr = htonl(0xEF0A0000u + ++next);
      ::sendto(s.fd, "storm", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    }
    auto const t1 = std::chrono::steady_clock::now();
    loop.runUntil([&] { return manager->noCacheCounter() >= target; }, 10.0);
    auto const t2 = std::chrono::steady_clock::now();
    sendSeconds += std::chrono::duration<double>(t1 - t0).count();
    drainSeconds += std::chrono::duration<double>(t2 - t1).count();
    drained += std::uint64_t(storm);
  }
  state.counters["kernelRaisedPerSec"] = benchmark::Counter(double(drained) / sendSeconds);
  state.counters["drainedPerSec"] = benchmark::Counter(double(drained) / drainSeconds);
  state.counters["counted"] = double(manager->noCacheCounter());
}
BENCHMARK(KernelStorm)->Arg(2000)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  TraceDir traces;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
