#include "MrouteLib/BoundaryMroute.h"

#include "Kiv/CollectionAttr.h"
#include "Kiv/Trace.h"
#include "MrouteLib/Trace.h"

namespace MrouteLib {

BoundaryMroute::~BoundaryMroute() = default;

Kiv::Ptr<OifSet> BoundaryMroute::fastdrop(VlanId v) const {
  Kiv::Ptr<OifSet> const* p = fastdrop_.find(v);
  return p ? *p : Kiv::Ptr<OifSet>();
}

void BoundaryMroute::fastdropIs(VlanId v, Kiv::Ptr<OifSet> const& oifSet) {
  // A null set removes the entry; an unchanged one is no change.
  if (!(oifSet ? fastdrop_.set(v, oifSet) : fastdrop_.erase(v))) return;
  handleFastdrop();
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void BoundaryMroute::fastdropDel(VlanId v) {
  Kiv::Ptr<OifSet> old;
  if (!fastdrop_.erase(v, &old)) return;
  handleFastdrop();
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void BoundaryMroute::fastdropDelAll() {
  for (VlanId v : Kiv::keysOf(fastdrop_)) fastdropDel(v);
}

void BoundaryMroute::handleFastdrop() {
  KIV_TRACE(trace(), 9, "void MrouteLib::BoundaryMroute::handleFastdrop()");
  if (!mrouteTable_) {
    KIV_TRACE(trace(), 9, "mrt is NULL");
    return;
  }
  KIV_TRACE(trace(), 9, "fastdropCount: " << fastdropCount_ << ", total fastdrops: " << fastdrop_.size());
  mrouteTable_->boundaryFastdropCountDec(fastdropCount_);
  fastdropCountIs(static_cast<U16>(fastdrop_.size()));
  mrouteTable_->boundaryFastdropCountInc(fastdropCount_);
  fastdropDirtyIs(true);
}

void BoundaryMroute::doClearFastdrop() {
  KIV_TRACE(trace(), 9, "void MrouteLib::BoundaryMroute::doClearFastdrop()");
  fastdropDelAll();
  handleFastdrop();
}

void BoundaryMroute::doDetachTable(bool uncount) {
  if (!mrouteTable_) return;
  if (uncount) mrouteTable_->boundaryFastdropCountDec(fastdropCount_);
  mrouteTable_ = nullptr;
  notify(&NotifieeConst::onMrouteTable);
}

}  // namespace MrouteLib
