// The byte layout of a Vorn region file: the one place that says where every
// field of a shared table lives. Readers in other processes and the writer
// agree on it through the magic and the layout version in the header.
//
//   [Header | Controls | change log | per table: hash slots A, hash slots B,
//    entries (entry 0 the skip-list head, then records 1..limit)]
//
// The file is as long as every table at its limit, but sparse: the writer
// allocates (posix_fallocate) only the pages in use, so a new table costs a
// few pages, and the file system refuses space at the write that needs it.
// A table grows by allocating more entries at the end of its entry area and
// rebuilding its hash index in the other slot area; its current shape
// (capacity, slot count, slot area) is one 64-bit word in its Control, so a
// reader sees the old shape or the new one, never a mix. Entries never
// move, so links and a reader's place in an ordered walk survive a growth.
//
// Everything here lives in shared memory written by another process: any
// field may hold any bits. Fixed geometry (offsets, sizes, limits) is copied
// out and validated once at mount, a shape each time it changes; a reader
// never trusts a stored index, link or count without checking it against
// that validated geometry.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace Vorn::Layout {

inline constexpr std::uint64_t kMagic = 0x3147455236524f56ull;  // "VOR6REG1"
inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::uint32_t kMaxTables = 8;
inline constexpr std::uint32_t kNameLen = 48;
inline constexpr std::uint32_t kTypeLen = 96;
inline constexpr std::uint32_t kMaxLevel = 12;  // skip-list levels; p = 1/4 covers 16M records
inline constexpr std::uint32_t kBells = 64;     // reader doorbells per region, one bit each in `armed`
inline constexpr std::uint32_t kNone = 0xffffffffu;
inline constexpr std::uint32_t kMaxCapacity = 1u << 26;
inline constexpr std::uint32_t kMaxKeySize = 256;
inline constexpr std::uint32_t kMaxRecordSize = 1u << 16;

// Per-table geometry, written once when the region is created.
struct TableDesc {
  char name[kNameLen];
  std::uint32_t keySize;
  std::uint32_t recordSize;
  std::uint32_t entrySize;  // EntryHead + key + record, rounded up to 8
  std::uint32_t keyOffset;  // within an entry
  std::uint32_t recordOffset;
  std::uint32_t limit;         // records the table may grow to
  std::uint32_t slotCountMax;  // each slot area's room: a power of two >= 2 * limit
  std::uint32_t linksOffset;   // within an entry: the skip-list tower
  std::uint64_t controlOffset;
  std::uint64_t slotsOffset[2];
  std::uint64_t entriesOffset;  // limit + 1 entries, the head first
  std::uint64_t end;
};

// A table's current shape, packed in one word so that it changes at once:
// capacity (records, entries 1..capacity exist) in bits 0-31, log2 of the
// slot count in bits 32-39, the slot area in use in bit 40.
inline constexpr std::uint64_t packShape(std::uint32_t capacity, std::uint32_t slotShift, std::uint32_t area) {
  return std::uint64_t(capacity) | std::uint64_t(slotShift) << 32 | std::uint64_t(area) << 40;
}
inline constexpr std::uint32_t shapeCapacity(std::uint64_t s) { return std::uint32_t(s); }
inline constexpr std::uint32_t shapeSlotShift(std::uint64_t s) { return std::uint32_t(s >> 32) & 0xff; }
inline constexpr std::uint32_t shapeArea(std::uint64_t s) { return std::uint32_t(s >> 40) & 1; }
inline constexpr bool shapeSpare(std::uint64_t s) { return (s >> 41) != 0; }
// A shape a writer can have stored for a table of this limit.
inline constexpr bool shapeFits(std::uint64_t s, std::uint32_t limit, std::uint32_t slotCountMax) {
  std::uint32_t const capacity = shapeCapacity(s);
  std::uint32_t const shift = shapeSlotShift(s);
  return !shapeSpare(s) && capacity != 0 && capacity <= limit && shift < 32 &&
         (std::uint64_t(1) << shift) >= 2ull * capacity && (std::uint64_t(1) << shift) <= slotCountMax;
}

// Mutable per-table state. structGen is odd while the writer rebuilds the
// hash slots or the skip list in place, and moves (by two) when the table
// grows; every reader operation samples it before and after and retries
// when it moved.
struct alignas(64) Control {
  std::atomic<std::uint64_t> structGen;
  std::atomic<std::uint64_t> shape;
  std::atomic<std::uint32_t> size;
  std::atomic<std::uint32_t> tombstones;
  std::atomic<std::uint32_t> topLevel;  // highest level in use, a hint for readers
  std::uint32_t reserved[5];
};

