#include "Mfib/MfibVornCollRouteIteratorConst.h"

#include "Kiv/Trace.h"

namespace Vorn::Multicast::Fib {

namespace {
Kiv::TraceHandle th("Mroute::MfibVorn");
void const* ptr(Status const* s) { return static_cast<void const*>(s); }
}  // namespace

MfibVornCollRouteIteratorConst::MfibVornCollRouteIteratorConst(Kiv::Ptr<MfibVornColl const> const& coll)
    : coll_(coll), table_(coll->vornPtrMap().begin()) {
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

void MfibVornCollRouteIteratorConst::updateToBestRouteIterators() {
  auto const& tables = coll_->vornPtrMap();
  while (table_ != tables.end()) {
    KIV_TRACE(th, 8, "Vorn Key= " << ptr(table_->first));
    doStepRoute(!valid_);
    while (valid_) {
      KIV_TRACE(th, 8, "Route Key= " << routeKey_);
      RoutePriority const mine = safeRoute(*table_->second, routeKey_).priority();
      KIV_TRACE(th, 8, "My priority= " << mine);
      auto better = tables.end();
      RoutePriority theirs;
      for (auto u = tables.begin(); u != tables.end(); ++u) {
        if (u == table_) continue;  // the cursor's own table, by position
        Route const other = safeRoute(*u->second, routeKey_);
        if (other == Route()) continue;
        if (mine < other.priority()) {
          better = u;
          theirs = other.priority();
          break;
        }
      }
      if (better == tables.end()) {
        KIV_TRACE(th, 8, "Vorn key=" << ptr(table_->first) << ", RouteKey=" << routeKey_);
        return;
      }
      KIV_TRACE(th, 8, "Vorn Key " << ptr(better->first) << " has better priority " << theirs << " for " << routeKey_);
      doStepRoute(false);
    }
    ++table_;
    hint_.clear();
  }
  done_ = true;
  KIV_TRACE(th, 8, "Done");
}

}  // namespace Vorn::Multicast::Fib
