// The writer's slow path: making the file, registering call sites, handing
// out rings, refreshing the clock reading. Everything here runs at most once
// per call site, per thread or per second; the per-record path is inline in
// Brisklog.h.
#include "Brisklog/Brisklog.h"

#include "Brisklog/Retention.h"
#include "Kiv/MappingGuard.h"
#include "Kiv/PathTrust.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <new>
#include <string>

namespace Brisklog {
namespace detail {

thread_local constinit ThreadSlot tSlot __attribute__((tls_model("initial-exec"))) = {};

// Never a real generation, so neither a fresh thread slot (0) nor a fresh
// call site (0) matches while no file is open.
constexpr std::uint32_t kClosed = 0xffffffffu;
std::atomic<std::uint32_t> gGeneration{kClosed};

// Where the threads writing the shared ring have reserved: a position | 1,
// 0 for a free slot. A writer takes a slot before it reserves and frees it
// once its record is committed.
constexpr std::uint32_t kIntentSlots = 64;
std::atomic<std::uint64_t> gIntent[kIntentSlots];
std::atomic<std::uint32_t> gIntentsUsed{0};  // slots ever taken: the ones to look at

}  // namespace detail

namespace {

using detail::gGeneration;
using detail::kClosed;
using detail::tSlot;

std::atomic<bool> gOff{false};
std::atomic<FileHeader*> gHeader{nullptr};
std::atomic<std::uint64_t> gTicksPerSecond{0};

struct State {
  std::mutex mutex;
  Config config;
  bool configured = false;
  bool atforkDone = false;
  bool atexitDone = false;
  std::uint32_t nextGeneration = 1;
  std::uint32_t generation = 0;  // of the open file, 0 when none
  char* base = nullptr;
  std::size_t bytes = 0;
  std::string path;
  int fd = -1;  // open, and locked, while the file is in use
  std::uint32_t keepPerProgram = 0;
  // Someone may truncate or remove-and-shrink the file under the writer;
  // records then go nowhere, but the process lives.
  Kiv::MappingGuard guard;
  bool truncationSaid = false;
};

// Leaked on purpose: static destructors of other objects may still write.
State& state() {
  static State* s = new State;
  return *s;
}

std::uint32_t envNumber(char const* name, std::uint32_t fallback) {
  char const* v = std::getenv(name);
  if (!v || !*v) return fallback;
  char* end = nullptr;
  unsigned long n = std::strtoul(v, &end, 10);
  return (end && *end == '\0' && n > 0 && n <= 0xffffffffu) ? std::uint32_t(n) : fallback;
}

// Like envNumber, but 0 is a value.
std::uint64_t envCount(char const* name, std::uint64_t fallback) {
  char const* v = std::getenv(name);
  if (!v || !*v) return fallback;
  char* end = nullptr;
  unsigned long long n = std::strtoull(v, &end, 10);
  return (end && *end == '\0' && n < (1ull << 44)) ? n : fallback;
}

Config configFromEnv() {
  Config c;
  if (char const* d = std::getenv("BRISKLOG_DIR")) c.dir = d;
  std::uint32_t kb = envNumber("BRISKLOG_RING_KB", 0);
  if (kb) c.ringBytes = kb >= (kMaxRingBytes >> 10) ? kMaxRingBytes : kb << 10;
  c.ringCount = envNumber("BRISKLOG_RINGS", c.ringCount);
  if (char const* clk = std::getenv("BRISKLOG_CLOCK")) c.useTsc = std::string(clk) != "monotonic";
  if (char const* on = std::getenv("BRISKLOG")) {
    std::string v(on);
    c.enabled = !(v == "off" || v == "0" || v == "no");
  }
  c.keepPerProgram = std::uint32_t(std::min<std::uint64_t>(envCount("BRISKLOG_KEEP", c.keepPerProgram), 1u << 20));
  c.dirBudgetBytes = envCount("BRISKLOG_DIR_MB", c.dirBudgetBytes >> 20) << 20;
  return c;
}

std::uint32_t roundUpPow2(std::uint32_t v) {
  std::uint32_t p = kMinRingBytes;
  while (p < v && p < kMaxRingBytes) p <<= 1;
  return p;
}

std::string processName() {
  std::string name;
  std::ifstream comm("/proc/self/comm");
  std::getline(comm, name);
  if (name.empty()) name = program_invocation_short_name;
  for (char& ch : name) {
    bool ok = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '.' ||
              ch == '_' || ch == '-';
    if (!ok) ch = '_';
  }
  return name.empty() ? "process" : name;
}

// The TSC is usable as a clock only if it runs at a constant rate through
// frequency changes and sleep states; the kernel says so in the CPU flags.
bool tscInvariant() {
#if defined(__x86_64__) || defined(__i386__)
  static bool const invariant = [] {
    std::ifstream info("/proc/cpuinfo");
    std::string line;
    while (std::getline(info, line)) {
      if (line.rfind("flags", 0) == 0) {
        line += ' ';
        return line.find(" constant_tsc ") != std::string::npos && line.find(" nonstop_tsc ") != std::string::npos;
      }
    }
    return false;
  }();
  return invariant;
#else
  return false;
#endif
}

std::int64_t clockNs(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

ClockSync readClocks() {
  ClockSync s;
  s.monoNs = clockNs(CLOCK_MONOTONIC);
  s.ticks = detail::ticks(tSlot);
  s.realNs = clockNs(CLOCK_REALTIME);
  return s;
}

void fail(State& s, char const* call, std::string const& what, int err) {
  std::fprintf(stderr, "brisklog: %s %s: %s; trace records are off\n", call, what.c_str(), std::strerror(err));
  gOff.store(true);
  (void)s;
}

void unmapLocked(State& s) {
  s.guard.release();
  if (s.base) munmap(s.base, s.bytes);
  if (s.fd >= 0) ::close(s.fd);
  s.fd = -1;
  s.base = nullptr;
  s.bytes = 0;
  s.generation = 0;
  s.path.clear();
  gHeader.store(nullptr);
  gGeneration.store(kClosed);
}

RingHeader* ringAt(State& s, std::uint32_t i) {
  FileHeader const* h = reinterpret_cast<FileHeader const*>(s.base);
  return reinterpret_cast<RingHeader*>(s.base + h->layout.ringOffset +
                                       std::uint64_t(i) * (kRingHeaderBytes + h->layout.ringBytes));
}

// The child of a fork must not write into its parent's file; it makes its own
// on its first record. Only the forking thread exists in the child. Closing
// its copy of the descriptor leaves the parent's lock in place.
void afterForkInChild() {
  State& s = state();
  new (&s.mutex) std::mutex;
  unmapLocked(s);
  // Threads that were mid-record in the parent do not exist here.
  for (auto& intent : detail::gIntent) intent.store(0, std::memory_order_relaxed);
}

// A new file, locked by this process for as long as it keeps the
// descriptor. A file left at the path by an earlier process with this pid
// is replaced, not reused: a reader may still have it mapped, and a pruner
// that locked it may be about to remove it by name.
int createLocked(std::string const& path) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) {
      if (errno != EEXIST || (::unlink(path.c_str()) != 0 && errno != ENOENT)) return -1;
      continue;
    }
    // A pruner may have taken the new, still empty, file for an abandoned
    // one between the open and the lock; then the name no longer leads here.
    struct stat mine {
    }, named{};
    if (flock(fd, LOCK_EX) == 0 && fstat(fd, &mine) == 0 && stat(path.c_str(), &named) == 0 &&
        mine.st_ino == named.st_ino && mine.st_dev == named.st_dev)
      return fd;
    ::close(fd);
  }
  errno = EAGAIN;
  return -1;
}

