// BitMapper::BitIndexColl: Status's collection from key to index, in one
// open-addressed array: linear probing, a power-of-two number of slots at
// most half full, each used slot keeping its key's hash. A lookup reads one
// or two neighbouring slots and compares keys only on an equal hash; no
// node is allocated per key and no division picks a bucket, which is what
// an allocation and a release spend most of their in-process time on with a
// node-based hashed map. Removal shifts the following slots back, so there
// are no tombstones and a long run of allocations and releases does not
// slow lookups down.
//
// Iteration follows the slots: no order is promised, and any insertion or
// removal may reorder it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Schema/BitMapper/BitMapperSchema.h"

namespace BitMapper {

class BitIndexColl {
  struct Slot {
    std::uint64_t hash = 0;  // 0: empty; a used slot's hash has its top bit set
    std::pair<BitMapperKey, BitIndex> entry;
  };

 public:
  using key_type = BitMapperKey;
  using mapped_type = BitIndex;
  using value_type = std::pair<BitMapperKey, BitIndex>;

  class const_iterator {
   public:
    using value_type = BitIndexColl::value_type;
    value_type const& operator*() const { return s_->entry; }
    value_type const* operator->() const { return &s_->entry; }
    const_iterator& operator++() {
      ++s_;
      skip();
      return *this;
    }
    friend bool operator==(const_iterator const&, const_iterator const&) = default;

   private:
    friend class BitIndexColl;
    const_iterator(Slot const* s, Slot const* end) : s_(s), end_(end) { skip(); }
    void skip() {
      while (s_ != end_ && s_->hash == 0) ++s_;
    }
    Slot const* s_ = nullptr;
    Slot const* end_ = nullptr;
  };

  const_iterator begin() const { return const_iterator(slots_.data(), slots_.data() + slots_.size()); }
  const_iterator end() const { return const_iterator(slots_.data() + slots_.size(), slots_.data() + slots_.size()); }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The entry of k, or null.
  value_type const* find(BitMapperKey const& k) const {
    if (size_ == 0) return nullptr;
    std::uint64_t const h = hashOf(k);
    for (std::size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot const& s = slots_[i];
      if (s.hash == 0) return nullptr;
      if (s.hash == h && s.entry.first == k) return &s.entry;
    }
  }
  std::size_t count(BitMapperKey const& k) const { return find(k) ? 1 : 0; }

  // The index stored for k, inserting v when k is absent; and whether it
  // was inserted.
  std::pair<BitIndex*, bool> tryEmplace(BitMapperKey const& k, BitIndex v) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    std::uint64_t const h = hashOf(k);
    std::size_t i = h & mask_;
    for (;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.hash == 0) break;
      if (s.hash == h && s.entry.first == k) return {&s.entry.second, false};
    }
    slots_[i].hash = h;
    slots_[i].entry = value_type(k, v);
    ++size_;
    return {&slots_[i].entry.second, true};
  }

  // Removes k; its index, or nothing when k was absent.
  std::optional<BitIndex> erase(BitMapperKey const& k) {
    if (size_ == 0) return std::nullopt;
    std::uint64_t const h = hashOf(k);
    std::size_t i = h & mask_;
    for (;; i = (i + 1) & mask_) {
      Slot const& s = slots_[i];
      if (s.hash == 0) return std::nullopt;
      if (s.hash == h && s.entry.first == k) break;
    }
    BitIndex const old = slots_[i].entry.second;
    // Back-shift: every later slot of the run whose home is not between the
    // hole and itself moves into the hole.
    for (std::size_t j = (i + 1) & mask_; slots_[j].hash != 0; j = (j + 1) & mask_) {
      std::size_t const home = slots_[j].hash & mask_;
      if (((j - home) & mask_) >= ((j - i) & mask_)) {
        slots_[i] = slots_[j];
        i = j;
      }
    }
    slots_[i] = Slot();
    --size_;
    return old;
  }

  void clear() {
    slots_.clear();
    mask_ = 0;
    size_ = 0;
  }

 private:
  // An allocation looks its key up and then inserts it, a release looks it
  // up and then removes it: the second hash of the same key comes from a
  // one-entry memo, a comparison instead of a full mix.
  std::uint64_t hashOf(BitMapperKey const& k) const {
    if (!(k == memoKey_)) {
      memoKey_ = k;
      memoHash_ = k.hash() | kUsed;
    }
    return memoHash_;
  }
  static constexpr std::uint64_t kUsed = std::uint64_t(1) << 63;

  void grow() {
    std::vector<Slot> old(slots_.size() < 16 ? 16 : 2 * slots_.size());
    old.swap(slots_);
    mask_ = slots_.size() - 1;
    for (Slot const& s : old) {
      if (s.hash == 0) continue;
      std::size_t i = s.hash & mask_;
      while (slots_[i].hash != 0) i = (i + 1) & mask_;
      slots_[i] = s;
    }
  }

  std::vector<Slot> slots_;
  std::size_t mask_ = 0;
  std::size_t size_ = 0;
  // Starts as the null key with its own hash, so the memo is never wrong.
  mutable BitMapperKey memoKey_;
  mutable std::uint64_t memoHash_ = BitMapperKey().hash() | kUsed;
};

}  // namespace BitMapper
