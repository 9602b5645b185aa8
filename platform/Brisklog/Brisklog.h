// Compact binary trace records in a memory-mapped ring buffer that outlives
// the process, cheap enough to leave on in production.
//
//   BRISKLOG("RouteIntfIteratorConst", "next(): route version mismatch %u!=%u",
//            tableVersion, capturedVersion);
//   BRISKLOG("MrtNotifyPam", "WrongVifMessage on intf: %s for src: %s and grp: %s",
//            intfName, Brisklog::Addr(srcV4), Brisklog::Addr(grpV4));
//
// Each call site registers its descriptor (source, file, function, line,
// format text) in the file once; every record after that is a timestamp, the
// descriptor id and the arguments in binary. Formatting happens only when the
// file is decoded (Brisklog/Reader.h, tools/brisklog-cat).
//
// Arguments: integers of any width, enums, bool, char, double, pointers,
// addresses (Brisklog::Addr from in_addr, in6_addr or 4/16 raw bytes), and
// strings (char const*, std::string, std::string_view, Kiv::Name), cut to the
// configured bound and marked as cut. Another type takes part by providing
// `brisklogArg(T const&)`, found by argument-dependent lookup, that returns
// one of these.
//
// The write path takes no lock, allocates nothing and makes no system call
// (but for the rare wait in the shared ring, below). The process-wide file is made on the first record:
// "<dir>/<process>-<pid>.brisklog" with dir from configIs, else $BRISKLOG_DIR, else /dev/shm; a directory other
// than /dev/shm must belong to this user or root and be writable by nobody else (Kiv/PathTrust.h), or records
// are off. A forked child makes its own file on its first record.
//
// Retention: the file takes its whole size when made, so that a process
// that crashes leaves every committed record. A process that exits normally
// gives back the parts of its rings and descriptor table it never wrote
// (the file keeps its apparent size; `du` shows what it costs). The writer
// holds a lock on its file while it runs; when a process makes its file it
// prunes the directory (Brisklog/Retention.h): of processes that have gone
// it keeps the newest `keepPerProgram` files per process name, and removes
// gone files oldest first while the directory's trace files take more than
// `dirBudgetBytes`. Files of running processes are never removed.
//
// Threads: each thread claims a ring of its own on its first record and
// writes it without atomic read-modify-write; when every exclusive ring is
// taken, further threads share the last ring and reserve space in it by
// compare-and-swap. A thread writing there first says where it reserves;
// a thread that comes round the ring to space another has reserved a lap
// earlier and not yet finished (it was preempted mid-record) waits for it,
// yielding the processor, for up to 100 ms, so that no record is lost to a
// preemption, even on a busy machine. Past that (a thread stopped for
// longer, by a debugger say; the writers wait for it once) it writes
// anyway: the records are built on the stack and carry a checksum, so the
// late one, finishing in space the others have reused, leaves records the
// decoder drops and reports rather than prints mixed. A thread's ring is
// freed when the thread ends.
// configIs() and close() must not run while another thread writes.
//
// Crash survival: a record is committed by storing its position stamp last,
// with release ordering; a process killed at any point leaves a file in which
// every committed record decodes.
#pragma once

#include <netinet/in.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "Brisklog/Layout.h"
#include "Kiv/Name.h"