// What a process that ends normally never wrote goes back to the file
// system. A page past each ring's head is kept for the records that other
// threads, which exit() stops wherever they are, may be writing meanwhile.
void trimLocked(State& s) {
  FileHeader const* h = reinterpret_cast<FileHeader const*>(s.base);
  FileLayout const& l = h->layout;
  std::uint64_t const page = std::uint64_t(sysconf(_SC_PAGESIZE));
  auto giveBack = [&](std::uint64_t from, std::uint64_t to) {
    from = (from + page - 1) / page * page;
    to = to / page * page;
    if (to > from) fallocate(s.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(from), off_t(to - from));
  };
  std::uint32_t const used = __atomic_load_n(&h->descriptorUsed, __ATOMIC_RELAXED);
  giveBack(l.descriptorOffset + used, l.ringOffset);
  for (std::uint32_t i = 0; i < l.ringCount; ++i) {
    std::uint64_t const data = l.ringOffset + std::uint64_t(i) * (kRingHeaderBytes + l.ringBytes) + kRingHeaderBytes;
    std::uint64_t const head = __atomic_load_n(&ringAt(s, i)->head, __ATOMIC_ACQUIRE);
    if (head + page < l.ringBytes) giveBack(data + head + page, data + l.ringBytes);
  }
}

