// Vorn::Table<Key, Record, KeyOf>: one shared-memory table of fixed-size,
// trivially copyable records, keyed by KeyOf(record), ordered by
// Key::operator<. One process writes, any number of processes read, nobody
// locks.
//
//   class RouteStatus : public Vorn::Status {
//    public:
//     class NotifieeConst : public Kiv::NotifieeConstBase<RouteStatus> {
//      public:
//       virtual void onRoute(RouteKey const&) {}
//     };
//     VORN_TABLE(RouteStatus, route, Route, RouteKey, RouteRecord, &RouteRecord::key, 4096)
//   };
//   status->routeIs(r);                 // insert or replace (writer)
//   RouteRecord r = status->route(k);   // a copy, or RouteRecord() on a miss
//   status->routeDel(k);
//   Vorn::IterHint hint;                // ordered walk, cheap per step
//   for (bool ok = t.first(k, r, hint); ok; ok = t.next(k, k, r, hint)) ...
//
// Storage: an array of entries (key, record, skip-list tower, two sequence
// counters), an open-addressing hash index of (hash tag, entry) slots, and a
// skip list through the entries in key order. Writes are O(log n). The
// writer keeps private state beside the file (the free list, each entry's
// predecessors, a dense mirror of keys and links for its searches) and
// rebuilds it from the file when it adopts one.
//
// Reader protocol (every pairing is acquire load/fence against the writer's
// release store/fence):
//   - structGen (Control): loaded acquire before an operation and again
//     after an acquire fence at its end; odd or moved means the writer
//     rebuilt the indexes meanwhile: retry.
//   - hash slot: loaded acquire, pairs with the writer's release store that
//     publishes a fully written entry. A slot names an entry; the entry's
//     key is checked, so a slot raced by a delete or reuse is just a miss.
//   - entry lseq/dseq: loaded acquire, data copied, acquire fence, loaded
//     again; equal and even means the copy is whole (a seqlock). The writer
//     stores odd, issues a release fence, writes, stores even with release.
//   - skip-list steps go hand over hand: after reading the next node, the
//     reader checks that the current node's lseq did not move, so the link
//     it followed still held; a node is unlinked (changing its predecessors'
//     lseq) before it is marked dead or reused.
//   - shape (Control): capacity and hash index in one word, loaded after
//     structGen; the writer stores a new one (room and index made first)
//     before it moves structGen, so an operation on an old shape retries.
//     Entries never move, so a link or hint into them stays good.
// Between a writer's death and the next adoption, the one record it was
// inserting or deleting may be walked but not looked up (or the reverse),
// and size() may differ by one from what a walk yields.
// Failure modes: a counter that stays odd (a writer killed mid-write) is
// waited for within a bound (one bound for a whole-table scan) and then
// reported as corruption for that entry only; a structGen left odd by a
// writer that is gone makes readers answer from a private index of the
// entries until a new writer adopts the file; every index, link and count is checked against the geometry
// validated at mount, and every loop is bounded by the capacity, so a
// corrupt file raises Pelto::CorruptionDetectedException, never a crash or a
// hang. Readers copy records out; no pointer into shared memory survives a
// call.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Vorn/Layout.h"
#include "Vorn/Region.h"
#include "Vorn/Status.h"

namespace Vorn {

// Where the last ordered step stood: lets next() continue from that entry
// in O(1) when nothing changed around it, else it searches from the top.
struct IterHint {
  std::uint32_t entry = Layout::kNone;
  std::uint32_t seq = 0;
  std::uint64_t gen = 0;
  void clear() { entry = Layout::kNone; }
};

// The hash a table uses for a key: Key::hash() when the key has one, the
// value for integers and enums, the bytes otherwise. Must not depend on the
// process (it decides where records sit in shared memory).
template <class K>
struct KeyHash {
  std::uint64_t operator()(K const& k) const {
    if constexpr (requires { k.hash(); }) {
      // The key's own hash is trusted to mix; one multiply spreads a weak
      // one over the high bits that become the slot tag.
      std::uint64_t h = static_cast<std::uint64_t>(k.hash());
      h ^= h >> 29;
      return h * 0xbf58476d1ce4e5b9ull;
    } else if constexpr (std::is_integral_v<K> || std::is_enum_v<K>) {
      return Kiv::HashAccumulator::fmix(static_cast<std::uint64_t>(k) ^ 0x2545f4914f6cdd1dull);
    } else {
      static_assert(std::has_unique_object_representations_v<K>,
                    "a key with padding needs a hash() over the fields its operator== compares");
      Kiv::HashAccumulator h;
      h.mix(&k, sizeof k);
      return h.result();
    }
  }
};

// The part of every table that does not depend on the key and record types.
class TableBase {
 public:
  TableBase(Status* owner, char const* name, std::uint32_t keySize, std::uint32_t recordSize,
            std::uint32_t defaultCapacity);
  virtual ~TableBase();
  TableBase(TableBase const&) = delete;
  TableBase& operator=(TableBase const&) = delete;

  std::string const& name() const { return name_; }
  std::uint32_t keySize() const { return keySize_; }
  std::uint32_t recordSize() const { return recordSize_; }
  // The schema's limit, used when the mount options name none.
  std::uint32_t defaultCapacity() const { return defaultCapacity_; }
  // Records the table holds before it grows again (it grows by doubling as
  // it is written, towards limit()); as last seen by this process. 0 while
  // unmounted.
  std::uint32_t capacity() const { return capacity_; }
  // Records the table may grow to. 0 while unmounted.
  std::uint32_t limit() const { return limit_; }
  bool mounted() const { return region_ != nullptr; }
  Status* owner() const { return owner_; }
  // Position in the status's table list and in the region.
  std::uint32_t index() const { return index_; }

  // Records now in the table.
  std::uint32_t size() const;

  // Where callers report a corruption exception they caught from this
  // table: traced and counted, here and on the status.
  void corruptionDetected(std::string const& text) const;
  std::uint64_t corruptions() const { return corruptions_; }

  // For inspection tools, through the key's and the record's operator<<
  // (hex bytes for a type without one): every record in key order as
  // lines (a record holds its key), at most `limit`; returns how many.
  virtual std::size_t printOrdered(std::ostream& os, std::size_t limit) const = 0;
  // The same walk with the key and the record printed apart, for tools that
  // print them as separate fields.
  using PrintedRecord = std::function<void(std::string const& key, std::string const& record)>;
  virtual std::size_t forEachPrinted(std::size_t limit, PrintedRecord const& fn) const = 0;
  // One key (keySize bytes): its record, or "key deleted".
  virtual void printKey(std::ostream& os, void const* key) const = 0;

