// Vorn::Region: one mapped region file holding the tables of one status
// object, its change log and its reader doorbells.
//
// A writer builds a new file under a temporary name and renames it into
// place, so a reader never maps a half-initialised region; or it adopts an
// existing file of the same type and shape. Readers map the file read-write
// (they arm doorbells in it) but never touch table data.
//
// Every geometry field is validated once at open (magic, layout version,
// type name, table names and sizes, offsets inside the file); failures raise
// Pelto::CorruptionDetectedException naming the file and what was wrong.
// A file truncated under a live mapping does not kill the process (every
// mapping is guarded, however many the process holds): the fault is caught,
// the lost pages read as zeros, and the next table operation raises the
// corruption exception.
//
// Change log: the writer appends (table, key) for every change; readers
// follow it from a private cursor. Doorbells: a following reader owns a
// FIFO under the root directory and a bit in `armed`; it sets the bit before
// it sleeps, the writer rings (one byte) and clears the bit on the next
// change, so one wake-up covers a burst.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/MappingGuard.h"
#include "Vorn/Layout.h"

namespace Vorn {

// Test-only: called at each named step of the writer's write, index
// rebuild and adoption paths ("insert.link", "adopt.head", ...), so that a
// test can kill the writer exactly there. Null by default, which costs one
// predicted branch per step.
using StepHook = void (*)(char const* step);
extern StepHook stepHook;
inline void writerStep(char const* name) {
  if (__builtin_expect(stepHook != nullptr, 0)) stepHook(name);
}

// What a schema says about one of its tables.
struct TableShape {
  std::string name;
  std::uint32_t keySize = 0;
  std::uint32_t recordSize = 0;
  std::uint32_t limit = 0;  // records the table may grow to
};

// A table's validated fixed geometry, local to this process. Its current
// capacity and hash index live in the Control's shape word; the tables
// validate that each time it changes.
struct TableGeometry {
  std::uint32_t index = 0;
  std::string name;
  std::uint32_t keySize = 0;
  std::uint32_t recordSize = 0;
  std::uint32_t entrySize = 0;
  std::uint32_t keyOffset = 0;
  std::uint32_t recordOffset = 0;
  std::uint32_t linksOffset = 0;
  std::uint32_t limit = 0;
  std::uint32_t slotCountMax = 0;
  Layout::Control* control = nullptr;
  Layout::Slot* slots[2] = {nullptr, nullptr};
  unsigned char* entries = nullptr;  // entry 0 is the skip-list head
  std::uint64_t slotsOffset[2] = {0, 0};
  std::uint64_t entriesOffset = 0;
  // The shape now, as stored (unchecked beyond the limits): for tools.
  std::uint32_t capacity() const {
    return std::min(Layout::shapeCapacity(control->shape.load(std::memory_order_acquire)), limit);
  }
  Layout::Slot* slotsNow() const { return slots[Layout::shapeArea(control->shape.load(std::memory_order_acquire))]; }
  std::uint32_t slotCount() const {
    std::uint32_t const s = Layout::shapeSlotShift(control->shape.load(std::memory_order_acquire));
    return s < 32 ? std::min<std::uint32_t>(1u << s, slotCountMax) : slotCountMax;
  }
};

// Maps a table URL ("mfib/default/pim") to a file name under the root:
// '/' and every byte outside [A-Za-z0-9._-] are escaped as %XX, and ".vorn"
// is appended. Absolute URLs, empty components, "." and ".." are refused
// with Kiv::ParseException saying why.
std::string fileNameOfUrl(std::string_view url);
// The inverse, for listings; empty when `fileName` is not a region file.
std::string urlOfFileName(std::string_view fileName);
// $VORN_ROOT when set and not empty, else /run/vorn for root and
// $XDG_RUNTIME_DIR/vorn for other users (Kiv::PathTrust::runtimeDir, which
// throws when a user other than root has neither variable).
std::string defaultRoot();

class Region {
 public:
  enum class Mode { writer, reader, inspector };

  // Creates the region at `path`, or adopts the file already there when its
  // type and table shapes match (adopted() is then true). A file of another
  // type or shape, or a corrupt one, is replaced. Limits of an adopted
  // file are the file's own. A new table starts small (a few pages) and
  // grows towards its limit as it is written. A file whose writer is still
  // running is not taken over: Kiv::Exception names that writer. An existing
  // file that is not a regular file of this user or root, or that group or
  // others may write, is refused with Kiv::UntrustedPathException, not replaced.
  static std::unique_ptr<Region> writerIs(std::string const& path, std::string_view typeName,
                                          std::vector<TableShape> const& shapes, std::uint32_t logCapacity);
  // Opens an existing region for reading: Kiv::ErrnoException("open") when
  // there is none, Pelto::CorruptionDetectedException when it is not a valid
  // region of this type and shape (limits are taken from the file),
  // Kiv::UntrustedPathException when the file is not a regular file of this
  // user or root or group or others may write it: someone else's table.
  static std::unique_ptr<Region> readerIs(std::string const& path, std::string_view typeName,
                                          std::vector<TableShape> const& shapes);
  // Opens any valid region without a schema, for inspection tools.
  static std::unique_ptr<Region> inspectorIs(std::string const& path);

  ~Region();
  Region(Region const&) = delete;
  Region& operator=(Region const&) = delete;

