#include "MrouteLib/Mroute.h"

#include "Kiv/CollectionAttr.h"
#include "Kiv/Trace.h"
#include "MrouteLib/SlotPool.h"
#include "MrouteLib/Trace.h"

namespace MrouteLib {

namespace {

// Under AddressSanitizer routes come from the global allocator, so that
// use after free is still caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

// Never destroyed: routes may be released by static destructors of other
// translation units.
SlotPool& routePool() {
  static SlotPool* pool = new SlotPool(sizeof(Mroute));
  return *pool;
}

}  // namespace

void* Mroute::operator new(std::size_t bytes) {
  if (!kPooled || bytes != sizeof(Mroute)) return ::operator new(bytes);
  return routePool().allocate();
}

void Mroute::operator delete(void* p, std::size_t bytes) {
  if (!kPooled || bytes != sizeof(Mroute)) {
    ::operator delete(p);
    return;
  }
  routePool().deallocate(p);
}

Mroute::~Mroute() { handleDel(); }

U16 Mroute::rpfFailureCount(VlanId v) const {
  U16 const* c = rpfFailureCount_.find(v);
  return c ? *c : 0;
}

void Mroute::rpfFailureCountIs(VlanId v, U16 count) {
  if (!rpfFailureCount_.set(v, count)) return;
  notify(&NotifieeConst::onRpfFailureCountkivImmediate, v);
  notify(&NotifieeConst::onRpfFailureCount, v);
}

void Mroute::rpfFailureCountDel(VlanId v) {
  if (!rpfFailureCount_.erase(v)) return;
  notify(&NotifieeConst::onRpfFailureCountkivImmediate, v);
  notify(&NotifieeConst::onRpfFailureCount, v);
}

void Mroute::rpfFailureCountDelAll() {
  for (VlanId v : Kiv::keysOf(rpfFailureCount_)) rpfFailureCountDel(v);
}

Kiv::Ptr<OifSet> Mroute::fastdrop(VlanId v) const {
  Kiv::Ptr<OifSet> const* p = fastdrop_.find(v);
  return p ? *p : Kiv::Ptr<OifSet>();
}

void Mroute::fastdropIs(VlanId v, Kiv::Ptr<OifSet> const& oifSet) {
  // A null set removes the entry; an unchanged one is no change.
  if (!(oifSet ? fastdrop_.set(v, oifSet) : fastdrop_.erase(v))) return;
  handleFastdrop(v);
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void Mroute::fastdropDel(VlanId v) {
  // The removed set is released only after the recount and the
  // notification, so that observers still see it alive.
  Kiv::Ptr<OifSet> old;
  if (!fastdrop_.erase(v, &old)) return;
  handleFastdrop(v);
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void Mroute::fastdropDelAll() {
  for (VlanId v : Kiv::keysOf(fastdrop_)) fastdropDel(v);
}

Wirly::IntfId Mroute::oifIndexIntfIdCache(OifIndex i) const {
  Wirly::IntfId const* id = oifIndexIntfIdCache_.find(i);
  return id ? *id : Wirly::IntfId();
}

void Mroute::oifIndexIntfIdCacheIs(OifIndex i, Wirly::IntfId id) {
  if (!oifIndexIntfIdCache_.set(i, id)) return;
  notify(&NotifieeConst::onOifIndexIntfIdCachekivImmediate, i);
  notify(&NotifieeConst::onOifIndexIntfIdCache, i);
}

void Mroute::oifIndexIntfIdCacheDel(OifIndex i) {
  if (!oifIndexIntfIdCache_.erase(i)) return;
  notify(&NotifieeConst::onOifIndexIntfIdCachekivImmediate, i);
  notify(&NotifieeConst::onOifIndexIntfIdCache, i);
}

void Mroute::oifIndexIntfIdCacheDelAll() {
  for (OifIndex i : Kiv::keysOf(oifIndexIntfIdCache_)) oifIndexIntfIdCacheDel(i);
}

void Mroute::handleFastdrop(VlanId) {
  KIV_TRACE(trace(), 9, "void MrouteLib::Mroute::handleFastdrop(Bridging::VlanId)");
  handleFastdrop();
}

void Mroute::handleFastdrop() {
  KIV_TRACE(trace(), 9, "void MrouteLib::Mroute::handleFastdrop()");
  if (!mrouteTable_) return;
  mrouteTable_->fastdropCountDec(fastdropCount_);
  fastdropCountIs(static_cast<U16>(fastdrop_.size()));
  mrouteTable_->fastdropCountInc(fastdropCount_);
  fastdropDirtyIs(true);
}

void Mroute::doClearFastdrop() {
  KIV_TRACE(trace(), 9, "void MrouteLib::Mroute::doClearFastdrop()");
  // Dropped without per-entry notification: the one recount below tells
  // observers (fastdropCount, fastdropDirty) that the entries went.
  FastdropMap gone;
  std::swap(gone, fastdrop_);
  rpfFailureCount_.clear();
  handleFastdrop();
}

void Mroute::handleDel() {
  KIV_TRACE(trace(), 9, "void MrouteLib::Mroute::handleDel()");
  doClearFastdrop();
}

void Mroute::doDetachTable(bool uncount) {
  if (!mrouteTable_) return;
  if (uncount) mrouteTable_->fastdropCountDec(fastdropCount_);
  mrouteTable_ = nullptr;
  notify(&NotifieeConst::onMrouteTable);
}

}  // namespace MrouteLib