  // Used by Status.
  virtual void attach(Region* region, std::uint32_t index);
  virtual void detach();
  virtual void adopt() = 0;
  virtual void notifyKey(void const* key) = 0;
  virtual void snapshotStart() = 0;
  virtual void snapshotStop() = 0;
  virtual void resync() = 0;

 protected:
  [[noreturn]] void fail(std::string const& text) const;
  [[noreturn]] void notMounted() const;
  [[noreturn]] void readOnly() const;
  [[noreturn]] void full() const;
  [[noreturn]] void retriesExhausted() const;
  std::uint32_t waitEven(std::atomic<std::uint32_t> const& seq, std::uint32_t entry) const;
  std::uint64_t waitGen() const;
  std::uint64_t changeLogged(void const* key) const { return owner_->changeLogged(*this, key); }
  bool writer() const { return owner_->mode() == Status::Mode::writer; }
  void changeHookFire(void const* key) const {
    if (owner_->changeHook_) owner_->changeHook_(*this, key);
  }

  // Geometry, copied at attach for the hot paths. The shape (capacity and
  // hash index) is refreshed whenever the writer changes it.
  Region* region_ = nullptr;
  Layout::Control* control_ = nullptr;
  mutable Layout::Slot* slots_ = nullptr;
  unsigned char* entries_ = nullptr;
  std::uint32_t entrySize_ = 0;
  std::uint32_t keyOffset_ = 0;
  std::uint32_t recordOffset_ = 0;
  std::uint32_t linksOffset_ = 0;
  mutable std::uint32_t capacity_ = 0;
  mutable std::uint32_t slotMask_ = 0;
  mutable std::uint64_t shape_ = 0;
  std::uint32_t limit_ = 0;
  std::uint32_t index_ = 0;
  Layout::Slot* slotArea_[2] = {nullptr, nullptr};
  std::uint64_t slotsOffset_[2] = {0, 0};
  std::uint64_t entriesOffset_ = 0;
  // Writer state. prev_ holds every entry's predecessor at each level, so
  // a delete unlinks without searching; it is the writer's alone.
  std::vector<std::uint32_t> free_;
  std::vector<std::uint32_t> prev_;
  std::uint32_t tombstones_ = 0;
  std::uint32_t topLevel_ = 1;
  std::uint64_t rng_ = 0x9e3779b97f4a7c15ull;

  Layout::EntryHead* head(std::uint32_t i) const {
    return reinterpret_cast<Layout::EntryHead*>(entries_ + std::size_t(i) * entrySize_);
  }
  unsigned char* keyAt(std::uint32_t i) const { return entries_ + std::size_t(i) * entrySize_ + keyOffset_; }
  Layout::Link* links(std::uint32_t i) const {
    return reinterpret_cast<Layout::Link*>(entries_ + std::size_t(i) * entrySize_ + linksOffset_);
  }
  unsigned char* recordAt(std::uint32_t i) const { return entries_ + std::size_t(i) * entrySize_ + recordOffset_; }
  // Entry 0 is the skip-list head; records are entries 1..capacity_.
  static constexpr std::uint32_t headEntry() { return 0; }
  bool isRecord(std::uint32_t i) const { return i - 1u < capacity_; }
  std::uint32_t& prevOf(std::uint32_t i, std::uint32_t level) {
    return prev_[std::size_t(i) * Layout::kMaxLevel + level];
  }
  std::uint32_t randomLevel();

