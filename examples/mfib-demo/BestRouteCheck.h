// The demonstration's independent answer to "which table owns each key":
// every route of every table of a collection, compared the slow way, and
// the keys on which an ordered route collection disagrees with it.
//
// The rule is the collection's own single-key rule: a strictly greater
// priority wins, a route of priority 0 is never chosen, and among tables
// tied at the top the first in the collection's iteration order
// (vornPtrMap()) wins. OrderRouteSm's initial pass writes a tied key once per
// tied table, so right after it such a key is owned by the last of them;
// the key agrees again after its next change notification.
#pragma once

#include <map>
#include <vector>

#include "Mfib/MfibVorn.h"

namespace MfibDemo {

using Vorn::Multicast::Fib::IpGenRouteKey;
using Vorn::Multicast::Fib::Status;

using BestMap = std::map<IpGenRouteKey, Status const*>;

BestMap bestRoutes(Vorn::Multicast::Fib::MfibVornColl const& coll);

struct Mismatch {
  IpGenRouteKey key;
  Status const* ordered;   // null: the ordered collection lacks the key
  Status const* expected;  // null: no table has a selectable route for it
  bool operator==(Mismatch const&) const = default;
};

std::vector<Mismatch> mismatches(Vorn::Multicast::Fib::RouteOrderedCollection const& ordered, BestMap const& best);

// The tables whose route for key has the top priority among all tables'
// routes for it (more than one: a tie), in the collection's order.
std::vector<Status const*> topTables(Vorn::Multicast::Fib::MfibVornColl const& coll, IpGenRouteKey const& key);

}  // namespace MfibDemo
