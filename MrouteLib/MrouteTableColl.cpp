#include "MrouteLib/MrouteTableColl.h"

#include "Kiv/CollectionAttr.h"

namespace MrouteLib {

MrouteTableColl::~MrouteTableColl() {
  // Sets held by routes elsewhere must not reach back into a freed registry.
  for (auto const& [s, p] : oifSet_) {
    if (p.ptr()) p.ptr()->mrouteTable_ = nullptr;
  }
  oifSet_.clear();
}

Kiv::Ptr<MrouteTable> MrouteTableColl::vrfMrouteTable(L3::VrfName const& vrf) const {
  auto it = vrfMrouteTable_.find(vrf);
  return it == vrfMrouteTable_.end() ? Kiv::Ptr<MrouteTable>() : it->second;
}

Kiv::Ptr<MrouteTable> MrouteTableColl::vrfMrouteTableIs(L3::VrfName const& vrf) {
  auto [it, added] = vrfMrouteTable_.try_emplace(vrf);
  if (!added) return it->second;
  it->second = MrouteTable::MrouteTableIs(vrf);
  Kiv::Ptr<MrouteTable> t = it->second;
  notify(&NotifieeConst::onVrfMrouteTable, vrf);
  return t;
}

void MrouteTableColl::vrfMrouteTableDel(L3::VrfName const& vrf) {
  if (Kiv::entryTake(vrfMrouteTable_, vrf)) notify(&NotifieeConst::onVrfMrouteTable, vrf);
}

void MrouteTableColl::vrfMrouteTableDelAll() {
  for (auto const& v : Kiv::keysOf(vrfMrouteTable_)) vrfMrouteTableDel(v);
}

Kiv::Ptr<MrouteTable> MrouteTableColl::l2FloodsetTableIs(L3::VrfName const& vrf) {
  if (l2FloodsetTable_ && l2FloodsetTable_->vrfName() == vrf) return l2FloodsetTable_;
  l2FloodsetTable_ = MrouteTable::MrouteTableIs(vrf);
  notify(&NotifieeConst::onL2FloodsetTable);
  return l2FloodsetTable_;
}

void MrouteTableColl::l2FloodsetTableDel() {
  if (!l2FloodsetTable_) return;
  l2FloodsetTable_ = nullptr;
  notify(&NotifieeConst::onL2FloodsetTable);
}

OifSetPtr MrouteTableColl::oifSet(PortVlanSet const& s) const {
  auto it = oifSet_.find(s);
  return it == oifSet_.end() ? OifSetPtr() : it->second;
}

void MrouteTableColl::oifSetIs(PortVlanSet const& s, OifSetPtr p) {
  if (!Kiv::ptrEntryIs(oifSet_, s, p)) return;
  notify(&NotifieeConst::onOifSet, s);
}

void MrouteTableColl::oifSetDel(PortVlanSet const& s) {
  auto it = oifSet_.find(s);
  if (it == oifSet_.end()) return;
  // The key is about to go with the entry; observers get a copy.
  PortVlanSet const key = it->first;
  oifSet_.erase(it);
  notify(&NotifieeConst::onOifSet, key);
}

void MrouteTableColl::oifSetDelAll() {
  for (auto const& s : Kiv::keysOf(oifSet_)) oifSetDel(s);
}

Kiv::Ptr<OifSet> MrouteTableColl::oifSetFor(PortVlanSet set) {
  set.saveHash();
  auto it = oifSet_.find(set);
  if (it != oifSet_.end()) return it->second.ptr();
  return OifSet::OifSetIs(this, set);
}

}  // namespace MrouteLib