  // Writer-side sequence sections.
  static void writeBegin(std::atomic<std::uint32_t>& seq) {
    seq.store(seq.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
  }
  static void writeEnd(std::atomic<std::uint32_t>& seq) {
    seq.store(seq.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }
  void genBegin() {
    control_->structGen.store(control_->structGen.load(std::memory_order_relaxed) | 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
  }
  void genEnd() {
    control_->structGen.store((control_->structGen.load(std::memory_order_relaxed) | 1) + 1, std::memory_order_release);
  }
  // Reader bracket. The shape is loaded after structGen: the writer stores
  // a new shape before it moves structGen, so an operation that used an old
  // shape sees structGen moved at its end and retries.
  std::uint64_t readBegin() const {
    std::uint64_t g = control_->structGen.load(std::memory_order_acquire);
    if (g & 1) g = waitGen();
    shapeRefresh();
    return g;
  }
  void shapeRefresh() const {
    std::uint64_t const s = control_->shape.load(std::memory_order_acquire);
    if (__builtin_expect(s != shape_, 0)) shapeIs(s);
  }
  // Takes a new shape; the corruption exception when it is impossible.
  void shapeIs(std::uint64_t shape) const;
  // After an index beyond the known capacity: whether the shape moved
  // meanwhile (and was taken), so that the caller retries rather than fail.
  bool shapeMoved() const {
    std::uint64_t const s = control_->shape.load(std::memory_order_acquire);
    if (s == shape_) return false;
    shapeIs(s);
    return true;
  }
  bool readEnd(std::uint64_t g) const {
    std::atomic_thread_fence(std::memory_order_acquire);
    return control_->structGen.load(std::memory_order_relaxed) == g;
  }
  std::uint32_t stableL(std::uint32_t i) const {
    std::uint32_t s = head(i)->lseq.load(std::memory_order_acquire);
    return (s & 1) ? waitEven(head(i)->lseq, i) : s;
  }
  std::uint32_t stableD(std::uint32_t i) const {
    std::uint32_t s = head(i)->dseq.load(std::memory_order_acquire);
    return (s & 1) ? waitEven(head(i)->dseq, i) : s;
  }
  // A link to an entry beyond the known capacity is good when the table
  // grew meanwhile (entries never move), corrupt otherwise.
  std::uint32_t checkedLink(std::uint32_t from, std::uint32_t level, std::uint32_t to) const {
    if (to != Layout::kNone && !isRecord(to) && !(shapeMoved() && isRecord(to))) linkFail(from, level, to);
    return to;
  }
  [[noreturn]] void linkFail(std::uint32_t from, std::uint32_t level, std::uint32_t to) const;
  [[noreturn]] void slotFail(std::uint32_t slot, std::uint64_t value) const;
  [[noreturn]] void loopFail(char const* where) const;
  // Traces that reads now come from a private index of the entries.
  void fallbackNoticed() const;
  void rebuildHashSlots();
  // Writer: doubles the entries (up to the limit) and rebuilds the hash
  // index for them in the other slot area, then publishes the new shape.
  // Raises full() at the limit, Kiv::ErrnoException when the file system
  // has no room; the table is unchanged then.
  void grow();
  // Writer: the private per-entry state follows a growth.
  virtual void privateGrow(std::uint32_t capacity) = 0;
  void checkUsable(bool forWrite) const {
    if (region_ == nullptr) notMounted();
    if (forWrite && !writer()) readOnly();
  }

  static constexpr unsigned kRetries = 10000;
  // While a whole-table scan runs: when its waits on entries that look
  // mid-write give up, together, so that a damaged table costs the scan
  // half a second, not half a second per entry.
  mutable std::chrono::steady_clock::time_point waitDeadline_ = std::chrono::steady_clock::time_point::max();
  struct ScanBound {
    TableBase const& t;
    explicit ScanBound(TableBase const& table) : t(table) {
      t.waitDeadline_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    }
    ~ScanBound() { t.waitDeadline_ = std::chrono::steady_clock::time_point::max(); }
  };

  Status* owner_;
  std::string name_;
  std::uint32_t keySize_;
  std::uint32_t recordSize_;
  std::uint32_t defaultCapacity_;
  mutable std::uint64_t corruptions_ = 0;
  virtual std::uint64_t hashOfEntry(std::uint32_t i) const = 0;
};

template <class K, class R, auto KeyOf>
class Table : public TableBase {
  static_assert(std::is_trivially_copyable_v<K>, "keys live in shared memory");
  static_assert(std::is_trivially_copyable_v<R>, "records live in shared memory");
  static_assert(std::is_default_constructible_v<R>, "a miss returns R()");

 public:
  using Key = K;
  using Record = R;
  using Hook = std::function<void(K const&)>;

  Table(Status* owner, char const* name, std::uint32_t defaultCapacity, Hook hook = {})
      : TableBase(owner, name, sizeof(K), sizeof(R), defaultCapacity), hook_(std::move(hook)) {}

  static K keyOf(R const& r) { return std::invoke(KeyOf, r); }

  // The record under `k`, or R() when there is none.
  R find(K const& k) const {
    // Raw storage: a hit is copied once more into the result, which costs
    // less than constructing a default record first.
    struct Raw {
      alignas(R) unsigned char bytes[sizeof(R)];
    } buf;
    std::uint64_t stamp;
    if (!lookup(k, reinterpret_cast<R*>(buf.bytes), stamp)) return R();
    return std::bit_cast<R>(buf);
  }
  R operator()(K const& k) const { return find(k); }
  bool contains(K const& k) const {
    std::uint64_t stamp;
    return lookup(k, nullptr, stamp);
  }

  // Inserts or replaces the record under keyOf(r). Returns false (and
  // notifies nobody) when the same record is there already. A full table
  // raises Kiv::RangeException.
  bool is(R const& r) {
    checkUsable(true);
    region_->logReserve();
    K const k = keyOf(r);
    std::uint64_t const h = hash(k);
    std::uint32_t pos, ins;
    std::uint32_t idx = writerFind(k, h, pos, ins);
    if (idx == Layout::kNone && free_.empty()) {
      if (capacity_ >= limit_) full();
      grow();
      writerFind(k, h, pos, ins);
    }
    if (idx != Layout::kNone) {
      R cur;
      std::memcpy(static_cast<void*>(&cur), recordAt(idx), sizeof(R));
      if (same(cur, r)) return false;
      Layout::EntryHead* e = head(idx);
      writeBegin(e->dseq);
      writerStep("replace.record");
      std::memcpy(recordAt(idx), &r, sizeof(R));
      e->stamp = region_->nextStamp();
      writeEnd(e->dseq);
    } else {
      idx = free_.back();
      std::uint32_t preds[Layout::kMaxLevel];
      findPreds(k, preds);
      std::uint32_t const level = randomLevel();
      Layout::EntryHead* e = head(idx);
      e->op = Layout::opInsert;
      writeBegin(e->lseq);
      writeBegin(e->dseq);
      e->live = 1;
      e->level = static_cast<std::uint8_t>(level);
      writerStep("insert.entry");
      std::memcpy(keyAt(idx), &k, sizeof(K));
      mirror_[idx].key = k;
      for (std::uint32_t l = 0; l < Layout::kMaxLevel; ++l) {
        std::uint32_t n = l < level ? mirror_[preds[l]].next[l] : Layout::kNone;
        links(idx)[l].store(n, std::memory_order_relaxed);
        mirror_[idx].next[l] = n;
      }
      std::memcpy(recordAt(idx), &r, sizeof(R));
      e->stamp = region_->nextStamp();
      writeEnd(e->dseq);
      writeEnd(e->lseq);
      e->op = Layout::opNone;
      free_.pop_back();
      for (std::uint32_t l = 0; l < level; ++l) {
        prevOf(idx, l) = preds[l];
        std::uint32_t const s = mirror_[idx].next[l];
        if (s != Layout::kNone) prevOf(s, l) = idx;
      }
      // Link bottom-up: a reader that sees the node at level l finds it at
      // every level below.
      for (std::uint32_t l = 0; l < level;) {
        std::uint32_t const p = preds[l];
        Layout::EntryHead* ph = head(p);
        ph->op = Layout::opLink;
        writeBegin(ph->lseq);
        writerStep("insert.link");
        for (; l < level && preds[l] == p; ++l) {
          links(p)[l].store(idx, std::memory_order_relaxed);
          mirror_[p].next[l] = idx;
        }
        writeEnd(ph->lseq);
        ph->op = Layout::opNone;
      }
      aheadRefresh(idx, preds[0]);
      if (level > topLevel_) {
        topLevel_ = level;
        control_->topLevel.store(level, std::memory_order_release);
      }
      writerStep("insert.slot");
      if (std::uint32_t(slots_[ins].load(std::memory_order_relaxed)) == Layout::kSlotTombstone) --tombstones_;
      slots_[ins].store((h >> 32) << 32 | (std::uint64_t(idx) + 1), std::memory_order_release);
      control_->size.store(capacity_ - std::uint32_t(free_.size()), std::memory_order_relaxed);
      control_->tombstones.store(tombstones_, std::memory_order_relaxed);
    }
    // A file cut short under the writer lost the write: say so rather than
    // report a change nobody else can see.
    region_->checkTruncated();
    changeLogged(&k);
    if (hook_) hook_(k);
    return true;
  }

  // Removes the record under `k`; false when there was none.
  bool del(K const& k) {
    checkUsable(true);
    region_->logReserve();
    std::uint64_t const h = hash(k);
    std::uint32_t pos, ins;
    std::uint32_t const idx = writerFind(k, h, pos, ins);
    if (idx == Layout::kNone) return false;
    Layout::EntryHead* e = head(idx);
    std::uint32_t level = e->level;
    if (level == 0 || level > Layout::kMaxLevel)
      fail("entry " + std::to_string(idx) + " has level " + std::to_string(level));
    std::uint32_t preds[Layout::kMaxLevel];
    bool known = true;
    for (std::uint32_t l = 0; l < level && known; ++l) {
      preds[l] = prevOf(idx, l);
      known = preds[l] <= capacity_ && mirror_[preds[l]].next[l] == idx;
    }
    if (!known) findPreds(k, preds);
    // Unlink top-down, then retire the entry: a reader standing on it sees
    // its lseq move and searches again from its key.
    for (std::uint32_t l = level; l-- > 0;) {
      std::uint32_t const p = preds[l];
      Layout::EntryHead* ph = head(p);
      if (mirror_[p].next[l] != idx) continue;  // never linked this high
      ph->op = Layout::opLink;
      writeBegin(ph->lseq);
      writerStep("delete.unlink");
      for (;; --l) {
        if (mirror_[p].next[l] == idx) {
          links(p)[l].store(mirror_[idx].next[l], std::memory_order_relaxed);
          mirror_[p].next[l] = mirror_[idx].next[l];
        }
        if (l == 0 || preds[l - 1] != p) break;
      }
      writeEnd(ph->lseq);
      ph->op = Layout::opNone;
    }
    for (std::uint32_t l = 0; l < level; ++l) {
      std::uint32_t const s = mirror_[idx].next[l];
      if (s != Layout::kNone) prevOf(s, l) = preds[l];
    }
    aheadRefresh(Layout::kNone, preds[0]);
    slots_[pos].store(Layout::kSlotTombstone, std::memory_order_release);
    ++tombstones_;
    e->op = Layout::opDelete;
    writeBegin(e->lseq);
    writerStep("delete.retire");
    e->live = 0;
    writeEnd(e->lseq);
    e->op = Layout::opNone;
    free_.push_back(idx);
    control_->size.store(capacity_ - std::uint32_t(free_.size()), std::memory_order_relaxed);
    if (tombstones_ > (slotMask_ + 1) / 4) rebuildHashSlots();
    control_->tombstones.store(tombstones_, std::memory_order_relaxed);
    region_->checkTruncated();
    changeLogged(&k);
    if (hook_) hook_(k);
    return true;
  }

  // Ordered iteration. first: the smallest key. next: the first key greater
  // than `after` (also when `after` was deleted meanwhile). lowerBound: the
  // first key not less than `from`. Each returns false at the end and sets
  // `hint` for the following step. key/rec are outputs; `after` may alias
  // `key`.
  bool first(K& key, R& rec, IterHint& hint) const { return seek(nullptr, false, key, rec, hint); }
  bool next(K const& after, K& key, R& rec, IterHint& hint) const {
    checkUsable(false);
    if (isRecord(hint.entry)) {
      int r = stepFromHint(after, key, rec, hint);
      if (r >= 0) return r == 1;
    }
    K const a = after;
    return seek(&a, true, key, rec, hint);
  }
  bool next(K const& after, K& key, R& rec) const {
    IterHint hint;
    return next(after, key, rec, hint);
  }
  bool lowerBound(K const& from, K& key, R& rec, IterHint& hint) const {
    K const f = from;
    return seek(&f, false, key, rec, hint);
  }

  // Unordered iteration over entry positions: cheap, stable under deletes
  // of other records and under growth (new entries come last). `pos` is
  // the caller's cursor (start at 0).
  bool unorderedFirst(std::uint32_t& pos, K& key, R& rec) const {
    pos = 0;
    return unorderedNext(pos, key, rec);
  }
  bool unorderedNext(std::uint32_t& pos, K& key, R& rec) const {
    checkUsable(false);
    shapeRefresh();
    for (; pos < capacity_; ++pos) {
      std::uint64_t stamp;
      if (readEntry(pos + 1, &key, &rec, stamp)) {
        ++pos;
        return true;
      }
    }
    region_->checkTruncated();
    return false;
  }

  // A record holds its own key, so each prints once: the record alone.
  std::size_t printOrdered(std::ostream& os, std::size_t limit) const override {
    IterHint hint;
    K k;
    R r;
    std::size_t n = 0;
    for (bool ok = first(k, r, hint); ok && n < limit; ok = next(k, k, r, hint), ++n) {
      printValue(os, r);
      os << "\n";
    }
    return n;
  }
  std::size_t forEachPrinted(std::size_t limit, PrintedRecord const& fn) const override {
    IterHint hint;
    K k;
    R r;
    std::size_t n = 0;
    for (bool ok = first(k, r, hint); ok && n < limit; ok = next(k, k, r, hint), ++n) {
      std::ostringstream key, record;
      printValue(key, k);
      printValue(record, r);
      fn(key.str(), record.str());
    }
    return n;
  }
  void printKey(std::ostream& os, void const* key) const override {
    K k;
    std::memcpy(static_cast<void*>(&k), key, sizeof(K));
    alignas(R) unsigned char buf[sizeof(R)];
    std::uint64_t stamp;
    if (lookup(k, reinterpret_cast<R*>(buf), stamp)) {
      printValue(os, *reinterpret_cast<R const*>(buf));
    } else {
      printValue(os, k);
      os << " deleted";
    }
  }

  void hookIs(Hook hook) { hook_ = std::move(hook); }

 protected:
  void adopt() override;
  void attach(Region* region, std::uint32_t index) override {
    TableBase::attach(region, index);
    if (!writer()) return;
    mirror_.clear();
    privateGrow(capacity_);
  }
  void privateGrow(std::uint32_t capacity) override {
    Node empty;
    std::fill(std::begin(empty.next), std::end(empty.next), Layout::kNone);
    mirror_.resize(std::size_t(capacity) + 1, empty);
  }
  void detach() override {
    TableBase::detach();
    mirror_.clear();
    mirror_.shrink_to_fit();
  }
  void notifyKey(void const* key) override {
    K k;
    std::memcpy(static_cast<void*>(&k), key, sizeof(K));
    if (following_) {
      try {
        std::uint64_t stamp = 0;
        seenDelta_[k] = lookup(k, nullptr, stamp) ? stamp : kGone;
      } catch (Pelto::CorruptionDetectedException const& e) {
        // Forget it: the next resync announces it again if it differs.
        seenDelta_[k] = kGone;
        corruptionDetected(e.what());
      }
    }
    if (hook_) hook_(k);
  }
  void snapshotStart() override {
    following_ = true;
    seenBase_ = scan();
    seenDelta_.clear();
  }
  void snapshotStop() override {
    following_ = false;
    seenBase_.clear();
    seenBase_.shrink_to_fit();
    seenDelta_.clear();
  }
  void resync() override {
    Seen now = scan();
    Seen seen = seenNow();
    std::vector<K> changed;
    auto a = seen.begin();
    auto b = now.begin();
    while (a != seen.end() || b != now.end()) {
      if (b == now.end() || (a != seen.end() && a->first < b->first)) {
        changed.push_back(a->first);
        ++a;
      } else if (a == seen.end() || b->first < a->first) {
        changed.push_back(b->first);
        ++b;
      } else {
        if (a->second != b->second) changed.push_back(a->first);
        ++a;
        ++b;
      }
    }
    seenBase_ = std::move(now);
    seenDelta_.clear();
    for (K const& k : changed) {
      if (hook_) hook_(k);
      if (!region_) return;
      changeHookFire(&k);
    }
  }
  std::uint64_t hashOfEntry(std::uint32_t i) const override {
    K k;
    std::memcpy(static_cast<void*>(&k), keyAt(i), sizeof(K));
    return hash(k);
  }

 private:
  static std::uint64_t hash(K const& k) { return KeyHash<K>()(k); }
  static bool same(R const& a, R const& b) {
    if constexpr (std::equality_comparable<R>)
      return a == b;
    else
      return std::memcmp(&a, &b, sizeof(R)) == 0;
  }
  static bool equal(K const& a, K const& b) {
    if constexpr (std::equality_comparable<K>)
      return a == b;
    else
      return !(a < b) && !(b < a);
  }
  template <class T>
  static void printValue(std::ostream& os, T const& v) {
    if constexpr (requires { os << v; }) {
      os << v;
    } else {
      static char const digits[] = "0123456789abcdef";
      auto const* p = reinterpret_cast<unsigned char const*>(&v);
      for (std::size_t i = 0; i < sizeof(T); ++i) os << digits[p[i] >> 4] << digits[p[i] & 15];
    }
  }

  // Reader lookup; returns whether found, copies the record into `out`
  // (when given) and its stamp.
  bool lookup(K const& k, R* out, std::uint64_t& stamp) const {
    checkUsable(false);
    if (__builtin_expect(control_->structGen.load(std::memory_order_relaxed) & 1, 0) && fallbackReady())
      return fallbackLookup(k, out, stamp);
    std::uint64_t const h = hash(k);
    std::uint32_t const tag = std::uint32_t(h >> 32);
    for (unsigned attempt = 0; attempt < kRetries; ++attempt) {
      std::uint64_t const g = readBegin();
      int r = lookupOnce(k, h, tag, out, stamp, g);
      if (r >= 0 && readEnd(g)) {
        region_->checkTruncated();
        return r == 1;
      }
    }
    retriesExhausted();
  }
  // 1 hit, 0 miss, -1 raced: retry.
  int lookupOnce(K const& k, std::uint64_t h, std::uint32_t tag, R* out, std::uint64_t& stamp, std::uint64_t g) const {
    std::uint32_t pos = std::uint32_t(h) & slotMask_;
    for (std::uint32_t n = 0; n <= slotMask_; ++n, pos = (pos + 1) & slotMask_) {
      std::uint64_t const s = slots_[pos].load(std::memory_order_acquire);
      std::uint32_t const lo = std::uint32_t(s);
      if (lo == Layout::kSlotEmpty) return 0;
      if (lo == Layout::kSlotTombstone || std::uint32_t(s >> 32) != tag) continue;
      std::uint32_t const idx = lo - 1;
      if (!isRecord(idx)) {
        // An index from a newer shape, or this one rebuilt under us.
        if (shapeMoved() || !readEnd(g)) return -1;
        slotFail(pos, s);
      }
      Layout::EntryHead const* e = head(idx);
      std::uint32_t const l1 = stableL(idx);
      K kk;
      std::memcpy(static_cast<void*>(&kk), keyAt(idx), sizeof(K));
      bool const live = e->live == 1;
      std::atomic_thread_fence(std::memory_order_acquire);
      if (e->lseq.load(std::memory_order_relaxed) != l1) return -1;
      if (!live || !equal(kk, k)) continue;
      std::uint32_t const d1 = stableD(idx);
      if (out) std::memcpy(static_cast<void*>(out), recordAt(idx), sizeof(R));
      stamp = e->stamp;
      std::atomic_thread_fence(std::memory_order_acquire);
      if (e->dseq.load(std::memory_order_relaxed) != d1 || e->lseq.load(std::memory_order_relaxed) != l1) return -1;
      return 1;
    }
    if (shapeMoved() || !readEnd(g)) return -1;
    loopFail("hash probe");
  }

  // Reads entry i when live; false when dead. Retries races, bounded.
  bool readEntry(std::uint32_t i, K* key, R* rec, std::uint64_t& stamp) const {
    Layout::EntryHead const* e = head(i);
    for (unsigned attempt = 0; attempt < kRetries; ++attempt) {
      std::uint32_t const l1 = stableL(i);
      if (e->live != 1) {
        std::atomic_thread_fence(std::memory_order_acquire);
        if (e->lseq.load(std::memory_order_relaxed) == l1) return false;
        continue;
      }
      std::uint32_t const d1 = stableD(i);
      if (key) std::memcpy(static_cast<void*>(key), keyAt(i), sizeof(K));
      if (rec) std::memcpy(static_cast<void*>(rec), recordAt(i), sizeof(R));
      stamp = e->stamp;
      std::atomic_thread_fence(std::memory_order_acquire);
      if (e->lseq.load(std::memory_order_relaxed) == l1 && e->dseq.load(std::memory_order_relaxed) == d1) {
        region_->checkTruncated();
        return true;
      }
    }
    retriesExhausted();
  }

  // One step from the hint: 1 found, 0 end, -1 hint unusable.
  int stepFromHint(K const& after, K& key, R& rec, IterHint& hint) const {
    std::uint64_t const g = control_->structGen.load(std::memory_order_acquire);
    if (g != hint.gen) return -1;
    std::uint32_t const x = hint.entry;
    Layout::EntryHead const* xh = head(x);
    if (xh->lseq.load(std::memory_order_acquire) != hint.seq) return -1;
    K xk;
    std::memcpy(static_cast<void*>(&xk), keyAt(x), sizeof(K));
    std::uint32_t const n = checkedLink(x, 0, links(x)[0].load(std::memory_order_acquire));
    if (n == Layout::kNone) {
      std::atomic_thread_fence(std::memory_order_acquire);
      if (xh->lseq.load(std::memory_order_relaxed) != hint.seq || !equal(xk, after) || !readEnd(g)) return -1;
      region_->checkTruncated();
      return 0;
    }
    Layout::EntryHead const* nh = head(n);
    std::uint32_t const l1 = nh->lseq.load(std::memory_order_acquire);
    std::uint32_t const d1 = nh->dseq.load(std::memory_order_acquire);
    if ((l1 | d1) & 1) return -1;
    K nk;
    std::memcpy(static_cast<void*>(&nk), keyAt(n), sizeof(K));
    std::memcpy(static_cast<void*>(&rec), recordAt(n), sizeof(R));
    bool const live = nh->live == 1;
    std::atomic_thread_fence(std::memory_order_acquire);
    if (nh->lseq.load(std::memory_order_relaxed) != l1 || nh->dseq.load(std::memory_order_relaxed) != d1 ||
        xh->lseq.load(std::memory_order_relaxed) != hint.seq || !readEnd(g) || !live || !equal(xk, after))
      return -1;
    region_->checkTruncated();
    // A walk goes on to the node after this one: start fetching it now, so
    // the next step finds it in cache.
    // The next few steps are already on their way (fetched by the steps
    // before); start on the one after them.
    std::uint32_t const ahead = nh->ahead.load(std::memory_order_relaxed);
    if (isRecord(ahead)) {
      unsigned char const* p = entries_ + std::size_t(ahead) * entrySize_;
      for (std::uint32_t off = 0; off < entrySize_; off += 64) __builtin_prefetch(p + off);
    }
    if (!(after < nk))
      fail("entry " + std::to_string(x) + " links to entry " + std::to_string(n) + ", whose key is not after its own");
    key = nk;
    hint.entry = n;
    hint.seq = l1;
    return 1;
  }

  // Searches from the top: the first key > *target (strict) or >= *target;
  // the first key when target is null.
  bool seek(K const* target, bool strict, K& key, R& rec, IterHint& hint) const {
    checkUsable(false);
    if (__builtin_expect(control_->structGen.load(std::memory_order_relaxed) & 1, 0) && fallbackReady())
      return fallbackSeek(target, strict, key, rec, hint);
    for (unsigned attempt = 0; attempt < kRetries; ++attempt) {
      std::uint64_t const g = readBegin();
      int r = seekOnce(target, strict, key, rec, hint);
      if (r >= 0 && readEnd(g)) {
        region_->checkTruncated();
        hint.gen = g;
        if (r == 0) hint.clear();
        return r == 1;
      }
    }
    retriesExhausted();
  }
  int seekOnce(K const* target, bool strict, K& key, R& rec, IterHint& hint) const {
    std::uint32_t x = headEntry();
    std::uint32_t xs = stableL(x);
    std::uint32_t top = control_->topLevel.load(std::memory_order_acquire);
    if (top == 0 || top > Layout::kMaxLevel) top = Layout::kMaxLevel;
    std::uint64_t steps = 0;
    std::uint64_t const bound = (std::uint64_t(limit_) + 1) * Layout::kMaxLevel;
    std::uint32_t cand = Layout::kNone, cs = 0;
    K ck;
    for (std::uint32_t l = top; l-- > 0;) {
      for (;;) {
        std::uint32_t const n = checkedLink(x, l, links(x)[l].load(std::memory_order_acquire));
        if (n == Layout::kNone) break;
        std::uint32_t const ns = stableL(n);
        K nk;
        std::memcpy(static_cast<void*>(&nk), keyAt(n), sizeof(K));
        std::atomic_thread_fence(std::memory_order_acquire);
        if (head(n)->lseq.load(std::memory_order_relaxed) != ns || head(x)->lseq.load(std::memory_order_relaxed) != xs)
          return -1;
        bool const advance = target && (strict ? !(*target < nk) : (nk < *target));
        if (!advance) {
          if (l == 0) {
            cand = n;
            cs = ns;
            ck = nk;
          }
          break;
        }
        if (++steps > bound) loopFail("ordered search");
        x = n;
        xs = ns;
      }
    }
    if (cand == Layout::kNone) return 0;
    Layout::EntryHead const* c = head(cand);
    std::uint32_t const d1 = stableD(cand);
    std::memcpy(static_cast<void*>(&rec), recordAt(cand), sizeof(R));
    bool const live = c->live == 1;
    std::atomic_thread_fence(std::memory_order_acquire);
    if (c->dseq.load(std::memory_order_relaxed) != d1 || c->lseq.load(std::memory_order_relaxed) != cs ||
        head(x)->lseq.load(std::memory_order_relaxed) != xs)
      return -1;
    if (!live) fail("entry " + std::to_string(cand) + " is linked but not live");
    key = ck;
    hint.entry = cand;
    hint.seq = cs;
    return 1;
  }

  // A writer killed while rebuilding the indexes (or adopting the file)
  // leaves structGen odd for good, with the hash slots and the skip list
  // half made; the entries themselves are whole but for at most one. Until
  // a new writer adopts the file, readers answer lookups and ordered walks
  // from a private index of the entries, built by one scan and kept while
  // structGen and the writer epoch stay as they are.
  bool fallbackReady() const {
    std::uint64_t const g = control_->structGen.load(std::memory_order_acquire);
    if ((g & 1) == 0) return false;
    std::uint64_t const epoch = region_->header()->writerEpoch.load(std::memory_order_acquire);
    if (fallbackValid_ && fallbackGen_ == g && fallbackEpoch_ == epoch) return true;
    // A live writer gets the bounded wait: it is most likely mid-rebuild.
    if (writer() || region_->writerAlive()) return false;
    ScanBound bound(*this);
    fallback_.clear();
    shapeRefresh();
    for (std::uint32_t i = 1; i <= capacity_; ++i) {
      K k;
      std::uint64_t stamp;
      try {
        if (readEntry(i, &k, nullptr, stamp)) fallback_.emplace_back(k, i);
      } catch (Pelto::CorruptionDetectedException const& e) {
        corruptionDetected(e.what());
        if (region_->truncated()) throw;
      }
    }
    std::sort(fallback_.begin(), fallback_.end(), [](auto const& a, auto const& b) { return a.first < b.first; });
    fallbackValid_ = true;
    fallbackGen_ = g;
    fallbackEpoch_ = epoch;
    fallbackNoticed();
    return true;
  }
  bool fallbackLookup(K const& k, R* out, std::uint64_t& stamp) const {
    auto it =
        std::lower_bound(fallback_.begin(), fallback_.end(), k, [](auto const& a, K const& b) { return a.first < b; });
    for (; it != fallback_.end() && !(k < it->first); ++it) {
      K kk;
      if (readEntry(it->second, &kk, out, stamp) && equal(kk, k)) return true;
    }
    return false;
  }
  bool fallbackSeek(K const* target, bool strict, K& key, R& rec, IterHint& hint) const {
    auto it = fallback_.begin();
    if (target)
      it = strict ? std::upper_bound(fallback_.begin(), fallback_.end(), *target,
                                     [](K const& a, auto const& b) { return a < b.first; })
                  : std::lower_bound(fallback_.begin(), fallback_.end(), *target,
                                     [](auto const& a, K const& b) { return a.first < b; });
    hint.clear();
    for (; it != fallback_.end(); ++it) {
      std::uint64_t stamp;
      K kk;
      if (readEntry(it->second, &kk, &rec, stamp) && equal(kk, it->first)) {
        key = kk;
        return true;
      }
    }
    return false;
  }

  // Writer: the entry holding k (or kNone), its slot, and where an insert
  // would go (the first tombstone or the empty slot that ended the probe).
  std::uint32_t writerFind(K const& k, std::uint64_t h, std::uint32_t& pos, std::uint32_t& ins) const {
    std::uint32_t const tag = std::uint32_t(h >> 32);
    std::uint32_t p = std::uint32_t(h) & slotMask_;
    ins = Layout::kNone;
    for (std::uint32_t n = 0; n <= slotMask_; ++n, p = (p + 1) & slotMask_) {
      std::uint64_t const s = slots_[p].load(std::memory_order_relaxed);
      std::uint32_t const lo = std::uint32_t(s);
      if (lo == Layout::kSlotEmpty) {
        if (ins == Layout::kNone) ins = p;
        return Layout::kNone;
      }
      if (lo == Layout::kSlotTombstone) {
        if (ins == Layout::kNone) ins = p;
        continue;
      }
      if (std::uint32_t(s >> 32) != tag) continue;
      std::uint32_t const idx = lo - 1;
      if (!isRecord(idx)) slotFail(p, s);
      K kk;
      std::memcpy(static_cast<void*>(&kk), keyAt(idx), sizeof(K));
      if (head(idx)->live == 1 && equal(kk, k)) {
        pos = p;
        return idx;
      }
    }
    if (ins != Layout::kNone) return Layout::kNone;
    loopFail("hash probe");
  }

  // Writer: after a change next to `pred` at level 0 (`node` inserted after
  // it, or kNone), refreshes the `ahead` hints that can have changed.
  void aheadSet(std::uint32_t x) {
    std::uint32_t n = x;
    for (unsigned i = 0; i < kAhead && n != Layout::kNone; ++i) n = mirror_[n].next[0];
    head(x)->ahead.store(n, std::memory_order_relaxed);
  }
  // The chain around the change is ... back[1], back[0] = pred, fwd[0],
  // fwd[1], ...; each node's hint is the node kAhead steps on.
  void aheadRefresh(std::uint32_t node, std::uint32_t pred) {
    std::uint32_t back[kAhead], fwd[kAhead + 1];
    unsigned nb = 0;
    for (std::uint32_t x = pred; nb < kAhead;) {
      back[nb++] = x;
      if (x == headEntry()) break;
      x = prevOf(x, 0);
      if (x > capacity_) break;
    }
    std::uint32_t y = pred;
    for (unsigned i = 0; i <= kAhead; ++i) fwd[i] = y = y == Layout::kNone ? y : mirror_[y].next[0];
    for (unsigned j = 0; j < nb; ++j) head(back[j])->ahead.store(fwd[kAhead - 1 - j], std::memory_order_relaxed);
    if (node != Layout::kNone) head(node)->ahead.store(fwd[kAhead], std::memory_order_relaxed);
  }
  // How many steps ahead an ordered walk prefetches: enough to cover a
  // memory access at a few tens of nanoseconds per step.
  static constexpr unsigned kAhead = 4;

  // Writer: the last node before k at every level, found in the writer's
  // private mirror of keys and links (dense, and out of reach of whatever
  // else writes into the file).
  void findPreds(K const& k, std::uint32_t* preds) const {
    std::uint32_t x = headEntry();
    for (std::uint32_t l = Layout::kMaxLevel; l-- > 0;) {
      if (l < topLevel_) {
        for (std::uint32_t n = mirror_[x].next[l]; n != Layout::kNone && mirror_[n].key < k; n = mirror_[x].next[l])
          x = n;
      }
      preds[l] = x;
    }
  }

  // Every record's key and stamp, in key order: one pass over the entries
  // in use and a sort, no allocation per record.
  using Seen = std::vector<std::pair<K, std::uint64_t>>;
  Seen scan() const {
    ScanBound bound(*this);
    Seen out;
    shapeRefresh();
    out.reserve(std::min(capacity_, control_->size.load(std::memory_order_relaxed)));
    for (std::uint32_t i = 1; i <= capacity_; ++i) {
      K k;
      std::uint64_t stamp;
      try {
        if (readEntry(i, &k, nullptr, stamp)) out.emplace_back(k, stamp);
      } catch (Pelto::CorruptionDetectedException const& e) {
        corruptionDetected(e.what());
        if (region_->truncated()) break;
      }
    }
    auto const byKey = [](auto const& a, auto const& b) { return a.first < b.first; };
    std::sort(out.begin(), out.end(), byKey);
    // One key twice comes only from damage: keep one.
    out.erase(std::unique(out.begin(), out.end(), [](auto const& a, auto const& b) { return equal(a.first, b.first); }),
              out.end());
    return out;
  }
  // What this reader last saw: the snapshot with the changes heard since.
  Seen seenNow() const {
    Seen out;
    out.reserve(seenBase_.size() + seenDelta_.size());
    auto a = seenBase_.begin();
    auto b = seenDelta_.begin();
    while (a != seenBase_.end() || b != seenDelta_.end()) {
      if (b == seenDelta_.end() || (a != seenBase_.end() && a->first < b->first)) {
        out.push_back(*a++);
        continue;
      }
      if (a != seenBase_.end() && !(b->first < a->first)) ++a;
      if (b->second != kGone) out.emplace_back(b->first, b->second);
      ++b;
    }
    return out;
  }

  struct Node {
    K key{};
    std::uint32_t next[Layout::kMaxLevel];
  };
  std::vector<Node> mirror_;                                   // the writer's: entry i's key and links, head last
  mutable std::vector<std::pair<K, std::uint32_t>> fallback_;  // (key, entry) in key order
  mutable bool fallbackValid_ = false;
  mutable std::uint64_t fallbackGen_ = 0;
  mutable std::uint64_t fallbackEpoch_ = 0;
  Hook hook_;
  bool following_ = false;
  // A following reader's view, for the comparison after the log wrapped: a
  // sorted snapshot and the changes heard since (kGone: deleted).
  static constexpr std::uint64_t kGone = 0;
  Seen seenBase_;
  std::map<K, std::uint64_t> seenDelta_;
};

// A new writer takes over the records of the file: records whose write was
// cut short by a crash are dropped (and announced as changed), the skip list
// and the hash slots are rebuilt from the surviving entries, and the free
// list is recovered. Readers wait (within bounds) while structGen is odd.
template <class K, class R, auto KeyOf>
void Table<K, R, KeyOf>::adopt() {
  genBegin();
  // The head's counters too: a writer killed while relinking it leaves its
  // lseq odd, and every ordered walk starts there.
  for (Layout::EntryHead* e = head(headEntry()); auto* seq : {&e->lseq, &e->dseq}) {
    std::uint32_t const v = seq->load(std::memory_order_relaxed);
    if (v & 1) seq->store(v + 1, std::memory_order_relaxed);
  }
  head(headEntry())->op = Layout::opNone;
  writerStep("adopt.scan");
  std::vector<std::uint32_t> keep;
  std::vector<K> dropped;
  for (std::uint32_t i = 1; i <= capacity_; ++i) {
    Layout::EntryHead* e = head(i);
    std::uint32_t const l = e->lseq.load(std::memory_order_relaxed);
    std::uint32_t const d = e->dseq.load(std::memory_order_relaxed);
    bool const lodd = l & 1, dodd = d & 1;
    if (lodd) e->lseq.store(l + 1, std::memory_order_relaxed);
    if (dodd) e->dseq.store(d + 1, std::memory_order_relaxed);
    if (e->live != 1) {
      e->live = 0;
      continue;
    }
    bool const intact = !dodd && (!lodd || e->op == Layout::opLink) && e->level >= 1 && e->level <= Layout::kMaxLevel;
    e->op = Layout::opNone;
    if (!intact) {
      K k;
      std::memcpy(static_cast<void*>(&k), keyAt(i), sizeof(K));
      dropped.push_back(k);
      writeBegin(e->lseq);
      e->live = 0;
      writeEnd(e->lseq);
      continue;
    }
    keep.push_back(i);
  }
  auto keyOfEntry = [this](std::uint32_t i) {
    K k;
    std::memcpy(static_cast<void*>(&k), keyAt(i), sizeof(K));
    return k;
  };
  std::sort(keep.begin(), keep.end(), [&](std::uint32_t a, std::uint32_t b) { return keyOfEntry(a) < keyOfEntry(b); });
  // Two live entries with one key cannot come from a crash; keep the newer.
  std::vector<std::uint32_t> unique;
  for (std::uint32_t i : keep) {
    if (!unique.empty() && equal(keyOfEntry(unique.back()), keyOfEntry(i))) {
      std::uint32_t& prev = unique.back();
      std::uint32_t const loser = head(prev)->stamp >= head(i)->stamp ? i : prev;
      prev = loser == i ? prev : i;
      writeBegin(head(loser)->lseq);
      head(loser)->live = 0;
      writeEnd(head(loser)->lseq);
      continue;
    }
    unique.push_back(i);
  }
  std::uint32_t last[Layout::kMaxLevel];
  Layout::EntryHead* hh = head(headEntry());
  writeBegin(hh->lseq);
  for (std::uint32_t l = 0; l < Layout::kMaxLevel; ++l) {
    last[l] = headEntry();
    links(headEntry())[l].store(Layout::kNone, std::memory_order_relaxed);
    mirror_[headEntry()].next[l] = Layout::kNone;
  }
  hh->live = 0;
  hh->level = Layout::kMaxLevel;
  writerStep("adopt.head");
  writeEnd(hh->lseq);
  topLevel_ = 1;
  for (std::uint32_t i : unique) {
    Layout::EntryHead* e = head(i);
    writeBegin(e->lseq);
    for (std::uint32_t l = 0; l < Layout::kMaxLevel; ++l) {
      links(i)[l].store(Layout::kNone, std::memory_order_relaxed);
      mirror_[i].next[l] = Layout::kNone;
    }
    std::memcpy(static_cast<void*>(&mirror_[i].key), keyAt(i), sizeof(K));
    writeEnd(e->lseq);
    for (std::uint32_t l = 0; l < e->level; ++l) {
      Layout::EntryHead* p = head(last[l]);
      writeBegin(p->lseq);
      writerStep("adopt.link");
      links(last[l])[l].store(i, std::memory_order_relaxed);
      mirror_[last[l]].next[l] = i;
      prevOf(i, l) = last[l];
      writeEnd(p->lseq);
      last[l] = i;
    }
    topLevel_ = std::max<std::uint32_t>(topLevel_, e->level);
  }
  control_->topLevel.store(topLevel_, std::memory_order_relaxed);
  aheadSet(headEntry());
  for (std::uint32_t i : unique) aheadSet(i);
  free_.clear();
  std::vector<bool> used(std::size_t(capacity_) + 1, false);
  for (std::uint32_t i : unique) used[i] = true;
  for (std::uint32_t i = capacity_; i >= 1; --i)
    if (!used[i]) free_.push_back(i);
  control_->size.store(std::uint32_t(unique.size()), std::memory_order_relaxed);
  rebuildHashSlots();
  writerStep("adopt.end");
  genEnd();
  for (K const& k : dropped) {
    region_->logReserve();
    changeLogged(&k);
    if (hook_) hook_(k);
  }
}

}  // namespace Vorn

// Declares table `name` of a status class: the member, the typed accessors
// name(key) (the record or Record()), nameIs(record), nameDel(key),
// nameTable() (ordered and unordered iteration, size, corruptionDetected),
// and the hook NotifieeConst::onName(key) fired on every change.
#define VORN_TABLE(StatusClass, name, Name, KeyType, RecordType, keyOfRecord, defaultCapacity)               \
 public:                                                                                                     \
  using Name##Table = ::Vorn::Table<KeyType, RecordType, keyOfRecord>;                                       \
  RecordType name(KeyType const& k) const { return name##_.find(k); }                                        \
  bool name##Is(RecordType const& r) { return name##_.is(r); }                                               \
  bool name##Del(KeyType const& k) { return name##_.del(k); }                                                \
  Name##Table& name##Table() { return name##_; }                                                             \
  Name##Table const& name##Table() const { return name##_; }                                                 \
                                                                                                             \
 private:                                                                                                    \
  Name##Table name##_{this, #name, defaultCapacity,                                                          \
                      [this](KeyType const& k) { this->notify(&StatusClass::NotifieeConst::on##Name, k); }}; \
                                                                                                             \
 public:
