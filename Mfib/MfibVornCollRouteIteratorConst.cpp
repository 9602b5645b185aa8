#include "Mfib/MfibVornCollRouteIteratorConst.h"

#include <algorithm>

#include "Kiv/Trace.h"

namespace Vorn::Multicast::Fib {

namespace {
Kiv::TraceHandle th("Mroute::MfibVorn");
void const* ptr(Status const* s) { return static_cast<void const*>(s); }

// A cursor this far behind its target jumps there by an ordered search
// instead of stepping: stepping is cheaper per key, but not over a gap of
// a table's worth of keys that the current table does not hold.
constexpr unsigned kMaxSteps = 16;
}  // namespace

MfibVornCollRouteIteratorConst::MfibVornCollRouteIteratorConst(Kiv::Ptr<MfibVornColl const> const& coll)
    : coll_(coll), table_(coll->vornPtrMap().begin()), peers_(coll->vornPtrMap().size()) {
  updateToBestRouteIterators();
}

void MfibVornCollRouteIteratorConst::doStepRoute(bool first) {
  Status const& table = *table_->second;
  try {
    valid_ = first ? table.routeTable().first(routeKey_, route_, hint_)
                   : table.routeTable().next(routeKey_, routeKey_, route_, hint_);
  } catch (Pelto::CorruptionDetectedException const& e) {
    table.routeTable().corruptionDetected(e.what());
    valid_ = false;
  }
}

bool MfibVornCollRouteIteratorConst::doPeerAt(std::size_t u, Status const& table, IpGenRouteKey const& key) {
  Peer& p = peers_[u];
  using State = Peer::State;
  if (p.state == State::end) return false;
  if (p.state == State::lookup) {
    p.priority = safeRoute(table, key).priority();
    return true;
  }
  if (p.state == State::on && !(p.key < key)) return p.key == key;
  auto const& routes = table.routeTable();
  try {
    bool on = p.state == State::on;
    unsigned steps = 0;
    while (on && p.key < key && ++steps <= kMaxSteps) on = routes.next(p.key, p.key, peerRoute_, p.hint);
    if (p.state == State::unstarted || (on && p.key < key)) on = routes.lowerBound(key, p.key, peerRoute_, p.hint);
    p.state = on ? State::on : State::end;
    if (on) p.priority = peerRoute_.priority();
  } catch (Pelto::CorruptionDetectedException const& e) {
    routes.corruptionDetected(e.what());
    p.state = State::lookup;
    return doPeerAt(u, table, key);
  }
  return p.state == State::on && p.key == key;
}

void MfibVornCollRouteIteratorConst::updateToBestRouteIterators() {
  auto const& tables = coll_->vornPtrMap();
  while (table_ != tables.end()) {
    KIV_TRACE(th, 8, "Vorn Key= " << ptr(table_->first));
    doStepRoute(!valid_);
    std::size_t const self = std::size_t(table_ - tables.begin());
    while (valid_) {
      KIV_TRACE(th, 8, "Route Key= " << routeKey_);
      // The step has just read this table's route for the key.
      RoutePriority const mine = route_.priority();
      KIV_TRACE(th, 8, "My priority= " << mine);
      auto better = tables.end();
      for (auto u = tables.begin(); u != tables.end(); ++u) {
        std::size_t const i = std::size_t(u - tables.begin());
        if (i == self) continue;  // the cursor's own table, by position
        // A table without the key reads as priority 0, which beats nobody.
        if (doPeerAt(i, *u->second, routeKey_) && mine < peers_[i].priority) {
          better = u;
          break;
        }
      }
      if (better == tables.end()) {
        KIV_TRACE(th, 8, "Vorn key=" << ptr(table_->first) << ", RouteKey=" << routeKey_);
        return;
      }
      KIV_TRACE(th, 8,
                "Vorn Key " << ptr(better->first) << " has better priority "
                            << peers_[std::size_t(better - tables.begin())].priority << " for " << routeKey_);
      doStepRoute(false);
    }
    ++table_;
    hint_.clear();
    std::fill(peers_.begin(), peers_.end(), Peer());
  }
  done_ = true;
  KIV_TRACE(th, 8, "Done");
}

std::vector<std::vector<IpGenRouteKey>> unbeatenKeys(MfibVornColl const& coll) {
  auto const& tables = coll.vornPtrMap();
  std::size_t const n = tables.size();
  struct Cursor {
    Status const* table;
    Vorn::IterHint hint;
    IpGenRouteKey key;
    RoutePriority priority;
  };
  std::vector<Cursor> cursors;
  cursors.reserve(n);
  for (auto const& [key, table] : tables) cursors.push_back(Cursor{table.ptr(), {}, {}, {}});
  std::vector<std::vector<IpGenRouteKey>> out(n);
  Route route;
  // Steps cursor i (to its first route when `first`); false at its end or
  // when the table fails.
  // Tables whose walk failed: asked key by key from then on.
  std::vector<Status const*> failed;
  auto step = [&](std::size_t i, bool first) {
    Cursor& c = cursors[i];
    auto const& routes = c.table->routeTable();
    try {
      bool const on = first ? routes.first(c.key, route, c.hint) : routes.next(c.key, c.key, route, c.hint);
      c.priority = route.priority();
      return on;
    } catch (Pelto::CorruptionDetectedException const& e) {
      routes.corruptionDetected(e.what());
      failed.push_back(c.table);
      return false;
    }
  };
  // A heap of the cursors still on a route, least key on top; on equal
  // keys the earlier table first, so a key's tables come out in order.
  auto later = [&](std::size_t a, std::size_t b) {
    if (cursors[a].key < cursors[b].key) return false;
    if (cursors[b].key < cursors[a].key) return true;
    return a > b;
  };
  std::vector<std::size_t> heap;
  heap.reserve(n);
  for (std::size_t i = 0; i < n; ++i)
    if (step(i, true)) heap.push_back(i);
  std::make_heap(heap.begin(), heap.end(), later);
  std::vector<std::size_t> holders;
  holders.reserve(n);
  while (!heap.empty()) {
    // Every table that holds the least key, and the best priority among them.
    holders.clear();
    IpGenRouteKey const key = cursors[heap.front()].key;
    RoutePriority best;
    do {
      std::pop_heap(heap.begin(), heap.end(), later);
      std::size_t const i = heap.back();
      heap.pop_back();
      holders.push_back(i);
      best = std::max(best, cursors[i].priority);
    } while (!heap.empty() && !(key < cursors[heap.front()].key));
    for (Status const* t : failed) best = std::max(best, safeRoute(*t, key).priority());
    for (std::size_t i : holders) {
      // Not beaten: no other table holds the key with a greater priority.
      if (!(cursors[i].priority < best)) out[i].push_back(key);
      if (step(i, false)) {
        heap.push_back(i);
        std::push_heap(heap.begin(), heap.end(), later);
      }
    }
  }
  return out;
}

}  // namespace Vorn::Multicast::Fib