void atExit() {
  State& s = state();
  // Another thread may hold the lock for good as the process ends.
  std::unique_lock<std::mutex> lock(s.mutex, std::try_to_lock);
  if (!lock.owns_lock() || s.generation == 0 || s.guard.truncated()) return;
  if (s.keepPerProgram == 0) {
    ::unlink(s.path.c_str());
    return;
  }
  trimLocked(s);
}

bool openLocked(State& s) {
  if (s.generation != 0) return true;
  if (gOff.load()) return false;
  Config c = s.configured ? s.config : configFromEnv();
  if (!c.enabled) {
    gOff.store(true);
    return false;
  }
  std::uint32_t ringBytes = roundUpPow2(c.ringBytes);
  std::uint32_t ringCount = std::clamp<std::uint32_t>(c.ringCount, 1, kMaxRings);
  std::uint32_t descBytes = (std::clamp<std::uint32_t>(c.descriptorBytes, 4096, kMaxDescriptorBytes) + 7) & ~7u;
  std::uint32_t maxRecord = std::min<std::uint32_t>(ringBytes / 4, 65528) & ~7u;
  std::uint32_t maxString =
      std::min<std::uint32_t>({c.maxStringBytes, kMaxStringLimit, maxRecord - std::uint32_t(sizeof(RecordHeader)) - 2});

  std::string dir = c.dir;
  if (dir.empty()) {
    char const* env = std::getenv("BRISKLOG_DIR");
    dir = env && *env ? env : "/dev/shm";
  }
  if (dir != "/dev/shm") {
    // A directory someone else owns could be swapped for a link to a file
    // of ours, which the open below would truncate.
    try {
      Kiv::PathTrust::dirMake(dir, {"trace directory", "BRISKLOG_DIR"});
    } catch (Kiv::Exception const& e) {
      std::fprintf(stderr, "brisklog: %s; trace records are off\n", e.what());
      gOff.store(true);
      return false;
    }
  }
  std::string name = processName();
  pid_t pid = getpid();
  std::string path = dir + "/" + name + "-" + std::to_string(pid) + ".brisklog";

  std::size_t bytes = kHeaderBytes + std::size_t(descBytes) + std::size_t(ringCount) * (kRingHeaderBytes + ringBytes);
  int fd = createLocked(path);
  if (fd < 0) {
    fail(s, "open", path, errno);
    return false;
  }
  if (ftruncate(fd, off_t(bytes)) != 0) {
    int err = errno;
    ::close(fd);
    ::unlink(path.c_str());
    fail(s, "ftruncate", path, err);
    return false;
  }
  // Every page is allocated now (on tmpfs that is memory): on a full file
  // system a write to a page first touched later would kill the process
  // with SIGBUS.
  if (int err = posix_fallocate(fd, 0, off_t(bytes)); err != 0) {
    ::close(fd);
    ::unlink(path.c_str());
    fail(s, "posix_fallocate", path, err);
    return false;
  }
  void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (m == MAP_FAILED) {
    int err = errno;
    ::close(fd);
    ::unlink(path.c_str());
    fail(s, "mmap", path, err);
    return false;
  }
  char* base = static_cast<char*>(m);
  s.guard = Kiv::MappingGuard(m, bytes);
  s.truncationSaid = false;

  bool useTsc = c.useTsc && tscInvariant();
  tSlot.useTsc = useTsc;  // readClocks reads the chosen clock through the slot
  ClockSync first = readClocks();
  ClockSync second = first;
  double tps = 1e9;
  if (useTsc) {
    // A short measurement for files read before the writers refresh the
    // clock reading; the reader prefers the rate over the file's lifetime.
    while (second.monoNs - first.monoNs < 2000000) second = readClocks();
    tps = double(second.ticks - first.ticks) * 1e9 / double(second.monoNs - first.monoNs);
  }

  FileHeader* h = reinterpret_cast<FileHeader*>(base);
  FileLayout l;
  std::memset(&l, 0, sizeof l);
  std::memcpy(l.magic, kMagic, sizeof l.magic);
  l.version = kVersion;
  l.headerBytes = kHeaderBytes;
  l.fileBytes = bytes;
  l.pid = std::uint32_t(pid);
  l.clockKind = std::uint32_t(useTsc ? ClockKind::tsc : ClockKind::monotonicNs);
  std::strncpy(l.processName, name.c_str(), sizeof l.processName - 1);
  l.descriptorOffset = kHeaderBytes;
  l.descriptorBytes = descBytes;
  l.maxStringBytes = maxString;
  l.ringOffset = kHeaderBytes + std::uint64_t(descBytes);
  l.ringBytes = ringBytes;
  l.ringCount = ringCount;
  l.maxRecordBytes = maxRecord;
  l.sharedRing = ringCount - 1;
  l.ticksPerSecond = tps;
  l.opened = first;
  h->layoutChecksum = layoutChecksum(l);
  h->latest = second;
  h->syncSeq = 0;
  for (std::uint32_t i = 0; i < ringCount; ++i) {
    auto* ring = reinterpret_cast<RingHeader*>(base + l.ringOffset + std::uint64_t(i) * (kRingHeaderBytes + ringBytes));
    ring->shared = i == l.sharedRing ? 1 : 0;
  }
  // The magic goes last: a reader never sees a header that is half made.
  std::memcpy(reinterpret_cast<char*>(&h->layout) + sizeof l.magic, reinterpret_cast<char const*>(&l) + sizeof l.magic,
              sizeof l - sizeof l.magic);
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(h->layout.magic, kMagic, sizeof kMagic);

  s.base = base;
  s.bytes = bytes;
  s.path = path;
  s.fd = fd;
  s.keepPerProgram = c.keepPerProgram;
  s.generation = s.nextGeneration++;
  if (s.nextGeneration == kClosed) s.nextGeneration = 1;
  gTicksPerSecond.store(std::uint64_t(tps));
  gHeader.store(h);
  gGeneration.store(s.generation, std::memory_order_release);
  if (!s.atforkDone) {
    pthread_atfork(nullptr, nullptr, afterForkInChild);
    s.atforkDone = true;
  }
  if (!s.atexitDone) {
    std::atexit(atExit);
    s.atexitDone = true;
  }
  // Once this file is made and locked, so that processes starting at the
  // same time see it as in use.
  prune(dir, Retention{c.keepPerProgram, c.dirBudgetBytes}, name);
  return true;
}

