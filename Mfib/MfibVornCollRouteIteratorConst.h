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
//
// Cost: while it walks one table, it keeps an ordered cursor in every other
// table and moves it forward to each candidate key, instead of a hashed
// lookup per candidate and table: the tables are read in key order, close
// to the order of their memory, rather than at random. A cursor far behind
// the candidate jumps by an ordered search. A candidate still costs one
// comparison per other table.
//
// unbeatenKeys gives the same positions for a whole collection at once, in
// one pass over all tables together: for users that want them all.
#pragma once

#include <vector>

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
  // An ordered cursor in another table: the first key not less than the
  // latest candidate, and the priority of its route. A table whose walk
  // fails is asked key by key instead (`lookup`), so its other routes still
  // count.
  struct Peer {
    enum class State : std::uint8_t { unstarted, on, end, lookup };
    Vorn::IterHint hint;
    IpGenRouteKey key;
    RoutePriority priority;
    State state = State::unstarted;
  };

  // Steps the route cursor of the current table: to its first route when
  // `first`, else past the current key. Corruption ends the table.
  void doStepRoute(bool first);
  // Moves the cursor of table u up to `key`; true when u holds key (its
  // priority then in peers_[u]).
  bool doPeerAt(std::size_t u, Status const& table, IpGenRouteKey const& key);

  Kiv::Ptr<MfibVornColl const> coll_;
  MfibVornColl::VornPtrMap::const_iterator table_;
  Vorn::IterHint hint_;
  IpGenRouteKey routeKey_;
  Route route_;
  Route const* routePtr_ = &route_;
  // One per table of the collection, by position; the current table's own
  // is unused.
  std::vector<Peer> peers_;
  Route peerRoute_;
  bool valid_ = false;
  bool done_ = false;
};

// For each table of coll, in the collection's order, the keys (in key
// order) of its routes that no other table beats: the positions the
// iterator yields, table by table. One ordered pass over all tables at once,
// merged by key, so the cost per route hardly grows with the number of
// tables. A table that fails a step is reported; as in the iterator, none of
// its later routes come out, but they still beat others (looked up by key).
std::vector<std::vector<IpGenRouteKey>> unbeatenKeys(MfibVornColl const& coll);

}  // namespace Vorn::Multicast::Fib
