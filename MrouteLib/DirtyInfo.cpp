#include "MrouteLib/DirtyInfo.h"

#include <ios>
#include <sstream>

#include "Kiv/CollectionAttr.h"

namespace MrouteLib {

void DirtyInfo::dirtyGroupSetIs(Wirly::IpGenAddr const& a, bool dirty) {
  auto [it, added] = dirtyGroupSet_.try_emplace(a, dirty);
  if (!added && !Kiv::changed(it->second, dirty)) return;
  dirtyGroupSetNotify(a);
}

void DirtyInfo::dirtyGroupSetDel(Wirly::IpGenAddr const& a) {
  if (dirtyGroupSet_.erase(a)) dirtyGroupSetNotify(a);
}

void DirtyInfo::dirtyGroupSetDelAll() {
  for (auto const& a : Kiv::keysOf(dirtyGroupSet_)) dirtyGroupSetDel(a);
}

void DirtyInfo::dirtyNatSrcIs(Wirly::IpGenAddr const& a, bool dirty) {
  auto [it, added] = dirtyNatSrc_.try_emplace(a, dirty);
  if (!added && !Kiv::changed(it->second, dirty)) return;
  dirtyNatSrcNotify(a);
}

void DirtyInfo::dirtyNatSrcDel(Wirly::IpGenAddr const& a) {
  if (dirtyNatSrc_.erase(a)) dirtyNatSrcNotify(a);
}

void DirtyInfo::dirtyNatSrcDelAll() {
  for (auto const& a : Kiv::keysOf(dirtyNatSrc_)) dirtyNatSrcDel(a);
}

bool DirtyInfo::isDirty() const {
  return dirtyRoute_ || dirtyVlan_ != 0 || dirtyVlanPort_ != 0 || dirtyVlanGroup_ != 0 || dirtyLag_ != 0 ||
         !dirtyGroupSet_.empty() || !dirtyNatSrc_.empty();
}

void DirtyInfo::clear() {
  dirtyRouteIs(false);
  dirtyVlanIs(0);
  dirtyVlanPortIs(0);
  dirtyVlanGroupIs(0);
  dirtyLagIs(0);
  dirtyGroupSetDelAll();
  dirtyNatSrcDelAll();
}

void DirtyInfo::mergeWith(Kiv::PtrConst<DirtyInfo> const& other) {
  if (!other) return;
  dirtyVlanIs(dirtyVlan_ | other->dirtyVlan_);
  dirtyVlanPortIs(dirtyVlanPort_ | other->dirtyVlanPort_);
  dirtyVlanGroupIs(dirtyVlanGroup_ | other->dirtyVlanGroup_);
  dirtyLagIs(dirtyLag_ | other->dirtyLag_);
  dirtyRouteIs(dirtyRoute_ || other->dirtyRoute_);
  // An entry pending in the other means its routes must be looked at again,
  // whatever the other had decided for them.
  for (auto const& [a, v] : other->dirtyGroupSet_) dirtyGroupSetIs(a, true);
  for (auto const& [a, v] : other->dirtyNatSrc_) dirtyNatSrcIs(a, true);
}

bool DirtyInfo::boundaryDirty(Kiv::PtrConst<BoundaryMroute> const& route) const {
  BoundaryMroute const& r = *route;
  return r.dirty() || (dirtyVlan_ & r.vlanFilter()) != 0 || (dirtyVlanPort_ & r.vlanPortFilter()) != 0 ||
         (dirtyVlanGroup_ & r.vlanGroupFilter()) != 0 || (dirtyLag_ & r.lagFilter()) != 0;
}

std::string DirtyInfo::mrouteDirtyInfoStr(Kiv::PtrConst<Mroute> const& route) const {
  auto entry = [](AddrMap const& m, Wirly::IpGenAddr const& a) {
    auto it = m.find(a);
    return it != m.end() && it->second ? 1 : 0;
  };
  std::ostringstream os;
  os << std::hex << route->vlanFilter() << ' ' << route->vlanPortFilter() << ' ' << route->vlanGroupFilter() << ' '
     << route->lagFilter() << ' ' << dirtyVlan_ << ' ' << dirtyVlanPort_ << ' ' << dirtyVlanGroup_ << ' '
     << entry(dirtyNatSrc_, route->key().source().address()) << ' '
     << entry(dirtyGroupSet_, route->key().group().address()) << ' ' << dirtyLag_;
  return os.str();
}

}  // namespace MrouteLib
