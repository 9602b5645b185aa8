// Walks every interface one MFIB route names: its special interfaces first,
// then its outgoing interfaces, which the route holds only as OifIndex values
// that have to be resolved to interface ids.
//
//   RouteIntfIteratorConst it(status.ptr(), route);
//   for (it.next(); !it.done(); it.next()) use(it.role(), it.intfId());
//   if (it.mappingMissing()) ...;   // something was skipped: read the route again
//
// Order: special interface 1 (role specialIntf1, or specialIntf1Alt when the
// route's flag bit 0 is set), 3, 4, 2 (each only when not empty), then the
// outgoing interfaces in Route::nextOif order (role oif).
//
// RouteIntfIteratorConst resolves an index through the table's bit mapper
// table when there is one, else through its oifIndexIntf table, and after
// every index it resolves it reads the route's version from the table again:
// if another process published the route meanwhile, the walk ends at once
// (done and mappingMissing set) without yielding that index. The caller then
// reads the route again and starts a new walk; the iterator neither retries
// nor throws. CachedMapRouteIntfIteratorConst resolves through a map the
// caller keeps consistent with the route, and checks no version.
//
// Either way an index that does not resolve is traced, skipped and sets
// mappingMissing, which next() never clears. A table that reports corruption
// on a lookup hears of it through its corruptionDetected hook and the lookup
// counts as a miss (an absent route, for the version check). A table entry
// that maps an index to the empty interface breaks its writer's promise and
// aborts the process ("intfId != Wirly::IntfId()"). next() after done does
// nothing. Neither iterator allocates in next(), unless a table
// reports corruption.
//
// An iterator lives on its user's stack for one walk: it keeps plain
// pointers to the table and the cache, which must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <unordered_map>

#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Schema/Mfib/Route.h"
#include "Wirly/IntfId.h"

template <>
struct std::hash<Vorn::Multicast::Fib::OifIndex> {
  std::size_t operator()(Vorn::Multicast::Fib::OifIndex i) const noexcept { return i.hash(); }
};

namespace Vorn::Multicast::Fib {

// What an interface is to the route it was yielded from. The numbers are
// what consumers store and compare; they never change.
enum class RouteIntfRole : std::uint8_t {
  none = 0,  // no current item: before the first next(), and once done
  specialIntf1 = 2,
  specialIntf3 = 4,
  oif = 5,               // an outgoing interface resolved from an OifIndex
  specialIntf1Alt = 10,  // special interface 1 of a route with flag bit 0 set
  specialIntf4 = 16,
  specialIntf2 = 32,
};
std::ostream& operator<<(std::ostream& os, RouteIntfRole r);

// The map a caller keeps per route for CachedMapRouteIntfIteratorConst.
using OifIndexIntfIdCache = std::unordered_map<OifIndex, Wirly::IntfId>;

// What the two iterators share: the copied route, the special-interface
// walk, the current item and the flags.
class RouteIntfIteratorBase {
 public:
  RouteIntfRole role() const { return role_; }
  Wirly::IntfId intfId() const { return intfId_; }
  // The index that produced the current item; OifIndex::end() unless the
  // role is oif.
  OifIndex oifIndex() const { return oifIndex_; }
  bool done() const { return done_; }
  bool mappingMissing() const { return mappingMissing_; }
  Route const& route() const { return route_; }

 protected:
  explicit RouteIntfIteratorBase(Route const& route)
      : route_(route), nextOif_(route.firstOif()), oifSetExhausted_(nextOif_.isEnd()) {}

  // Makes the next non-empty special interface the current item; false
  // once all four slots were visited.
  bool nextSpecial();
  void itemIs(RouteIntfRole role, Wirly::IntfId intfId, OifIndex index) {
    role_ = role;
    intfId_ = intfId;
    oifIndex_ = index;
    ++yielded_;
  }
  // Ends the walk and leaves one ring-buffer record of it.
  void doneIs();
  // Moves past `cur`, noting when the set has no more members.
  void advance(OifIndex cur) {
    nextOif_ = route_.nextOif(cur);
    if (nextOif_.isEnd()) oifSetExhausted_ = true;
  }

  Route route_;
  OifIndex nextOif_;
  RouteIntfRole role_ = RouteIntfRole::none;
  Wirly::IntfId intfId_;
  OifIndex oifIndex_;
  bool specialIntf1Visited_ = false;
  bool specialIntf3Visited_ = false;
  bool specialIntf4Visited_ = false;
  bool specialIntf2Visited_ = false;
  std::uint32_t yielded_ = 0;
  bool done_ = false;
  bool mappingMissing_ = false;
  bool oifSetExhausted_;
};

class RouteIntfIteratorConst : public RouteIntfIteratorBase {
 public:
  // Walks `route` as read from `status`, whose version it captures. Indices
  // are bit indices of `bitMapper` when given, else of the table's own bit
  // mapper table (status->bitMapperVornStatus(), which the directory reader
  // sets for an application that announced one), else entries of the
  // table's oifIndexIntf table. `status` must not be null.
  RouteIntfIteratorConst(Status const* status, Route const& route, BitMapper::VornStatus const* bitMapper = nullptr);

  void next();

  Status const* status() const { return status_; }
  // The table indices resolve through; null when it is oifIndexIntf.
  BitMapper::VornStatus const* bitMapper() const { return bitMapper_; }

 private:
  bool resolve(OifIndex index, Wirly::IntfId& intfId) const;
  std::uint32_t tableVersion() const;

  Status const* status_;
  BitMapper::VornStatus const* bitMapper_;
};

class CachedMapRouteIntfIteratorConst : public RouteIntfIteratorBase {
 public:
  CachedMapRouteIntfIteratorConst(Route const& route, OifIndexIntfIdCache const& cache)
      : RouteIntfIteratorBase(route), cache_(&cache) {}

  void next();

 private:
  OifIndexIntfIdCache const* cache_;
};

}  // namespace Vorn::Multicast::Fib