namespace Brisklog {

struct Config {
  std::string dir;                     // empty: $BRISKLOG_DIR, else /dev/shm
  std::uint32_t ringBytes = 1u << 20;  // per ring; rounded up to a power of two
  std::uint32_t ringCount = 4;         // the last one is shared by surplus threads
  std::uint32_t descriptorBytes = 256u << 10;
  std::uint32_t maxStringBytes = 200;
  bool useTsc = true;  // false, or no invariant TSC: CLOCK_MONOTONIC
  bool enabled = true;
  std::uint32_t keepPerProgram = 3;            // files of gone processes kept per name
  std::uint64_t dirBudgetBytes = 64ull << 20;  // all trace files of the directory; 0: no bound
};

// The configuration the next file is made with: the environment's
// (BRISKLOG_DIR, BRISKLOG_RING_KB, BRISKLOG_RINGS, BRISKLOG_CLOCK=tsc|monotonic,
// BRISKLOG=off, BRISKLOG_KEEP=<files>, BRISKLOG_DIR_MB=<MiB, 0: no bound>)
// until configIs is called.
Config config();
// Closes the current file; the next record makes a new one with `c`.
void configIs(Config const& c);
// Makes the file now rather than on the first record; false when tracing is
// off or the file could not be made (the reason went to stderr once).
bool open();
// Unmaps the current file, which stays where it is for the decoder.
void close();
// The current file's path, empty when none is open.
std::string path();

// An IPv4 or IPv6 address, kept as its network-order bytes.
struct Addr {
  std::uint8_t len = 0;
  std::uint8_t bytes[16] = {};

  Addr() = default;
  explicit Addr(in_addr a) : len(4) { std::memcpy(bytes, &a, 4); }
  explicit Addr(in6_addr const& a) : len(16) { std::memcpy(bytes, &a, 16); }
  explicit Addr(std::span<std::uint8_t const, 4> b) : len(4) { std::memcpy(bytes, b.data(), 4); }
  explicit Addr(std::span<std::uint8_t const, 16> b) : len(16) { std::memcpy(bytes, b.data(), 16); }
  // A host-order IPv4 address such as 0x0a000001 for 10.0.0.1.
  static Addr v4(std::uint32_t hostOrder) {
    in_addr a;
    a.s_addr = htonl(hostOrder);
    return Addr(a);
  }
};

// One per call site, made by BRISKLOG; constant-initialised.
struct CallSite {
  char const* source;
  char const* file;
  char const* function;
  int line;
  char const* format;
  std::atomic<std::uint64_t> key{0};  // file generation << 32 | descriptor id

