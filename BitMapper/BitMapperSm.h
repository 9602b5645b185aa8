// BitMapper::BitMapperSm: the allocator. It answers every allocation and
// deallocation request filed on a Config, keeps the in-process Status and the
// shared VornStatus in step, hands out indices from a first-in first-out
// free pool, and parks keys that ask while the pool is empty on a waitlist
// that is served as indices come back.
//
// Allocation order: the pool is filled in ascending order at start and every
// released index goes to its tail, so a key gets the lowest never-used index
// while any remain, and after that the index released longest ago.
//
// Restart: a new machine over a shared table that already holds records
// leaves those indices out of its pool and replays the records into the
// Status, so clients see their keys again.
//
// Broken invariants (a request for the null key, a deallocation for a key
// that holds nothing, a change of the minimum index while indices are out)
// are assertions; corruption of the shared table is reported to the table
// and read as its end or as an absent record.
#pragma once

#include <cstdint>

#include "BitMapper/BitMapper.h"
#include "Kiv/Entity.h"
#include "Kiv/LinkQueue.h"
#include "Kiv/Reflect.h"
#include "Schema/BitMapper/BitMapperSchema.h"

namespace BitMapper {

class BitMapperSm : public Kiv::Entity {
 public:
  // An entry of the free pool: `index` is its queue sequence number,
  // `bitIndex` the free index.
  struct KivBitIndexFreePool {
    std::uint32_t index;
    BitIndex bitIndex;
  };
  using BitIndexFreePool = Kiv::LinkQueue<BitIndex, KivBitIndexFreePool, &KivBitIndexFreePool::bitIndex>;
  using BitIndexFreePoolMetadata = Kiv::LinkQueueMetadata;

  class KivConfig : public Config::NotifieeConst {
   public:
    KivConfig(Kiv::Ptr<Config const> const& config, BitMapperSm* owner)
        : Config::NotifieeConst(config), owner_(owner) {}
    void onAllocRequestCount() override { owner_->handleAllocRequestCount(); }
    void onDeallocRequestCount() override { owner_->handleDeallocRequestCount(); }
    void onBitMapMinIndex() override { owner_->handleBitMapMinIndex(); }

   private:
    BitMapperSm* owner_;
  };
  // Watch their entities for the machine's lifetime; they react to nothing.
  class KivStatus : public Status::NotifieeConst {
   public:
    using Status::NotifieeConst::NotifieeConst;
  };
  class KivVornStatus : public VornStatus::NotifieeConst {
   public:
    using VornStatus::NotifieeConst::NotifieeConst;
  };

  static Kiv::Ptr<BitMapperSm> BitMapperSmIs(Kiv::Ptr<Config> const& config, Kiv::Ptr<Status> const& status,
                                             Kiv::Ptr<VornStatus> const& vornStatus);
  ~BitMapperSm() override;
  KIV_REFLECT_BEGIN(BitMapperSm, "BitMapper::BitMapperSm")
  Kiv::Ptr<Config> const& config() const { return config_; }
  KIV_REFLECT_SCALAR_RO(config)
  Kiv::Ptr<Status> const& status() const { return status_; }
  KIV_REFLECT_SCALAR_RO(status)
  Kiv::Ptr<VornStatus> const& vornStatus() const { return vornStatus_; }
  KIV_REFLECT_SCALAR_RO(vornStatus)

  void handleAllocRequestCount();
  KIV_REFLECT_OPERATION(handleAllocRequestCount)
  void handleDeallocRequestCount();
  KIV_REFLECT_OPERATION(handleDeallocRequestCount)
  void handleBitMapMinIndex();
  KIV_REFLECT_OPERATION(handleBitMapMinIndex)
  // Gives bitMapperKey an index, or parks it (returns BitIndex::waitlist()).
  BitIndex doAllocBitIndex(BitMapperKey const& bitMapperKey);
  KIV_REFLECT_OPERATION(doAllocBitIndex)

  std::uint32_t minBitIndex() const { return minBitIndex_; }
  void minBitIndexIs(std::uint32_t v) { minBitIndex_ = v; }
  KIV_REFLECT_SCALAR(minBitIndex)
  std::uint32_t maxBitIndex() const { return maxBitIndex_; }
  void maxBitIndexIs(std::uint32_t v) { maxBitIndex_ = v; }
  KIV_REFLECT_SCALAR(maxBitIndex)

  // The free pool, oldest first.
  BitIndexFreePool const& bitIndexFreePool() const { return pool_; }
  std::uint32_t bitIndexFreePools() const { return pool_.entries(); }
  BitIndexFreePoolMetadata bitIndexFreePoolMetadata() const { return pool_.metadata(); }
  void bitIndexFreePoolEnq(BitIndex bitIndex) { pool_.enq(bitIndex); }
  // The head's index, or null when the pool is empty.
  BitIndex bitIndexFreePoolDeq();
  void bitIndexFreePoolDelAll() { pool_.entryDelAll(); }
  // Place or remove an entry by sequence number; for reflective access.
  void bitIndexFreePoolIs(std::uint32_t index, BitIndex bitIndex) { pool_.entryIs(index, bitIndex); }
  void bitIndexFreePoolDel(std::uint32_t index) { pool_.entryDel(index); }
  KIV_REFLECT_QUEUE(bitIndexFreePool, bitIndex, bitIndexFreePool)
  // Twice the space; reported, not enforced.
  std::uint32_t bitIndexFreePoolLimit() const { return config_ ? 2 * config_->bitMapSize() : 0; }
  KIV_REFLECT_SCALAR_RO(bitIndexFreePoolLimit)

  // Serves waiting keys while the pool lasts: false when it ran dry.
  bool reviewKeyWaitlist();
  KIV_REFLECT_OPERATION(reviewKeyWaitlist)
  bool initialized() const { return initialized_; }
  void initializedIs(bool b) { initialized_ = b; }
  KIV_REFLECT_SCALAR(initialized)
  void handleInitialized();
  KIV_REFLECT_OPERATION(handleInitialized)
  KIV_REFLECT_END

  void kivDoZombieReactors(bool zombie) override;
  void hasNotificationActiveIs(bool active) override;

 private:
  BitMapperSm(Kiv::Ptr<Config> const& config, Kiv::Ptr<Status> const& status, Kiv::Ptr<VornStatus> const& vornStatus);

  void doFillFreePool(std::uint32_t min, std::uint32_t max, bool skipRecorded);
  BitIndexMap doLookup(BitIndex index) const;
  WaitlistMap doLookup(BitMapperKey const& key) const;
  bool doWaitlistEmpty() const;

  Kiv::Ptr<Config> config_;
  Kiv::Ptr<Status> status_;
  Kiv::Ptr<VornStatus> vornStatus_;
  std::unique_ptr<KivConfig> kivConfig_;
  std::unique_ptr<KivStatus> kivStatus_;
  std::unique_ptr<KivVornStatus> kivVornStatus_;
  std::uint32_t minBitIndex_ = 0;
  std::uint32_t maxBitIndex_ = 0;
  BitIndexFreePool pool_;
  bool initialized_ = false;
};

Kiv::Ptr<BitMapperSm> bitMapperSmFactory(Kiv::Ptr<Config> const& config, Kiv::Ptr<Status> const& status,
                                         Kiv::Ptr<VornStatus> const& vornStatus);

}  // namespace BitMapper
