// The trace file's layout, shared by the writer and the reader. Fields are in
// the writing host's byte order: a file is decoded on the machine that wrote
// it (or one of the same architecture).
//
//   [FileHeader, padded to kHeaderBytes]
//   [descriptor area: DescriptorHeader + five NUL-terminated texts, repeated]
//   [ring 0: RingHeader (64 bytes) + ringBytes of records] [ring 1] ...
//
// Every record, padding marker and descriptor carries a stamp derived from its
// own position. The writer stores the stamp last, with release ordering, so a
// reader that finds the right stamp at a position knows the bytes behind it
// are complete, and a reader that lands in the middle of old data (after a
// wrap, or in a damaged file) finds the next record by scanning for a stamp
// that matches its position.
//
// In the shared ring a stamp alone is not enough: a thread preempted between
// reserving space and finishing its record may write into space the other
// threads have since reused, under a newer record's stamp. Records there
// carry a checksum over their bytes and position, computed from the
// writer's private copy, and the reader drops (and reports) a record whose
// checksum does not match.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Brisklog {

inline constexpr char kMagic[8] = {'B', 'R', 'I', 'S', 'K', 'L', 'O', 'G'};
inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::uint32_t kHeaderBytes = 4096;
inline constexpr std::uint32_t kRingHeaderBytes = 64;

inline constexpr std::uint64_t kRecordKey = 0x9e3779b97f4a7c15ull;
inline constexpr std::uint64_t kPadKey = 0xc2b2ae3d27d4eb4full;
inline constexpr std::uint32_t kDescriptorKey = 0x5bd1e995u;

// Limits the reader also uses to reject a damaged header.
inline constexpr std::uint32_t kMinRingBytes = 4096;
inline constexpr std::uint32_t kMaxRingBytes = 1u << 30;
inline constexpr std::uint32_t kMaxRings = 64;
inline constexpr std::uint32_t kMaxDescriptorBytes = 64u << 20;
inline constexpr std::uint32_t kMaxStringLimit = 0x7fff;
inline constexpr std::uint16_t kStringCut = 0x8000;  // in a string's length word

enum class ClockKind : std::uint32_t {
  tsc = 1,          // the CPU's invariant time-stamp counter
  monotonicNs = 2,  // CLOCK_MONOTONIC in nanoseconds
};

// One simultaneous reading of the record clock and the system clocks.
struct ClockSync {
  std::uint64_t ticks;
  std::int64_t realNs;  // CLOCK_REALTIME
  std::int64_t monoNs;  // CLOCK_MONOTONIC
};

// Written once when the file is made; covered by FileHeader::layoutChecksum.
struct FileLayout {
  char magic[8];
  std::uint32_t version;
  std::uint32_t headerBytes;
  std::uint64_t fileBytes;
  std::uint32_t pid;
  std::uint32_t clockKind;
  char processName[32];
  std::uint64_t descriptorOffset;
  std::uint32_t descriptorBytes;
  std::uint32_t maxStringBytes;
  std::uint64_t ringOffset;
  std::uint32_t ringBytes;  // record bytes per ring, a power of two
  std::uint32_t ringCount;
  std::uint32_t maxRecordBytes;
  std::uint32_t sharedRing;  // index of the ring every thread may write
  double ticksPerSecond;     // measured when the file was made
  ClockSync opened;
};

struct FileHeader {
  FileLayout layout;
  std::uint64_t layoutChecksum;
  // Clock reading refreshed by the writers about once a second, so that the
  // reader converts ticks with a rate measured over the file's whole life.
  // Seqlock: syncSeq is odd while `latest` is being written.
  alignas(64) std::uint32_t syncSeq;
  std::uint32_t syncBusy;  // try-lock among writer threads
  ClockSync latest;
  alignas(64) std::uint32_t descriptorUsed;  // bytes of the descriptor area in use
  std::uint32_t descriptorCount;
  std::uint64_t descriptorOverflows;  // call sites refused for lack of room
};
static_assert(sizeof(FileHeader) <= kHeaderBytes);

struct alignas(64) RingHeader {
  std::uint64_t head;    // bytes ever reserved; positions below are absolute
  std::uint32_t owner;   // thread id of the exclusive writer, 0 when free
  std::uint32_t shared;  // 1: reserved by compare-and-swap from any thread
};
static_assert(sizeof(RingHeader) == kRingHeaderBytes);

// A record: this header, then the payload, padded to 8 bytes; in the shared
// ring (flag kRecordChecked) then an 8-byte recordChecksum.
struct RecordHeader {
  std::uint64_t stamp;  // position ^ kRecordKey, stored last
  std::uint64_t ticks;
  std::uint32_t descriptorId;  // 0: the call site found the descriptor table full
  std::uint16_t bytes;         // header and payload, before padding
  std::uint8_t flags;
  std::uint8_t argCount;  // arguments present in the payload
};
static_assert(sizeof(RecordHeader) == 24);
inline constexpr std::uint8_t kRecordTruncated = 1;
inline constexpr std::uint8_t kRecordChecked = 2;

// Over a record's bytes after its stamp up to its checksum (`n`, a multiple
// of 8) and its position, so that the same bytes at another position fail.
inline std::uint64_t recordChecksum(std::uint64_t pos, char const* body, std::size_t n) {
  std::uint64_t h = pos ^ 0x6a09e667f3bcc909ull;
  for (std::size_t i = 0; i < n; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, body + i, 8);
    h = (h ^ w) * 0x9fb21c651e98df25ull;
    h ^= h >> 29;
  }
  return h;
}

// A descriptor: this header, then source, file, function, format and the
// argument signature, each NUL-terminated, padded to 8 bytes.
struct DescriptorHeader {
  std::uint32_t commit;  // offset ^ kDescriptorKey, stored last
  std::uint32_t id;      // 1, 2, ... in the order call sites first wrote
  std::uint32_t bytes;   // whole entry, padded
  std::uint32_t line;
};
static_assert(sizeof(DescriptorHeader) == 16);

// Payload argument kinds, one character each in a descriptor's signature:
//   d int64   u uint64   f double   b bool (1 byte)   c char (1 byte)
//   p pointer (8 bytes)  a address (1 length byte, 4 or 16 bytes)
//   s string (uint16 length, kStringCut set when cut short; then the bytes)

inline std::uint64_t layoutChecksum(FileLayout const& l) {
  unsigned char bytes[sizeof(FileLayout)];
  std::memcpy(bytes, &l, sizeof l);
  std::uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char b : bytes) {
    h ^= b;
    h *= 0x100000001b3ull;
  }
  return h;
}

}  // namespace Brisklog