// A hash slot: 0 empty, low word kNone a tombstone, otherwise
// (hash >> 32) << 32 | (entry index + 1).
using Slot = std::atomic<std::uint64_t>;
inline constexpr std::uint64_t kSlotEmpty = 0;
inline constexpr std::uint64_t kSlotTombstone = kNone;

// What the writer was doing while an entry's lseq was odd; lets a new
// writer tell a record torn by a crash from a link update cut short.
enum Op : std::uint8_t { opNone = 0, opInsert = 1, opLink = 2, opDelete = 3 };

// Head of every entry, followed by the key, the skip-list tower (kMaxLevel
// links) and the record, the entry rounded up to whole cache lines: the
// head, a key of up to 32 bytes and the lowest links share the first line,
// which lookups, searches and ordered steps all read first. Two sequence
// counters, both even when stable:
//   lseq covers live, level, op, the key and the tower
//   dseq covers the record bytes and stamp
// The writer bumps a counter to odd (release fence after), writes, bumps to
// even (release store). A reader loads the counter (acquire), copies, issues
// an acquire fence and loads it again: equal and even means the copy is
// whole.
struct EntryHead {
  std::atomic<std::uint32_t> lseq;
  std::atomic<std::uint32_t> dseq;
  std::uint8_t live;
  std::uint8_t level;  // 1..kMaxLevel
  std::uint8_t op;
  std::uint8_t reserved0;
  // The entry a few steps on at level 0, kept by the writer for ordered walks
  // to prefetch; outside both counters, never trusted beyond that.
  std::atomic<std::uint32_t> ahead;
  std::uint64_t stamp;  // log position of the change that last wrote the record
};
static_assert(sizeof(EntryHead) == 24);
using Link = std::atomic<std::uint32_t>;

struct BellSlot {
  std::atomic<std::uint32_t> pid;    // reader owning the doorbell, 0 free
  std::atomic<std::uint32_t> nonce;  // names the doorbell file
};

// The change log's pages are allocated as the log first fills them.
// One change-log record: seq is 2*position+1 while written, 2*position+2
// when complete. The key follows, padded to the region's largest key.
struct LogHead {
  std::atomic<std::uint64_t> seq;
  std::uint32_t table;
  std::uint32_t keySize;
};
static_assert(sizeof(LogHead) == 16);

struct Header {
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t headerSize;
  std::uint64_t fileSize;  // every table at its limit; sparse
  char typeName[kTypeLen];
  std::uint32_t tableCount;
  std::uint32_t logCapacity;  // a power of two
  std::uint32_t logEntrySize;
  std::uint32_t maxKeySize;
  std::uint64_t logOffset;
  std::atomic<std::uint32_t> writerPid;
  std::uint32_t reserved0;
  std::atomic<std::uint64_t> writerEpoch;  // writers that have mounted the region so far
  std::uint64_t createdTime;               // seconds since the epoch
  TableDesc tables[kMaxTables];
  alignas(64) std::atomic<std::uint64_t> logHead;  // changes logged so far
  alignas(64) std::atomic<std::uint64_t> armed;    // bit i: doorbell i waits for a ring
  BellSlot bells[kBells];
};

inline constexpr std::uint64_t kHeaderSize = (sizeof(Header) + 4095) & ~std::uint64_t(4095);

inline constexpr std::uint64_t roundUp(std::uint64_t v, std::uint64_t a) { return (v + a - 1) / a * a; }

// Hash slots for a table of `capacity` records: at most half full.
inline constexpr std::uint32_t slotCountFor(std::uint32_t capacity) {
  return static_cast<std::uint32_t>(std::bit_ceil(std::max<std::uint64_t>(16, 2ull * capacity)));
}
// A new table holds 63 records (64 entries with the head) or its limit,
// and doubles its entries each time it fills, up to the limit.
inline constexpr std::uint32_t kInitialCapacity = 63;
inline constexpr std::uint32_t initialCapacity(std::uint32_t limit) { return std::min(limit, kInitialCapacity); }
inline constexpr std::uint32_t grownCapacity(std::uint32_t capacity, std::uint32_t limit) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(limit, 2ull * (std::uint64_t(capacity) + 1) - 1));
}

}  // namespace Vorn::Layout
