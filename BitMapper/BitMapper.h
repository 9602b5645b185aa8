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

#include "BitMapper/BitIndexColl.h"
#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"
#include "Schema/BitMapper/BitMapperSchema.h"

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
  KIV_REFLECT_BEGIN(Config, "BitMapper::Config")
  std::uint32_t bitMapSize() const { return bitMapSize_; }
  KIV_REFLECT_SCALAR_RO(bitMapSize)
  KIV_ATTR(std::uint32_t, bitMapMinIndex, onBitMapMinIndex, 0)
  bool enableRefCount() const { return enableRefCount_; }
  KIV_REFLECT_SCALAR_RO(enableRefCount)
  KIV_ATTR(BitMapperKey, allocRequestKey, onAllocRequestKey, {})
  KIV_ATTR(std::uint32_t, allocRequestCount, onAllocRequestCount, 0)
  KIV_ATTR(BitMapperKey, deallocRequestKey, onDeallocRequestKey, {})
  KIV_ATTR(std::uint32_t, deallocRequestCount, onDeallocRequestCount, 0)
  KIV_REFLECT_END

  // Adds with 32-bit wrap-around; returns the new count.
  std::uint32_t allocRequestCountInc(std::uint32_t delta) {
    allocRequestCountIs(allocRequestCount_ + delta);
    return allocRequestCount_;
  }
  std::uint32_t deallocRequestCountInc(std::uint32_t delta) {
    deallocRequestCountIs(deallocRequestCount_ + delta);
    return deallocRequestCount_;
  }

 private:
  Config(std::uint32_t bitMapSize, bool enableRefCount) : bitMapSize_(bitMapSize), enableRefCount_(enableRefCount) {}

  std::uint32_t const bitMapSize_;
  bool const enableRefCount_;
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
  KIV_REFLECT_BEGIN(Status, "BitMapper::Status")

  // The key's index, BitIndex::waitlist() while it waits, or null.
  BitIndex bitIndex(BitMapperKey const& key) const {
    auto const* e = bitIndex_.find(key);
    return e ? e->second : BitIndex::null();
  }
  void bitIndexIs(BitMapperKey const& key, BitIndex index);
  // Returns the removed index, or null when the key was absent.
  BitIndex bitIndexDel(BitMapperKey const& key);
  void bitIndexDelAll();
  std::size_t bitIndexs() const { return bitIndex_.size(); }
  BitIndexColl const& bitIndexMap() const { return bitIndex_; }
  KIV_REFLECT_COLLECTION(bitIndex, BitMapperKey, bitIndexs(), bitIndex_)

  KIV_ATTR(std::uint32_t, waitlistChangeCount, onWaitlistChangeCount, 0)
  KIV_REFLECT_END

 private:
  Status() = default;

  BitIndexColl bitIndex_;
};

// Only the low 8 bits of enableRefCount are kept, as a bool.
Kiv::Ptr<Config> configFactory(std::uint32_t bitMapSize, std::uint32_t enableRefCount);
Kiv::Ptr<Status> statusFactory();

}  // namespace BitMapper
