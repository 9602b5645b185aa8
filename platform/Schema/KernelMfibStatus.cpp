#include "Schema/KernelMfibStatus.h"

namespace Routing::KernelMfib {

Wirly::IntfId Status::vifIntf(std::uint16_t vif) const {
  auto it = vifIntf_.find(vif);
  return it == vifIntf_.end() ? Wirly::IntfId() : it->second;
}

std::uint16_t Status::intfVif(Wirly::IntfId intf) const {
  auto it = intfVif_.find(intf);
  return it == intfVif_.end() ? 0 : it->second;
}

void Status::vifIntfIs(std::uint16_t vif, Wirly::IntfId intf) {
  if (intf.empty()) {
    vifIntfDel(vif);
    return;
  }
  auto it = vifIntf_.find(vif);
  if (it != vifIntf_.end() && it->second == intf) return;
  // The interface may have held another index; that index loses it.
  auto old = intfVif_.find(intf);
  if (old != intfVif_.end() && old->second != vif) vifIntfDel(old->second);
  if (it != vifIntf_.end()) intfVif_.erase(it->second);
  vifIntf_[vif] = intf;
  intfVif_[intf] = vif;
  notify(&NotifieeConst::onVifIntf, vif);
}

void Status::vifIntfDel(std::uint16_t vif) {
  auto it = vifIntf_.find(vif);
  if (it == vifIntf_.end()) return;
  intfVif_.erase(it->second);
  vifIntf_.erase(it);
  notify(&NotifieeConst::onVifIntf, vif);
}

void Status::vifIntfDelAll() {
  while (!vifIntf_.empty()) vifIntfDel(vifIntf_.begin()->first);
}

}  // namespace Routing::KernelMfib
