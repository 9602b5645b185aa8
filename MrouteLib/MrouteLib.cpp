#include "MrouteLib/MrouteLib.h"

namespace MrouteLib {

Kiv::Ptr<MrouteTableColl> mrouteTableCollFactory(Wirly::AddressFamily af) {
  return MrouteTableColl::MrouteTableCollIs(af);
}

Kiv::Ptr<MrouteTable> mrouteTableFactory(L3::VrfName const& vrfName) { return MrouteTable::MrouteTableIs(vrfName); }

Kiv::Ptr<OifSet> oifSetFactory(Kiv::Ptr<MrouteTableColl> const& coll, PortVlanSet const& portVlanSet) {
  return OifSet::OifSetIs(coll.ptr(), portVlanSet);
}

Kiv::Ptr<BoundaryMroute> boundaryMrouteFactory(IpGenRouteKey const& key, MrouteTable* table) {
  return BoundaryMroute::BoundaryMrouteIs(key, table);
}

Kiv::Ptr<DirtyInfo> dirtyInfoFactory() { return DirtyInfo::DirtyInfoIs(); }
Kiv::Ptr<DirtyChangeSet> dirtyChangeSetFactory() { return DirtyChangeSet::DirtyChangeSetIs(); }
Kiv::Ptr<ReviewInfo> reviewInfoFactory() { return ReviewInfo::ReviewInfoIs(); }
Kiv::Ptr<StaticNatInfo> staticNatInfoFactory() { return StaticNatInfo::StaticNatInfoIs(); }

}  // namespace MrouteLib