std::uint32_t registerLocked(State& s, CallSite const& site, char const* signature) {
  FileHeader* h = reinterpret_cast<FileHeader*>(s.base);
  char const* file = site.file ? site.file : "";
  if (char const* slash = std::strrchr(file, '/')) file = slash + 1;
  char const* texts[] = {site.source ? site.source : "", file, site.function ? site.function : "",
                         site.format ? site.format : "", signature};
  std::size_t need = sizeof(DescriptorHeader);
  for (char const* t : texts) need += std::strlen(t) + 1;
  need = (need + 7) & ~std::size_t(7);
  std::uint32_t used = h->descriptorUsed;
  if (used + need > h->layout.descriptorBytes) {
    __atomic_fetch_add(&h->descriptorOverflows, 1, __ATOMIC_RELAXED);
    return 0;
  }
  char* entry = s.base + h->layout.descriptorOffset + used;
  std::uint32_t id = h->descriptorCount + 1;
  DescriptorHeader dh{0, id, std::uint32_t(need), std::uint32_t(site.line)};
  std::memcpy(entry, &dh, sizeof dh);
  char* o = entry + sizeof dh;
  for (char const* t : texts) {
    std::size_t n = std::strlen(t) + 1;
    std::memcpy(o, t, n);
    o += n;
  }
  __atomic_store_n(reinterpret_cast<std::uint32_t*>(entry), used ^ kDescriptorKey, __ATOMIC_RELEASE);
  __atomic_store_n(&h->descriptorCount, id, __ATOMIC_RELEASE);
  __atomic_store_n(&h->descriptorUsed, used + std::uint32_t(need), __ATOMIC_RELEASE);
  return id;
}

