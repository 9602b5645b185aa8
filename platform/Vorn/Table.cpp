#include "Vorn/Table.h"

#include <unistd.h>

#include <bit>
#include <chrono>

#include "Kiv/Trace.h"

namespace Vorn {

namespace {
Kiv::TraceHandle th("Vorn::Table");

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}
}  // namespace

TableBase::TableBase(Status* owner, char const* name, std::uint32_t keySize, std::uint32_t recordSize,
                     std::uint32_t defaultCapacity)
    : owner_(owner), name_(name), keySize_(keySize), recordSize_(recordSize), defaultCapacity_(defaultCapacity) {
  owner_->tableAdd(this);
}

TableBase::~TableBase() {
  auto& list = owner_->tables_;
  list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

std::uint32_t TableBase::size() const {
  checkUsable(false);
  std::uint32_t const n = control_->size.load(std::memory_order_relaxed);
  region_->checkTruncated();
  if (n > limit_) fail("size " + std::to_string(n) + " exceeds the limit " + std::to_string(limit_));
  return n;
}

void TableBase::corruptionDetected(std::string const& text) const {
  ++corruptions_;
  KIV_TRACE(th, 1, "corruptionDetected: table '" << name_ << "': " << text);
  owner_->corruptionDetected("table '" + name_ + "': " + text);
}

void TableBase::attach(Region* region, std::uint32_t index) {
  TableGeometry const& g = region->table(index);
  region_ = region;
  index_ = index;
  control_ = g.control;
  entries_ = g.entries;
  entrySize_ = g.entrySize;
  keyOffset_ = g.keyOffset;
  recordOffset_ = g.recordOffset;
  linksOffset_ = g.linksOffset;
  limit_ = g.limit;
  for (int a = 0; a < 2; ++a) {
    slotArea_[a] = g.slots[a];
    slotsOffset_[a] = g.slotsOffset[a];
  }
  entriesOffset_ = g.entriesOffset;
  shape_ = 0;
  try {
    shapeIs(control_->shape.load(std::memory_order_acquire));
  } catch (...) {
    region_ = nullptr;
    throw;
  }
  free_.clear();
  tombstones_ = 0;
  topLevel_ = 1;
  if (owner_->mode() == Status::Mode::writer) {
    rng_ ^= static_cast<std::uint64_t>(getpid()) * 0x9e3779b97f4a7c15ull ^
            static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    prev_.assign((std::size_t(capacity_) + 1) * Layout::kMaxLevel, Layout::kNone);
    // A writer killed between the room and the shape, or a damaged shape:
    // the pages the shape names are allocated before this writer uses them.
    region->reserve(entriesOffset_, (std::uint64_t(capacity_) + 1) * entrySize_);
    region->reserve(slotsOffset_[Layout::shapeArea(shape_)], (std::uint64_t(slotMask_) + 1) * sizeof(Layout::Slot));
    if (!region->adopted()) {
      free_.reserve(capacity_);
      for (std::uint32_t i = capacity_; i >= 1; --i) free_.push_back(i);
    }
  }
}

void TableBase::shapeIs(std::uint64_t shape) const {
  std::uint32_t const capacity = Layout::shapeCapacity(shape);
  std::uint32_t const shift = Layout::shapeSlotShift(shape);
  std::uint32_t const slots = shift < 32 ? 1u << shift : 0;
  if (!Layout::shapeFits(shape, limit_, region_->table(index_).slotCountMax))
    fail("shape of " + std::to_string(capacity) + " records in 2^" + std::to_string(shift) +
         " hash slots does not fit the limit of " + std::to_string(limit_));
  // Entries only grow (while the writer runs and on adoption alike).
  if (capacity < capacity_)
    fail("capacity went down from " + std::to_string(capacity_) + " to " + std::to_string(capacity));
  capacity_ = capacity;
  slotMask_ = slots - 1;
  slots_ = slotArea_[Layout::shapeArea(shape)];
  shape_ = shape;
}

void TableBase::grow() {
  std::uint32_t const capacity = Layout::grownCapacity(capacity_, limit_);
  std::uint32_t const slots = Layout::slotCountFor(capacity);
  std::uint32_t const area = Layout::shapeArea(shape_) ^ 1;
  // Room first: a full file system refuses here, with the table unchanged.
  writerStep("grow.reserve");
  region_->reserve(entriesOffset_ + (std::uint64_t(capacity_) + 1) * entrySize_,
                   std::uint64_t(capacity - capacity_) * entrySize_);
  region_->reserve(slotsOffset_[area], std::uint64_t(slots) * sizeof(Layout::Slot));
  region_->checkTruncated();
  // The new index is built where no reader looks (a reader still on the
  // area from two growths ago sees structGen moved and retries).
  writerStep("grow.slots");
  Layout::Slot* const to = slotArea_[area];
  for (std::uint32_t i = 0; i < slots; ++i) to[i].store(Layout::kSlotEmpty, std::memory_order_relaxed);
  for (std::uint32_t i = 1; i <= capacity_; ++i) {
    if (head(i)->live != 1) continue;
    std::uint64_t const h = hashOfEntry(i);
    std::uint32_t p = std::uint32_t(h) & (slots - 1);
    while (to[p].load(std::memory_order_relaxed) != Layout::kSlotEmpty) p = (p + 1) & (slots - 1);
    to[p].store((h >> 32) << 32 | (std::uint64_t(i) + 1), std::memory_order_relaxed);
  }
  prev_.resize((std::size_t(capacity) + 1) * Layout::kMaxLevel, Layout::kNone);
  privateGrow(capacity);
  // One store publishes capacity and index together; structGen moves after
  // it, so a reader that worked with the old shape retries.
  writerStep("grow.publish");
  std::uint64_t const shape = Layout::packShape(capacity, std::countr_zero(slots), area);
  control_->shape.store(shape, std::memory_order_release);
  control_->structGen.store(control_->structGen.load(std::memory_order_relaxed) + 2, std::memory_order_release);
  std::uint32_t const old = capacity_;
  shapeIs(shape);
  free_.reserve(capacity - old + free_.size());
  for (std::uint32_t i = capacity; i > old; --i) free_.push_back(i);
  tombstones_ = 0;
  control_->tombstones.store(0, std::memory_order_relaxed);
  KIV_TRACE(th, 6, "grow: table '" << name_ << "' from " << old << " to " << capacity << " records");
}

void TableBase::detach() {
  region_ = nullptr;
  control_ = nullptr;
  slots_ = nullptr;
  entries_ = nullptr;
  capacity_ = 0;
  free_.clear();
  free_.shrink_to_fit();
  prev_.clear();
  prev_.shrink_to_fit();
  snapshotStop();
}

std::uint32_t TableBase::randomLevel() {
  rng_ ^= rng_ << 13;
  rng_ ^= rng_ >> 7;
  rng_ ^= rng_ << 17;
  std::uint64_t r = rng_;
  std::uint32_t level = 1;
  while (level < Layout::kMaxLevel && (r & 3) == 0) {
    ++level;
    r >>= 2;
  }
  return level;
}

void TableBase::rebuildHashSlots() {
  genBegin();
  writerStep("rebuild.start");
  for (std::uint32_t i = 0; i <= slotMask_; ++i) slots_[i].store(Layout::kSlotEmpty, std::memory_order_relaxed);
  for (std::uint32_t i = 1; i <= capacity_; ++i) {
    if (head(i)->live != 1) continue;
    std::uint64_t const h = hashOfEntry(i);
    std::uint32_t p = std::uint32_t(h) & slotMask_;
    while (slots_[p].load(std::memory_order_relaxed) != Layout::kSlotEmpty) p = (p + 1) & slotMask_;
    slots_[p].store((h >> 32) << 32 | (std::uint64_t(i) + 1), std::memory_order_relaxed);
    writerStep("rebuild.slot");
  }
  tombstones_ = 0;
  control_->tombstones.store(0, std::memory_order_relaxed);
  genEnd();
  KIV_TRACE(th, 6, "rebuildHashSlots: table '" << name_ << "'");
}

void TableBase::fail(std::string const& text) const {
  if (region_ == nullptr) throw Pelto::CorruptionDetectedException("table '" + name_ + "': " + text);
  // What a cut file left (zeros) is no news beyond the cut itself.
  region_->checkTruncated();
  region_->fail("table '" + name_ + "': " + text);
}

void TableBase::notMounted() const { throw Kiv::Exception("Vorn table '" + name_ + "' is not mounted"); }

void TableBase::readOnly() const {
  throw Kiv::Exception("Vorn table '" + name_ + "' is mounted read-only in this process");
}

void TableBase::full() const {
  throw Kiv::RangeException("Vorn table '" + name_ + "' is full: its limit is " + std::to_string(limit_) + " records");
}

void TableBase::retriesExhausted() const {
  fail("a read kept racing the writer; gave up after " + std::to_string(kRetries) + " tries");
}

std::uint32_t TableBase::waitEven(std::atomic<std::uint32_t> const& seq, std::uint32_t entry) const {
  // A live writer finishes a record in well under a microsecond: spin a
  // little before the bounded wait, whose failure text costs an allocation;
  // not once a scan's time is up.
  bool const spin =
      waitDeadline_ == std::chrono::steady_clock::time_point::max() || std::chrono::steady_clock::now() < waitDeadline_;
  for (int i = 0; spin && i < 2048; ++i) {
    std::uint32_t const v = seq.load(std::memory_order_acquire);
    if ((v & 1) == 0) return v;
    cpuRelax();
  }
  return region_->waitEven(seq, "table '" + name_ + "' entry " + std::to_string(entry), waitDeadline_);
}

std::uint64_t TableBase::waitGen() const {
  return region_->waitEven64(control_->structGen, "table '" + name_ + "' index rebuild");
}

void TableBase::linkFail(std::uint32_t from, std::uint32_t level, std::uint32_t to) const {
  fail("entry " + std::to_string(from) + " links at level " + std::to_string(level) + " to entry " +
       std::to_string(to) + ", beyond capacity " + std::to_string(capacity_));
}

void TableBase::slotFail(std::uint32_t slot, std::uint64_t value) const {
  fail("hash slot " + std::to_string(slot) + " names entry " + std::to_string(std::uint32_t(value) - 1) +
       ", beyond capacity " + std::to_string(capacity_));
}

void TableBase::fallbackNoticed() const {
  KIV_TRACE(th, 1,
            "table '" << name_ << "': writer pid " << region_->writerPid()
                      << " died while rebuilding the indexes; reads scan the entries"
                         " until a new writer adopts the file");
}

void TableBase::loopFail(char const* where) const {
  fail(std::string(where) + " went past every entry: the links loop");
}

}  // namespace Vorn
