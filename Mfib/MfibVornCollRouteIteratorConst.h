// MfibVornCollRouteIteratorConst: walks the merged view of a VRF's MFIB
// tables without building it. Tables come in the collection's iteration
// order and, within a table, keys in key order; the walk stops only at
// positions (table, key) whose route no other table beats (a route beats
// another only with a strictly greater priority). So a key held by two
// tables at the same top priority comes out once for each, and a route of
// priority 0 comes out when nobody beats it.
//
//   for (MfibVornCollRouteIteratorConst it(coll); !it.done(); it.updateToBestRouteIterators())
//     use(it.vornKey(), it.routeKey(), it.route());
//
// Not safe across changes of the collection's table map: re-create it.
// Each candidate costs one lookup in every table of the collection.
#pragma once

#include "Mfib/MfibVorn.h"
#include "Vorn/Table.h"

namespace Vorn::Multicast::Fib {

class MfibVornCollRouteIteratorConst {
 public:
  explicit MfibVornCollRouteIteratorConst(Kiv::Ptr<MfibVornColl const> const& coll);

  // Moves to the next best position, or sets done.
  void updateToBestRouteIterators();

  bool done() const { return done_; }
  bool valid() const { return valid_; }
  // The current table, null when the table cursor is at its end.
  Status const* vornKey() const { return table_ == coll_->vornPtrMap().end() ? nullptr : table_->first; }
  IpGenRouteKey const& routeKey() const { return routeKey_; }
  Route const& route() const { return *routePtr_; }

 private:
  // Steps the route cursor of the current table: to its first route when
  // `first`, else past the current key. Corruption ends the table.
  void doStepRoute(bool first);

  Kiv::Ptr<MfibVornColl const> coll_;
  MfibVornColl::VornPtrMap::const_iterator table_;
  Vorn::IterHint hint_;
  IpGenRouteKey routeKey_;
  Route route_;
  Route const* routePtr_ = &route_;
  bool valid_ = false;
  bool done_ = false;
};

}  // namespace Vorn::Multicast::Fib