// Set once the thread's ring is freed at its end; a record written later
// in that thread's teardown (by another thread-local's destructor) goes to
// the shared ring.
thread_local bool tRingFreed = false;

// Frees the thread's exclusive ring when the thread ends.
struct RingRelease {
  std::uint32_t generation = 0;
  std::uint32_t index = 0;
  std::uint32_t tid = 0;
  ~RingRelease() {
    tRingFreed = true;
    tSlot.generation = 0;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (generation == 0 || generation != s.generation) return;
    std::uint32_t expected = tid;
    __atomic_compare_exchange_n(&ringAt(s, index)->owner, &expected, 0, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
  }
};

void claimLocked(State& s) {
  FileHeader const* h = reinterpret_cast<FileHeader const*>(s.base);
  std::uint32_t tid = std::uint32_t(gettid());
  std::uint32_t index = h->layout.sharedRing;
  for (std::uint32_t i = 0; i < h->layout.sharedRing && !tRingFreed; ++i) {
    std::uint32_t expected = 0;
    if (__atomic_compare_exchange_n(&ringAt(s, i)->owner, &expected, tid, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
      index = i;
      break;
    }
  }
  RingHeader* ring = ringAt(s, index);
  tSlot.shared = index == h->layout.sharedRing ? 1 : 0;
  tSlot.ring = ring;
  tSlot.data = reinterpret_cast<char*>(ring) + kRingHeaderBytes;
  tSlot.mask = h->layout.ringBytes - 1;
  tSlot.maxRecord = h->layout.maxRecordBytes;
  tSlot.maxString = h->layout.maxStringBytes;
  tSlot.nextSyncTicks = 0;
  tSlot.useTsc = h->layout.clockKind == std::uint32_t(ClockKind::tsc);
  tSlot.generation = s.generation;
  if (!tSlot.shared) {
    static thread_local RingRelease release;
    release.generation = s.generation;
    release.index = index;
    release.tid = tid;
  }
}

}  // namespace

namespace detail {

bool prepare(CallSite& site, char const* signature) {
  if (gOff.load(std::memory_order_relaxed)) return false;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!openLocked(s)) return false;
  std::uint32_t gen = s.generation;
  if (std::uint32_t(site.key.load(std::memory_order_relaxed) >> 32) != gen) {
    std::uint32_t id = registerLocked(s, site, signature);
    site.key.store(std::uint64_t(gen) << 32 | id, std::memory_order_relaxed);
  }
  if (tSlot.generation != gen) claimLocked(s);
  return true;
}

void syncClock(std::uint64_t now) {
  tSlot.nextSyncTicks = now + gTicksPerSecond.load(std::memory_order_relaxed);
  FileHeader* h = gHeader.load(std::memory_order_relaxed);
  if (!h || __atomic_exchange_n(&h->syncBusy, 1, __ATOMIC_ACQUIRE)) return;
  State& s = state();
  if (s.guard.truncated() && !s.truncationSaid) {
    s.truncationSaid = true;
    std::fprintf(stderr, "brisklog: %s was truncated under the writer; records since are lost\n", s.path.c_str());
  }
  ClockSync c = readClocks();
  std::uint32_t seq = h->syncSeq;
  __atomic_store_n(&h->syncSeq, seq + 1, __ATOMIC_RELAXED);
  std::atomic_thread_fence(std::memory_order_release);
  __atomic_store_n(&h->latest.ticks, c.ticks, __ATOMIC_RELAXED);
  __atomic_store_n(&h->latest.realNs, c.realNs, __ATOMIC_RELAXED);
  __atomic_store_n(&h->latest.monoNs, c.monoNs, __ATOMIC_RELAXED);
  __atomic_store_n(&h->syncSeq, seq + 2, __ATOMIC_RELEASE);
  __atomic_store_n(&h->syncBusy, 0, __ATOMIC_RELEASE);
}

std::atomic<std::uint64_t>* takeIntent(ThreadSlot& t, std::uint64_t value) {
  std::uint32_t const first = t.intent ? t.intent - 1 : std::uint32_t(gettid()) % kIntentSlots;
  for (std::uint32_t k = 0; k < kIntentSlots; ++k) {
    std::uint32_t const i = (first + k) % kIntentSlots;
    std::uint64_t expected = 0;
    if (gIntent[i].compare_exchange_strong(expected, value, std::memory_order_seq_cst)) {
      t.intent = i + 1;
      std::uint32_t used = gIntentsUsed.load(std::memory_order_relaxed);
      while (used <= i && !gIntentsUsed.compare_exchange_weak(used, i + 1, std::memory_order_seq_cst)) {
      }
      return &gIntent[i];
    }
  }
  t.intent = 0;  // more threads than slots mid-record: this record goes unannounced
  return nullptr;
}

// Waits until no slot announces a reservation of an earlier lap whose
// record may still be written into [from, from + length) of the ring. A
// reservation is announced before it is made (both sequentially
// consistent), so a writer that reserved before this one is seen here, or
// has finished. A slot announces where its writer saw the head, so its
// record lies within two records' length of it (a padding marker and a
// record at the next lap's start when it wraps).
// The reservation a writer last gave up waiting for: a thread stopped for
// good costs one wait, not one per record or per thread.
std::atomic<std::uint64_t> gGivenUp{0};

void awaitEarlierLap(ThreadSlot const& t, std::atomic<std::uint64_t> const* mine, std::uint64_t from,
                     std::uint64_t length) {
  std::uint64_t const ringBytes = t.mask + 1;
  std::uint64_t const reach = 2 * std::uint64_t(t.maxRecord);
  std::uint32_t const used = gIntentsUsed.load(std::memory_order_seq_cst);
  for (std::uint32_t i = 0; i < used; ++i) {
    if (&gIntent[i] == mine) continue;
    std::uint64_t const v = gIntent[i].load(std::memory_order_seq_cst);
    std::uint64_t const at = v & ~std::uint64_t(1);
    if (v == 0 || from + length <= at + ringBytes) continue;  // not a lap behind
    std::uint64_t const gap = (from - at) & t.mask;
    if (gap >= reach && gap + length <= ringBytes) continue;  // elsewhere in the ring
    if (v == gGivenUp.load(std::memory_order_relaxed)) continue;
    std::uint64_t const deadline = ticks(t) + gTicksPerSecond.load(std::memory_order_relaxed) / 10;
    for (int spin = 0; gIntent[i].load(std::memory_order_acquire) == v; ++spin) {
      if (spin < 64) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
        continue;
      }
      if (ticks(t) > deadline) {
        // Stopped for good, it seems: write anyway, and do not wait for it again.
        gGivenUp.store(v, std::memory_order_relaxed);
        break;
      }
      sched_yield();
    }
  }
}

