#include "BestRouteCheck.h"

#include "Vorn/Table.h"

namespace MfibDemo {

using namespace Vorn::Multicast::Fib;

BestMap bestRoutes(MfibVornColl const& coll) {
  BestMap best;
  std::map<IpGenRouteKey, RoutePriority> priority;
  for (auto const& [key, table] : coll.vornPtrMap()) {
    IpGenRouteKey k;
    Route r;
    Vorn::IterHint hint;
    for (bool ok = table->routeTable().first(k, r, hint); ok; ok = table->routeTable().next(k, k, r, hint)) {
      RoutePriority& p = priority[k];  // 0 until a route beats it
      if (p < r.priority()) {
        p = r.priority();
        best[k] = key;
      }
    }
  }
  return best;
}

std::vector<Mismatch> mismatches(RouteOrderedCollection const& ordered, BestMap const& best) {
  std::vector<Mismatch> out;
  auto o = ordered.routeMap().begin(), oEnd = ordered.routeMap().end();
  auto b = best.begin(), bEnd = best.end();
  while (o != oEnd || b != bEnd) {
    if (b == bEnd || (o != oEnd && o->first < b->first)) {
      out.push_back({o->first, o->second, nullptr});
      ++o;
    } else if (o == oEnd || b->first < o->first) {
      out.push_back({b->first, nullptr, b->second});
      ++b;
    } else {
      if (o->second != b->second) out.push_back({o->first, o->second, b->second});
      ++o;
      ++b;
    }
  }
  return out;
}

std::vector<Status const*> topTables(MfibVornColl const& coll, IpGenRouteKey const& key) {
  std::vector<Status const*> top;
  RoutePriority best;
  for (auto const& [k, table] : coll.vornPtrMap()) {
    Route const r = safeRoute(*table, key);
    if (r == Route() || r.priority() < best) continue;
    if (best < r.priority()) {
      best = r.priority();
      top.clear();
    }
    top.push_back(k);
  }
  return best == RoutePriority() ? std::vector<Status const*>() : top;
}

}  // namespace MfibDemo