  Mode mode() const { return mode_; }
  std::string const& path() const { return path_; }
  std::string const& typeName() const { return typeName_; }
  bool adopted() const { return adopted_; }
  std::uint64_t fileSize() const { return size_; }
  Layout::Header* header() const { return header_; }
  std::uint32_t tables() const { return static_cast<std::uint32_t>(geometry_.size()); }
  TableGeometry const& table(std::uint32_t i) const { return geometry_[i]; }
  std::uint32_t logCapacity() const { return logCapacity_; }
  std::uint32_t writerPid() const { return header_->writerPid.load(std::memory_order_relaxed); }
  // The recorded writer runs and still holds the region's writer lock (an
  // open-file-description lock on the file's first byte, gone with the
  // writer's last descriptor): neither a zombie nor an unrelated process
  // that got the pid passes.
  bool writerAlive() const;
  // Readers holding a doorbell whose process still runs (a reader killed
  // before it could give its doorbell back does not count).
  std::uint32_t liveReaders() const;

  // Set (from the fault handler) when the file shrank under the mapping.
  bool truncated() const { return guard_.truncated(); }
  // Raises the corruption exception when the file was truncated.
  void checkTruncated() const {
    if (truncated()) truncatedFail();
  }
  [[noreturn]] void truncatedFail() const;
  // Raises Pelto::CorruptionDetectedException: "<path>: <text>".
  [[noreturn]] void fail(std::string const& text) const;

  // Waits, within bounds, for a sequence counter left odd by the writer to
  // become even and returns it; raises the corruption exception when the
  // writer is gone or the counter stays odd for 0.5 s or past `deadline`
  // (a caller that waits on many counters bounds them all together).
  std::uint32_t waitEven(
      std::atomic<std::uint32_t> const& seq, std::string_view what,
      std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max()) const;
  std::uint64_t waitEven64(std::atomic<std::uint64_t> const& seq, std::string_view what) const;

  // Writer: allocates `length` bytes of the file from `offset` (rounded out
  // to whole pages) before they are first written, so that a full file
  // system refuses the write that needs them rather than faulting the
  // process. Kiv::ErrnoException("posix_fallocate(...)") when it is full.
  void reserve(std::uint64_t offset, std::uint64_t length);
  // Writer: makes sure the next change has its place in the change log
  // (the log's pages are allocated as it first fills them). Called before
  // a table changes, so that a full file system refuses the change.
  void logReserve() {
    std::uint64_t const p = header_->logHead.load(std::memory_order_relaxed);
    if (__builtin_expect(p >= logReservedEntries_, 0)) logGrow(p);
  }
  // Writer: appends one change and rings the armed doorbells. Returns the
  // change's log position + 1 (the record's stamp).
  std::uint64_t logChange(std::uint32_t table, void const* key, std::uint32_t keySize);
  // The stamp the next change will get.
  std::uint64_t nextStamp() const { return header_->logHead.load(std::memory_order_relaxed) + 1; }
  std::uint64_t logHead() const { return header_->logHead.load(std::memory_order_acquire); }

  // Reader: reads the change at `position` into table/key (key buffer of at
  // least the region's largest key). False when the log wrapped past it.
  bool logRead(std::uint64_t position, std::uint32_t& table, void* key) const;

  // Reader doorbell: claims a slot and returns the FIFO's descriptor.
  int bellOpen();
  // Sets this reader's armed bit (sequentially consistent, paired with the
  // writer's logHead store and armed load).
  void bellArm();
  void bellClose();
  // Empties the FIFO.
  void bellDrain();
  // Makes this reader's own doorbell readable, so that its loop wakes again.
  void bellPoke();
  int bellSlot() const { return bellSlot_; }

  // Doorbell FIFO path of slot i with nonce n.
  std::string bellPath(std::uint32_t slot, std::uint32_t nonce) const;

 private:
  Region() = default;
  void map(int fd, std::uint64_t size, bool writable);
  void validate(std::string_view typeName, std::vector<TableShape> const* shapes);
  void ring(std::uint64_t armed);
  void logGrow(std::uint64_t position);
  // Takes the writer lock; false when another open file holds it.
  bool writerLockTake();
  bool writerLockHeld() const;
  static std::unique_ptr<Region> create(std::string const& path, std::string_view typeName,
                                        std::vector<TableShape> const& shapes, std::uint32_t logCapacity);

  Mode mode_ = Mode::reader;
  std::string path_;
  std::string typeName_;
  bool adopted_ = false;
  int fd_ = -1;
  unsigned char* base_ = nullptr;
  std::uint64_t size_ = 0;
  Layout::Header* header_ = nullptr;
  std::vector<TableGeometry> geometry_;
  std::uint32_t logCapacity_ = 0;
  std::uint32_t logEntrySize_ = 0;
  std::uint32_t maxKeySize_ = 0;
  unsigned char* log_ = nullptr;
  std::uint64_t logOffset_ = 0;
  // Writer: log positions whose place is allocated (all once a lap is done).
  std::uint64_t logReservedEntries_ = 0;
  Kiv::MappingGuard guard_;
  // Reader doorbell.
  int bellSlot_ = -1;
  std::uint32_t bellNonce_ = 0;
  int bellFd_ = -1;
  // Writer: open doorbells, by slot.
  struct Bell {
    int fd = -1;
    std::uint32_t pid = 0;
    std::uint32_t nonce = 0;
  };
  std::vector<Bell> bells_;
};

}  // namespace Vorn