  constexpr CallSite(char const* s, char const* fi, char const* fn, int l, char const* fmt)
      : source(s), file(fi), function(fn), line(l), format(fmt) {}
};

namespace detail {

struct Str {
  char const* p;
  std::size_t n;
};
struct AddrRef {
  Addr const* a;
};
struct Ptr {
  std::uint64_t v;
};

// The calling thread's ring. Trivial, so access needs no initialisation check.
struct ThreadSlot {
  std::uint32_t generation;  // file this slot belongs to; never 0 when valid
  std::uint32_t shared;
  RingHeader* ring;
  char* data;
  std::uint64_t mask;
  std::uint32_t maxRecord;
  std::uint32_t maxString;
  std::uint64_t nextSyncTicks;
  std::uint32_t useTsc;
  std::uint32_t intent;  // the shared ring's reservation slot last used, +1
};

extern thread_local constinit ThreadSlot tSlot __attribute__((tls_model("initial-exec")));
extern std::atomic<std::uint32_t> gGeneration;

// Slow path: makes the file, registers the call site, claims a ring.
// False when nothing should be written.
bool prepare(CallSite& site, char const* signature);
void syncClock(std::uint64_t ticks);
// Space in the shared ring, once no record of an earlier lap is still being
// written there; the caller ends the reservation with doneShared().
std::uint64_t reserveShared(ThreadSlot& t, std::uint64_t need);
void doneShared(ThreadSlot& t);

inline std::uint64_t ticks(ThreadSlot const& t) {
#if defined(__x86_64__) || defined(__i386__)
  if (__builtin_expect(t.useTsc != 0, 1)) return __builtin_ia32_rdtsc();
#else
  (void)t;
#endif
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1000000000ull + std::uint64_t(ts.tv_nsec);
}

// Arguments reduced to the wire kinds.
template <class T>
concept Native = std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_pointer_v<T> || std::is_null_pointer_v<T> ||
    std::is_same_v<T, Addr> || std::is_same_v<T, Kiv::Name> || std::is_convertible_v<T const&, std::string_view>;

template <class T>
concept HasArgHook = requires(T const& v) {
  brisklogArg(v);
};

// A type of another library becomes what its brisklogArg returns. The
// result, a temporary when returned by value, lives until the record is
// written: resolve() runs in the argument list of the call that writes it.
template <class T>
decltype(auto) resolve(T const& v) {
  if constexpr (Native<T>) {
    return (v);
  } else if constexpr (HasArgHook<T>) {
    static_assert(Native<std::remove_cvref_t<decltype(brisklogArg(v))>>,
                  "brisklogArg must return a type Brisklog records directly");
    return brisklogArg(v);
  } else {
    static_assert(sizeof(T) == 0, "Brisklog cannot record this argument type");
  }
}

template <class T>
auto norm(T const& v) {
  using U = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<U, bool> || std::is_same_v<U, char>) {
    return v;
  } else if constexpr (std::is_enum_v<U>) {
    return norm(static_cast<std::underlying_type_t<U>>(v));
  } else if constexpr (std::is_integral_v<U> && std::is_signed_v<U>) {
    return std::int64_t(v);
  } else if constexpr (std::is_integral_v<U>) {
    return std::uint64_t(v);
  } else if constexpr (std::is_floating_point_v<U>) {
    return double(v);
  } else if constexpr (std::is_same_v<U, Addr>) {
    return AddrRef{&v};
  } else if constexpr (std::is_same_v<U, Kiv::Name>) {
    return Str{v.str().data(), v.str().size()};
  } else if constexpr (std::is_same_v<U, char const*> || std::is_same_v<U, char*>) {
    return v ? Str{v, std::strlen(v)} : Str{"(null)", 6};
  } else if constexpr (std::is_convertible_v<T const&, std::string_view>) {
    std::string_view s(v);
    return Str{s.data(), s.size()};
  } else {
    static_assert(std::is_pointer_v<U> || std::is_null_pointer_v<U>);
    return Ptr{std::uint64_t(reinterpret_cast<std::uintptr_t>(v))};
  }
}

template <class N>
constexpr char kindOf() {
  if constexpr (std::is_same_v<N, std::int64_t>)
    return 'd';
  else if constexpr (std::is_same_v<N, std::uint64_t>)
    return 'u';
  else if constexpr (std::is_same_v<N, double>)
    return 'f';
  else if constexpr (std::is_same_v<N, bool>)
    return 'b';
  else if constexpr (std::is_same_v<N, char>)
    return 'c';
  else if constexpr (std::is_same_v<N, Ptr>)
    return 'p';
  else if constexpr (std::is_same_v<N, AddrRef>)
    return 'a';
  else
    return 's';
}

template <class... N>
inline constexpr char kSignature[] = {kindOf<N>()..., '\0'};

inline std::size_t wireBytes(std::int64_t, std::uint32_t) { return 8; }
inline std::size_t wireBytes(std::uint64_t, std::uint32_t) { return 8; }
inline std::size_t wireBytes(double, std::uint32_t) { return 8; }
inline std::size_t wireBytes(Ptr, std::uint32_t) { return 8; }
inline std::size_t wireBytes(bool, std::uint32_t) { return 1; }
inline std::size_t wireBytes(char, std::uint32_t) { return 1; }
inline std::size_t wireBytes(AddrRef a, std::uint32_t) { return 1u + (a.a->len == 16 ? 16u : 4u); }
inline std::size_t wireBytes(Str s, std::uint32_t maxString) { return 2 + std::min<std::size_t>(s.n, maxString); }

template <class V>
inline char* putRaw(char* o, V v) {
  std::memcpy(o, &v, sizeof v);
  return o + sizeof v;
}
inline char* put(char* o, std::int64_t v, std::uint32_t) { return putRaw(o, v); }
inline char* put(char* o, std::uint64_t v, std::uint32_t) { return putRaw(o, v); }
inline char* put(char* o, double v, std::uint32_t) { return putRaw(o, v); }
inline char* put(char* o, Ptr v, std::uint32_t) { return putRaw(o, v.v); }
inline char* put(char* o, bool v, std::uint32_t) { return putRaw(o, std::uint8_t(v)); }
inline char* put(char* o, char v, std::uint32_t) { return putRaw(o, v); }
inline char* put(char* o, AddrRef a, std::uint32_t) {
  std::uint8_t len = a.a->len == 16 ? 16 : 4;
  *o = char(len);
  std::memcpy(o + 1, a.a->bytes, len);
  return o + 1 + len;
}
// Names and addresses are short: copied inline with at most two overlapping
// moves, reading only the string's own bytes, instead of calling memcpy.
inline void copyShort(char* o, char const* p, std::size_t n) {
  if (n >= 8 && n <= 16) {
    std::memcpy(o, p, 8);
    std::memcpy(o + n - 8, p + n - 8, 8);
  } else if (n >= 4 && n < 8) {
    std::memcpy(o, p, 4);
    std::memcpy(o + n - 4, p + n - 4, 4);
  } else if (n < 4) {
    for (std::size_t i = 0; i < n; ++i) o[i] = p[i];
  } else {
    std::memcpy(o, p, n);
  }
}
inline char* put(char* o, Str s, std::uint32_t maxString) {
  std::size_t n = std::min<std::size_t>(s.n, maxString);
  std::uint16_t word = std::uint16_t(n) | (n < s.n ? kStringCut : 0);
  o = putRaw(o, word);
  copyShort(o, s.p, n);
  return o + n;
}

// Space for `bytes` (a multiple of 8) in the thread's exclusive ring; a record never
// wraps, the tail of a lap it would not fit in gets a padding marker.
inline std::uint64_t reserve(ThreadSlot& t, std::uint64_t need) {
  std::uint64_t pos = __atomic_load_n(&t.ring->head, __ATOMIC_RELAXED);
  std::uint64_t start = pos;
  if ((pos & t.mask) + need > t.mask + 1) start = (pos | t.mask) + 1;
  __atomic_store_n(&t.ring->head, start + need, __ATOMIC_RELAXED);
  // A reader that sees any byte stored below also sees the new head, and so
  // knows the older record that lay here is gone.
  std::atomic_thread_fence(std::memory_order_release);
  if (start != pos) {
    __atomic_store_n(reinterpret_cast<std::uint64_t*>(t.data + (pos & t.mask)), pos ^ kPadKey, __ATOMIC_RELEASE);
  }
  return start;
}

// Which leading arguments fit in `limit` bytes with the record header: a
// record longer than the ring allows keeps the arguments that fit, whole,
// and says so in its flags; the decoder marks the rest as cut.
template <class... N>
inline std::size_t fitting([[maybe_unused]] ThreadSlot const& t, [[maybe_unused]] std::size_t limit,
                           std::uint8_t& count, N... n) {
  std::size_t size = sizeof(RecordHeader);
  count = 0;
  [[maybe_unused]] bool fits = true;
  ((fits = fits && size + wireBytes(n, t.maxString) <= limit,
    fits ? void((size += wireBytes(n, t.maxString), ++count)) : void()),
   ...);
  return size;
}

// Header (without its stamp) and the first `count` arguments at `r`.
template <class... N>
inline void fill([[maybe_unused]] ThreadSlot const& t, char* r, std::uint32_t id, std::uint64_t now, std::size_t size,
                 std::uint8_t flags, std::uint8_t count, N... n) {
  RecordHeader h{0, now, id, std::uint16_t(size), flags, count};
  std::memcpy(r + 8, &h.ticks, sizeof h - 8);
  [[maybe_unused]] char* o = r + sizeof(RecordHeader);
  [[maybe_unused]] std::uint8_t i = 0;
  ((i < count ? void((o = put(o, n, t.maxString), ++i)) : void()), ...);
}

template <class... N>
[[gnu::noinline]] void writeTruncated(ThreadSlot& t, std::uint32_t id, std::uint64_t now, N... n) {
  std::uint8_t count = 0;
  std::size_t size = fitting(t, t.maxRecord, count, n...);
  std::uint64_t pos = reserve(t, (size + 7) & ~std::size_t(7));
  char* r = t.data + (pos & t.mask);
  fill(t, r, id, now, size, kRecordTruncated, count, n...);
  __atomic_store_n(reinterpret_cast<std::uint64_t*>(r), pos ^ kRecordKey, __ATOMIC_RELEASE);
}

// A record in the shared ring is built on the stack first: its checksum
// must cover the bytes this thread meant to write, not what is in the ring
// when it looks, since a thread that reserved the same space a lap earlier
// may still be writing there.
template <class... N>
[[gnu::noinline]] void writeShared(ThreadSlot& t, std::uint32_t id, std::uint64_t now, N... n) {
  std::uint8_t count = 0;
  std::size_t size = fitting(t, t.maxRecord - 8, count, n...);
  std::uint8_t flags = kRecordChecked | (count < sizeof...(N) ? kRecordTruncated : 0);
  std::size_t span = ((size + 7) & ~std::size_t(7)) + 8;
  char* r = static_cast<char*>(__builtin_alloca(span));
  std::memset(r + span - 16, 0, 16);  // the padding the checksum covers
  fill(t, r, id, now, size, flags, count, n...);
  std::uint64_t pos = reserveShared(t, span);
  std::uint64_t sum = recordChecksum(pos, r + 8, span - 16);
  std::memcpy(r + span - 8, &sum, 8);
  char* slot = t.data + (pos & t.mask);
  std::memcpy(slot + 8, r + 8, span - 8);
  __atomic_store_n(reinterpret_cast<std::uint64_t*>(slot), pos ^ kRecordKey, __ATOMIC_RELEASE);
  doneShared(t);
}

template <class... N>
inline void writeNormalized(CallSite& site, N... n) {
  ThreadSlot& t = tSlot;
  std::uint64_t key = site.key.load(std::memory_order_relaxed);
  std::uint32_t gen = gGeneration.load(std::memory_order_relaxed);
  if (__builtin_expect(t.generation != gen || std::uint32_t(key >> 32) != gen, 0)) {
    if (!prepare(site, kSignature<N...>)) return;
    key = site.key.load(std::memory_order_relaxed);
  }
  std::uint64_t now = ticks(t);
  std::size_t bytes = sizeof(RecordHeader) + (std::size_t(0) + ... + wireBytes(n, t.maxString));
  std::uint32_t id = std::uint32_t(key);
  if (__builtin_expect(t.shared != 0, 0)) {
    writeShared(t, id, now, n...);
  } else if (__builtin_expect(bytes > t.maxRecord, 0)) {
    writeTruncated(t, id, now, n...);
  } else {
    std::uint64_t pos = reserve(t, (bytes + 7) & ~std::size_t(7));
    char* r = t.data + (pos & t.mask);
    RecordHeader h{0, now, id, std::uint16_t(bytes), 0, std::uint8_t(sizeof...(N))};
    std::memcpy(r + 8, &h.ticks, sizeof h - 8);
    [[maybe_unused]] char* o = r + sizeof(RecordHeader);
    ((o = put(o, n, t.maxString)), ...);
    __atomic_store_n(reinterpret_cast<std::uint64_t*>(r), pos ^ kRecordKey, __ATOMIC_RELEASE);
  }
  if (__builtin_expect(now >= t.nextSyncTicks, 0)) syncClock(now);
}

}  // namespace detail

template <class... A>
inline void write(CallSite& site, A const&... a) {
  static_assert(sizeof...(A) <= 255, "too many arguments for one record");
  detail::writeNormalized(site, detail::norm(detail::resolve(a))...);
}

}  // namespace Brisklog

// One record: BRISKLOG(source, format, args...). `source` and `format` must
// be string literals or other texts that live as long as the process.
#define BRISKLOG(source, format, ...)                                                            \
  do {                                                                                           \
    static ::Brisklog::CallSite brisklogSite_((source), __FILE__, __func__, __LINE__, (format)); \
    ::Brisklog::write(brisklogSite_ __VA_OPT__(, ) __VA_ARGS__);                                 \
  } while (0)
