#include "BitMapper/BitMapperSm.h"

#include "Brisklog/Brisklog.h"
#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirly/BrisklogArg.h"

namespace BitMapper {

namespace {
Kiv::TraceHandle th("Mroute::BitMapper");
}

Kiv::Ptr<BitMapperSm> bitMapperSmFactory(Kiv::Ptr<Config> const& config, Kiv::Ptr<Status> const& status,
                                         Kiv::Ptr<VornStatus> const& vornStatus) {
  return BitMapperSm::BitMapperSmIs(config, status, vornStatus);
}

Kiv::Ptr<BitMapperSm> BitMapperSm::BitMapperSmIs(Kiv::Ptr<Config> const& config, Kiv::Ptr<Status> const& status,
                                                 Kiv::Ptr<VornStatus> const& vornStatus) {
  Kiv::Ptr<BitMapperSm> sm = new BitMapperSm(config, status, vornStatus);
  sm->handleInitialized();
  return sm;
}

BitMapperSm::BitMapperSm(Kiv::Ptr<Config> const& config, Kiv::Ptr<Status> const& status,
                         Kiv::Ptr<VornStatus> const& vornStatus)
    : config_(config), status_(status), vornStatus_(vornStatus) {
  if (config_) kivConfig_ = std::make_unique<KivConfig>(config_, this);
  if (status_) kivStatus_ = std::make_unique<KivStatus>(status_);
  if (vornStatus_) kivVornStatus_ = std::make_unique<KivVornStatus>(vornStatus_);
}

BitMapperSm::~BitMapperSm() = default;

void BitMapperSm::kivDoZombieReactors(bool zombie) {
  if (kivConfig_) kivConfig_->kivDoZombieReactors(zombie);
  if (kivStatus_) kivStatus_->kivDoZombieReactors(zombie);
  if (kivVornStatus_) kivVornStatus_->kivDoZombieReactors(zombie);
}

void BitMapperSm::hasNotificationActiveIs(bool active) {
  if (kivConfig_) kivConfig_->hasNotificationActiveIs(active);
  if (kivStatus_) kivStatus_->hasNotificationActiveIs(active);
  if (kivVornStatus_) kivVornStatus_->hasNotificationActiveIs(active);
}

BitIndex BitMapperSm::bitIndexFreePoolDeq() {
  auto head = pool_.deq();
  return head ? *head : BitIndex::null();
}

// A record the table cannot give intact counts as absent; the table hears
// of it.
BitIndexMap BitMapperSm::doLookup(BitIndex index) const {
  try {
    return vornStatus_->bitIndexMap(index);
  } catch (Pelto::CorruptionDetectedException const& e) {
    vornStatus_->bitIndexMapTable().corruptionDetected(e.what());
    return BitIndexMap();
  }
}

WaitlistMap BitMapperSm::doLookup(BitMapperKey const& key) const {
  try {
    return vornStatus_->waitlistMap(key);
  } catch (Pelto::CorruptionDetectedException const& e) {
    vornStatus_->waitlistMapTable().corruptionDetected(e.what());
    return WaitlistMap();
  }
}

// This process is the table's only writer, so its size is exact: an empty
// waitlist needs no lookup. A size the table cannot vouch for is reported
// and answered "not empty", so the lookup runs as usual.
bool BitMapperSm::doWaitlistEmpty() const {
  VornStatus::WaitlistMapTable const& table = vornStatus_->waitlistMapTable();
  try {
    return table.size() == 0;
  } catch (Pelto::CorruptionDetectedException const& e) {
    table.corruptionDetected(e.what());
    return false;
  }
}

void BitMapperSm::doFillFreePool(std::uint32_t min, std::uint32_t max, bool skipRecorded) {
  minBitIndexIs(min);
  maxBitIndexIs(max);
  for (std::uint32_t i = min; i < max; ++i) {
    if (skipRecorded && doLookup(BitIndex(i)) != BitIndexMap()) continue;
    pool_.enq(BitIndex(i));
  }
}

void BitMapperSm::handleInitialized() {
  KIV_TRACE(th, 9,
            "handleInitialized"
                << "(): Initializing ");
  if (initialized_) return;
  KIV_ASSERT(config()->bitMapSize());
  if (pool_.empty()) {
    std::uint32_t min = config_->bitMapMinIndex();
    // Indices that a previous writer left recorded stay out of the pool.
    doFillFreePool(min, min + config_->bitMapSize(), true);
  }
  VornStatus::BitIndexMapTable const& table = vornStatus_->bitIndexMapTable();
  try {
    std::uint32_t pos = 0;
    BitIndex index;
    BitIndexMap record;
    while (table.unorderedNext(pos, index, record)) {
      status_->bitIndexIs(record.bitMapperKey(), record.bitIndex());
    }
  } catch (Pelto::CorruptionDetectedException const& e) {
    table.corruptionDetected(e.what());
  }
  initializedIs(true);
}

void BitMapperSm::handleBitMapMinIndex() {
  KIV_TRACE(th, 9,
            "handleBitMapMinIndex"
                << "()");
  KIV_TRACE(th, 8,
            "handleBitMapMinIndex"
                << "(): FreePool size: " << bitIndexFreePools());
  KIV_ASSERT(bitIndexFreePools() == config()->bitMapSize());
  bitIndexFreePoolDelAll();
  std::uint32_t min = config_->bitMapMinIndex();
  doFillFreePool(min, min + config_->bitMapSize(), false);
}

BitIndex BitMapperSm::doAllocBitIndex(BitMapperKey const& bitMapperKey) {
  KIV_ASSERT(bitMapperKey != BitMapperKey());
  BitIndex const current = status_->bitIndex(bitMapperKey);
  // Only the upper bound is tested: a waiting key (65534) counts as holding
  // an index when the space reaches 65535.
  if (current < BitIndex(maxBitIndex_)) {
    BitIndexMap bitIndexMap = doLookup(current);
    KIV_ASSERT(bitIndexMap != BitIndexMap());
    KIV_ASSERT(bitIndexMap.bitMapperKey() == bitMapperKey);
    bitIndexMap.refCountIs(bitIndexMap.refCount() + 1);
    bitIndexMap.firstAllocIs(false);
    vornStatus_->bitIndexMapIs(bitIndexMap);
    return current;
  }
  if (!pool_.empty()) {
    BitIndex const index = bitIndexFreePoolDeq();
    BitIndexMap record(index, bitMapperKey, 0, current != BitIndex::waitlist());
    // Every request filed while the key waited counts.
    WaitlistMap const wm = doWaitlistEmpty() ? WaitlistMap() : doLookup(bitMapperKey);
    record.refCountIs(wm == WaitlistMap() ? 1 : wm.requestCount());
    vornStatus_->bitIndexMapIs(record);
    status_->bitIndexIs(bitMapperKey, index);
    BRISKLOG("BitMapperSm", "allocated index %u to (%s, %s)", index.value(), bitMapperKey.intfId().name(),
             bitMapperKey.addr());
    return index;
  }
  BRISKLOG("BitMapperSm", "no free index: (%s, %s) waits", bitMapperKey.intfId().name(), bitMapperKey.addr());
  status_->bitIndexIs(bitMapperKey, BitIndex::waitlist());
  return BitIndex::waitlist();
}

void BitMapperSm::handleAllocRequestCount() {
  BitMapperKey const key = config_->allocRequestKey();
  BitIndex const index = doAllocBitIndex(key);
  KIV_TRACE(th, 9,
            "handleAllocRequestCount"
                << "Allocate index " << index);
  if (index.isValid()) return;
  WaitlistMap wm = doLookup(key);
  if (wm == WaitlistMap()) {
    wm = WaitlistMap(key, 1);
  } else {
    wm.requestCountIs(wm.requestCount() + 1);
  }
  vornStatus_->waitlistMapIs(wm);
}

void BitMapperSm::handleDeallocRequestCount() {
  BitMapperKey const key = config_->deallocRequestKey();
  KIV_ASSERT(key != BitMapperKey());
  BitIndex const bitIndex = status_->bitIndex(key);
  KIV_ASSERT(bitIndex != BitIndex::null());
  if (bitIndex == BitIndex::waitlist()) {
    WaitlistMap wm = doLookup(key);
    KIV_ASSERT(wm != WaitlistMap());
    wm.requestCountIs(wm.requestCount() - 1);
    if (wm.requestCount() != 0) {
      vornStatus_->waitlistMapIs(wm);
    } else {
      status_->bitIndexDel(key);
      vornStatus_->waitlistMapDel(key);
    }
    return;
  }
  BitIndexMap bitIndexMap = doLookup(bitIndex);
  KIV_ASSERT(bitIndexMap != BitIndexMap());
  if (config_->enableRefCount() && bitIndexMap.refCount() > 1) {
    bitIndexMap.refCountIs(bitIndexMap.refCount() - 1);
    vornStatus_->bitIndexMapIs(bitIndexMap);
    return;
  }
  status_->bitIndexDel(key);
  vornStatus_->bitIndexMapDel(bitIndex);
  bitIndexFreePoolEnq(bitIndex);
  BRISKLOG("BitMapperSm", "released index %u of (%s, %s)", bitIndex.value(), key.intfId().name(), key.addr());
  reviewKeyWaitlist();
}

bool BitMapperSm::reviewKeyWaitlist() {
  if (doWaitlistEmpty()) return true;
  VornStatus::WaitlistMapTable const& table = vornStatus_->waitlistMapTable();
  try {
    // Served keys are deleted as the walk goes; next() continues after a key
    // that is gone.
    Vorn::IterHint hint;
    BitMapperKey key;
    WaitlistMap record;
    for (bool more = table.first(key, record, hint); more; more = table.next(key, key, record, hint)) {
      BitIndex const bitIndex = status_->bitIndex(key);
      // The assertion's text is what operators grep for: keep its spelling.
      // clang-format off
      KIV_ASSERT(bitIndex >= BitIndex( maxBitIndex() ));
      // clang-format on
      if (!doAllocBitIndex(key).isValid()) return false;
      vornStatus_->waitlistMapDel(key);
    }
  } catch (Pelto::CorruptionDetectedException const& e) {
    table.corruptionDetected(e.what());
  }
  return true;
}

}  // namespace BitMapper