std::uint64_t reserveShared(ThreadSlot& t, std::uint64_t need) {
  std::uint64_t pos = __atomic_load_n(&t.ring->head, __ATOMIC_SEQ_CST);
  std::atomic<std::uint64_t>* mine = takeIntent(t, pos | 1);
  std::uint64_t start;
  for (;;) {
    start = pos;
    if ((pos & t.mask) + need > t.mask + 1) start = (pos | t.mask) + 1;
    if (__atomic_compare_exchange_n(&t.ring->head, &pos, start + need, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
      break;
    if (mine) mine->store(pos | 1, std::memory_order_seq_cst);
  }
  awaitEarlierLap(t, mine, pos, start + need - pos);
  if (start != pos) {
    __atomic_store_n(reinterpret_cast<std::uint64_t*>(t.data + (pos & t.mask)), pos ^ kPadKey, __ATOMIC_RELEASE);
  }
  return start;
}

void doneShared(ThreadSlot& t) {
  if (t.intent) gIntent[t.intent - 1].store(0, std::memory_order_release);
}

}  // namespace detail

Config config() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.configured ? s.config : configFromEnv();
}

void configIs(Config const& c) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  unmapLocked(s);
  s.config = c;
  s.configured = true;
  gOff.store(false);
}

bool open() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return openLocked(s);
}

void close() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  unmapLocked(s);
}

std::string path() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.path;
}

}  // namespace Brisklog
