// Vorn::Multicast::Fib::Status: one application's MFIB table for one VRF, a
// shared-memory status with the tables `route` (IpGenRouteKey -> Route) and
// `oifIndexIntf` (OifIndex -> OifIndexIntf). The application writes it
// (mount kind 0); agents read it (kind 3) and hear of every changed route
// through NotifieeConst::onRoute(key).
//
// Publishing a route is one call:
//
//   status->routePublish(route);   // stores it with its version moved on
//
// which readers rely on: a route interface walk compares the version it
// started with against the stored one after every index it resolves.
#pragma once

#include <cstdint>

#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/Route.h"
#include "Vorn/Registry.h"
#include "Vorn/Status.h"
#include "Vorn/Table.h"
#include "Vorn/TableReflect.h"

namespace Vorn::Multicast::Fib {

class Status : public Vorn::Status {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Status> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onRoute(IpGenRouteKey) {}
    virtual void onRoutekivImmediate() {}
    virtual void onRouteControl() {}
    virtual void onOifIndexIntf(OifIndex) {}
    virtual void onOifIndexIntfControl() {}
    virtual void onBitMapperVornStatus() {}
  };

  static constexpr char const* typeNameText = "Vorn::Multicast::Fib::Status";
  // Routes one table may grow to (it starts at a few pages and doubles as
  // it is written): room for a switch's worth of routes in one VRF.
  static constexpr std::uint32_t routeDefaultLimit = 1u << 22;

  using RouteTable = Vorn::Table<IpGenRouteKey, Route, &Route::key>;
  using OifIndexIntfTable = Vorn::Table<OifIndex, OifIndexIntf, &OifIndexIntf::oifIndex>;

  explicit Status(Kiv::Name const& name = Kiv::Name()) : Vorn::Status(name) {}
  // By name: the two tables, read-only, and the bit mapper table.
  KIV_REFLECT_BEGIN(Status, typeNameText)

  // The stored route, or Route() on a miss. Pelto::CorruptionDetectedException
  // when the table cannot give it intact.
  Route route(IpGenRouteKey const& key) const { return route_.find(key); }
  // Stores the route exactly as given (its version included).
  void routeIs(Route const& r) { route_.is(r); }
  // Stores the route with a version one above the stored route's (1 for a
  // new key), so that readers walking the old one notice. Returns it.
  std::uint32_t routePublish(Route r);
  bool routeDel(IpGenRouteKey const& key) { return route_.del(key); }
  RouteTable& routeTable() { return route_; }
  RouteTable const& routeTable() const { return route_; }
  VORN_REFLECT_TABLE(route)

  OifIndexIntf oifIndexIntf(OifIndex index) const { return oifIndexIntf_.find(index); }
  void oifIndexIntfIs(OifIndexIntf const& e) { oifIndexIntf_.is(e); }
  bool oifIndexIntfDel(OifIndex index) { return oifIndexIntf_.del(index); }
  OifIndexIntfTable& oifIndexIntfTable() { return oifIndexIntf_; }
  OifIndexIntfTable const& oifIndexIntfTable() const { return oifIndexIntf_; }
  VORN_REFLECT_TABLE(oifIndexIntf)

  // The application's bit mapper table, when its outgoing-interface indices
  // are bit indices; null otherwise. A null pointer removes.
  Kiv::Ptr<BitMapper::VornStatus> const& bitMapperVornStatus() const { return bitMapperVornStatus_; }
  void bitMapperVornStatusIs(Kiv::Ptr<BitMapper::VornStatus> const& b) {
    if (Kiv::changed(bitMapperVornStatus_, b)) notify(&NotifieeConst::onBitMapperVornStatus);
  }
  KIV_REFLECT_SCALAR_RO(bitMapperVornStatus)
  KIV_REFLECT_END

 private:
  RouteTable route_{this, "route", routeDefaultLimit,
                    [this](IpGenRouteKey const& k) { notify(&NotifieeConst::onRoute, k); }};
  OifIndexIntfTable oifIndexIntf_{this, "oifIndexIntf", OifIndex::endValue,
                                  [this](OifIndex const& i) { notify(&NotifieeConst::onOifIndexIntf, i); }};
  Kiv::Ptr<BitMapper::VornStatus> bitMapperVornStatus_;
};

inline Vorn::StatusRegistrar<Status> const mfibStatusRegistrar(Status::typeNameText);

}  // namespace Vorn::Multicast::Fib
