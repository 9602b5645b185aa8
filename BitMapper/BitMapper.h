// The bit mapper's client side: `Config` describes the index space and
// carries the requests, `Status` holds the answers in the client's process.
//
// Request protocol: set allocRequestKey to the key, then raise
// allocRequestCount (allocRequestCountInc(1)); each notification of the
// count is one request for the key stored at that moment. Deallocation the
// same way with deallocRequestKey and deallocRequestCount. The answer is
// Status::bitIndex(key): an index, BitIndex::waitlist() while the key waits,
// or BitIndex::null().
#pragma once

#include <cstdint>
#include <unordered_map>

#include "BitMapper/BitMapperSchema.h"
#include "Kiv/Entity.h"

template <>
struct std::hash<BitMapper::BitMapperKey> {
  std::size_t operator()(BitMapper::BitMapperKey const& k) const noexcept { return k.hash(); }
};

namespace BitMapper {

class Config : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Config> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onBitMapMinIndex() {}
    virtual void onAllocRequestKey() {}
    virtual void onAllocRequestCount() {}
    virtual void onDeallocRequestKey() {}
    virtual void onDeallocRequestCount() {}
  };

  static Kiv::Ptr<Config> ConfigIs(std::uint32_t bitMapSize, bool enableRefCount) {
    return new Config(bitMapSize, enableRefCount);
  }
  std::string_view typeName() const override { return "BitMapper::Config"; }

  std::uint32_t bitMapSize() const { return bitMapSize_; }
  bool enableRefCount() const { return enableRefCount_; }

  std::uint32_t bitMapMinIndex() const { return bitMapMinIndex_; }
  void bitMapMinIndexIs(std::uint32_t v) {
    if (Kiv::changed(bitMapMinIndex_, v)) notify(&NotifieeConst::onBitMapMinIndex);
  }
  BitMapperKey const& allocRequestKey() const { return allocRequestKey_; }
  void allocRequestKeyIs(BitMapperKey const& k) {
    if (Kiv::changed(allocRequestKey_, k)) notify(&NotifieeConst::onAllocRequestKey);
  }
  std::uint32_t allocRequestCount() const { return allocRequestCount_; }
  void allocRequestCountIs(std::uint32_t n) {
    if (Kiv::changed(allocRequestCount_, n)) notify(&NotifieeConst::onAllocRequestCount);
  }
  // Adds with 32-bit wrap-around; returns the new count.
  std::uint32_t allocRequestCountInc(std::uint32_t delta) {
    allocRequestCountIs(allocRequestCount_ + delta);
    return allocRequestCount_;
  }
  BitMapperKey const& deallocRequestKey() const { return deallocRequestKey_; }
  void deallocRequestKeyIs(BitMapperKey const& k) {
    if (Kiv::changed(deallocRequestKey_, k)) notify(&NotifieeConst::onDeallocRequestKey);
  }
  std::uint32_t deallocRequestCount() const { return deallocRequestCount_; }
  void deallocRequestCountIs(std::uint32_t n) {
    if (Kiv::changed(deallocRequestCount_, n)) notify(&NotifieeConst::onDeallocRequestCount);
  }
  std::uint32_t deallocRequestCountInc(std::uint32_t delta) {
    deallocRequestCountIs(deallocRequestCount_ + delta);
    return deallocRequestCount_;
  }

 private:
  Config(std::uint32_t bitMapSize, bool enableRefCount) : bitMapSize_(bitMapSize), enableRefCount_(enableRefCount) {}

  std::uint32_t const bitMapSize_;
  std::uint32_t bitMapMinIndex_ = 0;
  bool const enableRefCount_;
  BitMapperKey allocRequestKey_;
  std::uint32_t allocRequestCount_ = 0;
  BitMapperKey deallocRequestKey_;
  std::uint32_t deallocRequestCount_ = 0;
};

class Status : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Status> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onBitIndex(BitMapperKey) {}
    virtual void onBitIndexkivImmediate(BitMapperKey) {}
    // The whole collection changed.
    virtual void onBitIndex() {}
    virtual void onWaitlistChangeCount() {}
  };
  class Notifiee : public NotifieeConst {
   public:
    using NotifieeConst::NotifieeConst;
  };

  static Kiv::Ptr<Status> StatusIs() { return new Status(); }
  std::string_view typeName() const override { return "BitMapper::Status"; }

  // The key's index, BitIndex::waitlist() while it waits, or null.
  BitIndex bitIndex(BitMapperKey const& key) const {
    auto it = bitIndex_.find(key);
    return it == bitIndex_.end() ? BitIndex::null() : it->second;
  }
  void bitIndexIs(BitMapperKey const& key, BitIndex index);
  // Returns the removed index, or null when the key was absent.
  BitIndex bitIndexDel(BitMapperKey const& key);
  void bitIndexDelAll();
  std::size_t bitIndexs() const { return bitIndex_.size(); }
  std::unordered_map<BitMapperKey, BitIndex> const& bitIndexMap() const { return bitIndex_; }

  std::uint32_t waitlistChangeCount() const { return waitlistChangeCount_; }
  void waitlistChangeCountIs(std::uint32_t n) {
    if (Kiv::changed(waitlistChangeCount_, n)) notify(&NotifieeConst::onWaitlistChangeCount);
  }

 private:
  Status() = default;

  std::unordered_map<BitMapperKey, BitIndex> bitIndex_;
  std::uint32_t waitlistChangeCount_ = 0;
};

// Only the low 8 bits of enableRefCount are kept, as a bool.
Kiv::Ptr<Config> configFactory(std::uint32_t bitMapSize, std::uint32_t enableRefCount);
Kiv::Ptr<Status> statusFactory();

}  // namespace BitMapper
