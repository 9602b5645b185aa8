// The multicast route model: the agent's working memory of every multicast
// route of every VRF, from which it programs forwarding hardware.
//
//   auto coll = mrouteTableCollFactory();                   // one per address family
//   auto table = coll->vrfMrouteTableIs("default");
//   auto route = table->mrouteIs(key);                       // created on first use
//   route->vornRouteIs(mfibRoute);
//   PortVlanSet set = ...;                                    // computed by the agent
//   route->oifSetIs(coll->oifSetFor(set));                    // shared by content
//   auto dirty = table->dirtyInfoIs();                        // a VLAN changed:
//   dirty->dirtyVlanIs(dirty->dirtyVlan() | 1u << bucket);
//   for (auto const& [k, r] : table->mrouteMap())
//     if (dirty->mrouteDirty(r)) reprogram(r);
//
// The entities, one header each: MrouteTableColl (the root, one per address
// family), MrouteTable (one VRF's routes), Mroute and BoundaryMroute (one
// route), OifSet (a shared replication list), DirtyInfo (pending changes
// and which routes they touch), DirtyChangeSet, ReviewInfo, StaticNatInfo.
// This header includes them all and declares the factories.
//
// A route points at its table, a set at its collection, and reading such an
// attribute by name needs the type pointed at complete in every file that
// includes the entity. So the six entities that point at each other are
// defined together, here: each of their headers, included on its own,
// includes this one, which defines them all.
//
// Every entity notifies its NotifieeConst synchronously. Map attributes call
// on<Attr>kivImmediate(key) and then on<Attr>(key) for each changed entry.
// Traces go to the handle "MrouteLib" (level 9: handlers, 8: detail).
// Single-threaded: everything runs on the agent's event loop.
#pragma once

#include "Kiv/Ptr.h"
#include "MrouteLib/DirtyChangeSet.h"
#include "MrouteLib/PortVlanSet.h"
#include "MrouteLib/ReviewInfo.h"
#include "MrouteLib/StaticNatInfo.h"
#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/VrfName.h"
#include "Wirly/AddressFamily.h"

// clang-format off
#define MROUTELIB_MODEL_
#include "MrouteLib/OifSet.h"
#include "MrouteLib/Mroute.h"
#include "MrouteLib/BoundaryMroute.h"
#include "MrouteLib/DirtyInfo.h"
#include "MrouteLib/MrouteTable.h"
#include "MrouteLib/MrouteTableColl.h"
#undef MROUTELIB_MODEL_
// clang-format on

namespace MrouteLib {

// The factories an agent builds the model with.
Kiv::Ptr<MrouteTableColl> mrouteTableCollFactory(Wirly::AddressFamily af = Wirly::ipv4);
Kiv::Ptr<MrouteTable> mrouteTableFactory(L3::VrfName const& vrfName);
Kiv::Ptr<OifSet> oifSetFactory(Kiv::Ptr<MrouteTableColl> const& coll, PortVlanSet const& portVlanSet);
Kiv::Ptr<BoundaryMroute> boundaryMrouteFactory(IpGenRouteKey const& key, MrouteTable* table);
Kiv::Ptr<DirtyInfo> dirtyInfoFactory();
Kiv::Ptr<DirtyChangeSet> dirtyChangeSetFactory();
Kiv::Ptr<ReviewInfo> reviewInfoFactory();
Kiv::Ptr<StaticNatInfo> staticNatInfoFactory();

}  // namespace MrouteLib
