// The agent's ordered route lists, kept by the ordering state machines:
// RouteOrderedCollection maps each route key to the table that owns its best
// route; ModalRouteOrderedCollection maps the keys of one table to a flag
// that its users may clear. Both walk in IpGenRouteKey order and tell their
// notifiees of every real change through onRoute(key).
#pragma once

#include <cstddef>
#include <map>
#include <optional>

#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"
#include "Schema/Mfib/IpGenRouteKey.h"

namespace Vorn::Multicast::Fib {

class Status;
using Routing::Multicast::Fib::IpGenRouteKey;

template <class Value, char const* TypeName>
class OrderedRouteMap : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<OrderedRouteMap> {
   public:
    using Kiv::NotifieeConstBase<OrderedRouteMap>::NotifieeConstBase;
    virtual void onRoute(IpGenRouteKey) {}
  };
  using Map = std::map<IpGenRouteKey, Value>;

  static Kiv::Ptr<OrderedRouteMap> create() { return new OrderedRouteMap(); }
  KIV_REFLECT_BEGIN(OrderedRouteMap, TypeName)

  // The entry for key, or nothing.
  std::optional<Value> route(IpGenRouteKey const& key) const {
    auto it = routes_.find(key);
    return it == routes_.end() ? std::nullopt : std::optional<Value>(it->second);
  }
  void routeIs(IpGenRouteKey const& key, Value v) {
    auto [it, added] = routes_.try_emplace(key, v);
    if (!added && !Kiv::changed(it->second, v)) return;
    this->notify(&NotifieeConst::onRoute, key);
  }
  bool routeDel(IpGenRouteKey const& key) {
    if (routes_.erase(key) == 0) return false;
    this->notify(&NotifieeConst::onRoute, key);
    return true;
  }
  std::size_t routes() const { return routes_.size(); }
  Map const& routeMap() const { return routes_; }
  // Read-only by name: the ordering machines own the entries.
  KIV_REFLECT_COLLECTION_RO(route, IpGenRouteKey, routes(), routes_)
  KIV_REFLECT_END

 private:
  OrderedRouteMap() = default;
  Map routes_;
};

inline constexpr char routeOrderedCollectionName[] = "Vorn::Multicast::Fib::RouteOrderedCollection";
inline constexpr char modalRouteOrderedCollectionName[] = "Vorn::Multicast::Fib::ModalRouteOrderedCollection";

// Key -> owning table (compared by address).
using RouteOrderedCollection = OrderedRouteMap<Status const*, routeOrderedCollectionName>;
// Key -> flag.
using ModalRouteOrderedCollection = OrderedRouteMap<bool, modalRouteOrderedCollectionName>;

}  // namespace Vorn::Multicast::Fib
