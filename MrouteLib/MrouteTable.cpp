#include "MrouteLib/MrouteTable.h"

#include <ios>

#include "Kiv/Assert.h"
#include "Kiv/CollectionAttr.h"
#include "Kiv/Trace.h"
#include "MrouteLib/Trace.h"

namespace MrouteLib {

MrouteTable::MrouteTable(L3::VrfName const& vrfName) : Kiv::Entity(Kiv::Name(vrfName.str())), vrfName_(vrfName) {
  handleInitialized();
}

MrouteTable::~MrouteTable() {
  // Routes that outlive the table must not reach back into it.
  for (auto const& [k, r] : mroute_) r->doDetachTable(false);
  for (auto const& [k, r] : boundaryMroute_) r->doDetachTable(false);
}

void MrouteTable::handleInitialized() { KIV_ASSERT(!initialized()); }

Kiv::Ptr<Mroute> const& MrouteTable::mroute(IpGenRouteKey const& key) const {
  static Kiv::Ptr<Mroute> const none;
  auto it = mroute_.find(key);
  return it == mroute_.end() ? none : it->second;
}

void MrouteTable::doListAdd(Mroute* r) {
  r->listIndex_ = static_cast<U32>(mrouteList_.size());
  mrouteList_.push_back(r);
}

void MrouteTable::doListRemove(Mroute* r) {
  KIV_ASSERT(mrouteList_[r->listIndex_] == r);
  mrouteList_[r->listIndex_] = nullptr;
  ++mrouteListHoles_;
  while (!mrouteList_.empty() && mrouteList_.back() == nullptr) {
    mrouteList_.pop_back();
    --mrouteListHoles_;
  }
  // Closing holes touches every remaining route once; waiting until they
  // are half the list keeps that to a constant per deletion.
  if (mrouteListHoles_ < 64 || mrouteListHoles_ * 2 < mrouteList_.size()) return;
  std::size_t n = 0;
  for (Mroute* m : mrouteList_) {
    if (!m) continue;
    m->listIndex_ = static_cast<U32>(n);
    mrouteList_[n++] = m;
  }
  mrouteList_.resize(n);
  mrouteListHoles_ = 0;
}

Kiv::Ptr<Mroute> MrouteTable::mrouteIs(IpGenRouteKey const& key) {
  auto [it, added] = mroute_.try_emplace(key);
  if (!added) return it->second;
  it->second = new Mroute(key, this);
  Kiv::Ptr<Mroute> r = it->second;
  doListAdd(r.ptr());
  notify(&NotifieeConst::onMroute, key);
  return r;
}

void MrouteTable::mrouteDel(IpGenRouteKey const& key) {
  Kiv::Ptr<Mroute> r = Kiv::entryTake(mroute_, key);
  if (!r) return;
  doListRemove(r.ptr());
  notify(&NotifieeConst::onMroute, key);
  // Held elsewhere, the route would go on counting into a table that no
  // longer has it, and could outlive the table.
  if (r->references() > 1) r->doDetachTable(true);
}

void MrouteTable::mrouteDelAll() {
  for (auto const& k : Kiv::keysOf(mroute_)) mrouteDel(k);
}

Kiv::Ptr<BoundaryMroute> MrouteTable::boundaryMroute(IpGenRouteKey const& key) const {
  auto it = boundaryMroute_.find(key);
  return it == boundaryMroute_.end() ? Kiv::Ptr<BoundaryMroute>() : it->second;
}

Kiv::Ptr<BoundaryMroute> MrouteTable::boundaryMrouteIs(IpGenRouteKey const& key) {
  auto [it, added] = boundaryMroute_.try_emplace(key);
  if (!added) return it->second;
  it->second = new BoundaryMroute(key, this);
  Kiv::Ptr<BoundaryMroute> r = it->second;
  notify(&NotifieeConst::onBoundaryMroute, key);
  return r;
}

void MrouteTable::boundaryMrouteDel(IpGenRouteKey const& key) {
  Kiv::Ptr<BoundaryMroute> r = Kiv::entryTake(boundaryMroute_, key);
  if (!r) return;
  notify(&NotifieeConst::onBoundaryMroute, key);
  // A boundary route keeps its entries when it goes, so its count leaves
  // the table here, whoever else still holds it.
  r->doDetachTable(true);
}

void MrouteTable::boundaryMrouteDelAll() {
  for (auto const& k : Kiv::keysOf(boundaryMroute_)) boundaryMrouteDel(k);
}

Kiv::Ptr<DirtyInfo> MrouteTable::dirtyInfoIs() {
  if (!dirtyInfo_) {
    dirtyInfo_ = DirtyInfo::DirtyInfoIs();
    notify(&NotifieeConst::onDirtyInfo);
  }
  return dirtyInfo_;
}

void MrouteTable::dirtyInfoDel() {
  if (!dirtyInfo_) return;
  dirtyInfo_ = nullptr;
  notify(&NotifieeConst::onDirtyInfo);
}

Kiv::Ptr<DirtyInfo> MrouteTable::boundaryDirtyInfoIs() {
  if (!boundaryDirtyInfo_) {
    boundaryDirtyInfo_ = DirtyInfo::DirtyInfoIs();
    notify(&NotifieeConst::onBoundaryDirtyInfo);
  }
  return boundaryDirtyInfo_;
}

void MrouteTable::boundaryDirtyInfoDel() {
  if (!boundaryDirtyInfo_) return;
  boundaryDirtyInfo_ = nullptr;
  notify(&NotifieeConst::onBoundaryDirtyInfo);
}

void MrouteTable::vlanFilterCounterIs(U8 bit, U32 count) {
  if (vlanFilterCounter(bit) == count) return;
  if (bit >= vlanFilterCounter_.size()) vlanFilterCounter_.resize(bit + 1u, 0);
  vlanFilterCounter_[bit] = count;
  notify(&NotifieeConst::onVlanFilterCounter, bit);
}

U32 MrouteTable::vlanFilterCounterInc(U8 bit, U32 delta) {
  vlanFilterCounterIs(bit, vlanFilterCounter(bit) + delta);
  return vlanFilterCounter(bit);
}

U32 MrouteTable::vlanFilterCounterDec(U8 bit, U32 delta) {
  vlanFilterCounterIs(bit, vlanFilterCounter(bit) - delta);
  return vlanFilterCounter(bit);
}

std::map<U8, U32> MrouteTable::vlanFilterCounterMap() const {
  std::map<U8, U32> out;
  for (std::size_t i = 0; i < vlanFilterCounter_.size(); ++i) out.emplace(static_cast<U8>(i), vlanFilterCounter_[i]);
  return out;
}

void MrouteTable::vlanFilterCounterDelAll() {
  for (std::size_t i = 0; i < vlanFilterCounter_.size(); ++i) vlanFilterCounterIs(static_cast<U8>(i), 0);
  vlanFilterCounter_.clear();
}

void MrouteTable::doUpdateVrfVlanFilter(U32 mrtVlanFilter, U32 chgMrtVlanFilter) {
  KIV_TRACE(trace(), 9,
            "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32)"
                << " ( " << std::hex << mrtVlanFilter << ", " << chgMrtVlanFilter << " )");
  if (chgMrtVlanFilter == 0) {
    KIV_TRACE(trace(), 8, "   No change");
    return;
  }
  for (U8 i = 0; i < 32; ++i) {
    U32 const bit = U32(1) << i;
    if ((chgMrtVlanFilter & bit) == 0) continue;
    if (mrtVlanFilter & bit) {
      U32 const n = vlanFilterCounterInc(i, 1);
      KIV_TRACE(trace(), 8, "  Incrementing count for bit " << unsigned(i) << " now: " << n);
    } else {
      U32 const n = vlanFilterCounterDec(i, 1);
      KIV_TRACE(trace(), 8, "  Decrementing count for bit " << unsigned(i) << " now: " << n);
    }
    KIV_TRACE(trace(), 8, "  oldVlanFilter: " << std::hex << vlanFilter_);
    vlanFilterIs(vlanFilterCounter(i) != 0 ? vlanFilter_ | bit : vlanFilter_ & ~bit);
    KIV_TRACE(trace(), 8, "  newVlanFilter: " << std::hex << vlanFilter_);
  }
}

}  // namespace MrouteLib
