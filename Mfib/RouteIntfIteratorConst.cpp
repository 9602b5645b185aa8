#include "Mfib/RouteIntfIteratorConst.h"

#include "Brisklog/Brisklog.h"
#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirly/BrisklogArg.h"

namespace Vorn::Multicast::Fib {

namespace {

Kiv::TraceHandle th("Mroute::MfibVorn");

// A skipped index or a rewritten route is worth seeing when anomalies are
// traced, but both happen in normal operation while a writer is busy.
constexpr int kAnomalyLevel = 3;

// A table that cannot give a record intact is told so and answers as if it
// held none, so a walk over a damaged table degrades into misses.
template <class Table>
typename Table::Record findOrAbsent(Table const& table, typename Table::Key const& key) {
  try {
    return table.find(key);
  } catch (Pelto::CorruptionDetectedException const& e) {
    table.corruptionDetected(e.what());
    return typename Table::Record();
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& os, RouteIntfRole r) {
  switch (r) {
    case RouteIntfRole::none:
      return os << "none";
    case RouteIntfRole::specialIntf1:
      return os << "specialIntf1";
    case RouteIntfRole::specialIntf3:
      return os << "specialIntf3";
    case RouteIntfRole::oif:
      return os << "oif";
    case RouteIntfRole::specialIntf1Alt:
      return os << "specialIntf1Alt";
    case RouteIntfRole::specialIntf4:
      return os << "specialIntf4";
    case RouteIntfRole::specialIntf2:
      return os << "specialIntf2";
  }
  return os << "RouteIntfRole(" << unsigned(r) << ")";
}

bool RouteIntfIteratorBase::nextSpecial() {
  if (!specialIntf1Visited_) {
    specialIntf1Visited_ = true;
    if (!route_.specialIntf1().empty()) {
      RouteIntfRole const role =
          (route_.flags() & Route::flagSpecialIntf1Alt) ? RouteIntfRole::specialIntf1Alt : RouteIntfRole::specialIntf1;
      itemIs(role, route_.specialIntf1(), OifIndex::end());
      return true;
    }
  }
  if (!specialIntf3Visited_) {
    specialIntf3Visited_ = true;
    if (!route_.specialIntf3().empty()) {
      itemIs(RouteIntfRole::specialIntf3, route_.specialIntf3(), OifIndex::end());
      return true;
    }
  }
  if (!specialIntf4Visited_) {
    specialIntf4Visited_ = true;
    if (!route_.specialIntf4().empty()) {
      itemIs(RouteIntfRole::specialIntf4, route_.specialIntf4(), OifIndex::end());
      return true;
    }
  }
  if (!specialIntf2Visited_) {
    specialIntf2Visited_ = true;
    if (!route_.specialIntf2().empty()) {
      itemIs(RouteIntfRole::specialIntf2, route_.specialIntf2(), OifIndex::end());
      return true;
    }
  }
  return false;
}

RouteIntfIteratorConst::RouteIntfIteratorConst(Status const* status, Route const& route,
                                               BitMapper::VornStatus const* bitMapper)
    : RouteIntfIteratorBase(route), status_(status), bitMapper_(bitMapper) {
  KIV_ASSERT(status != nullptr);
  if (bitMapper_ == nullptr) bitMapper_ = status_->bitMapperVornStatus().ptr();
}

// A hit is a record unlike the table's default one; the id it carries is
// what the index stands for.
bool RouteIntfIteratorConst::resolve(OifIndex index, Wirly::IntfId& intfId) const {
  if (bitMapper_ != nullptr) {
    BitMapper::BitIndexMap const record =
        findOrAbsent(bitMapper_->bitIndexMapTable(), BitMapper::BitIndex(index.value()));
    intfId = record.bitMapperKey().intfId();
    return record != BitMapper::BitIndexMap();
  }
  OifIndexIntf const entry = findOrAbsent(status_->oifIndexIntfTable(), index);
  intfId = entry.intfId();
  return entry != OifIndexIntf();
}

// An absent route reads as version 0, which no published route has.
std::uint32_t RouteIntfIteratorConst::tableVersion() const {
  return findOrAbsent(status_->routeTable(), route_.key()).version();
}

void RouteIntfIteratorBase::doneIs() {
  if (!done_)
    BRISKLOG("RouteIntfIteratorConst", "walked route (%s/%u, %s/%u) version %u: %u interfaces%s",
             route_.key().source().address(), route_.key().source().len(), route_.key().group().address(),
             route_.key().group().len(), route_.version(), yielded_, mappingMissing_ ? ", mapping missing" : "");
  done_ = true;
  role_ = RouteIntfRole::none;
  intfId_ = Wirly::IntfId();
  oifIndex_ = OifIndex::end();
}

void RouteIntfIteratorConst::next() {
  if (done_) return;
  if (nextSpecial()) return;
  if (oifSetExhausted_) {
    doneIs();
    return;
  }
  for (;;) {
    OifIndex const cur = nextOif_;
    Wirly::IntfId intfId;
    bool const hit = resolve(cur, intfId);
    // Read after the index, so that a mapping changed together with the
    // route is caught by the version.
    std::uint32_t const version = tableVersion();
    advance(cur);
    if (version != route_.version()) {
      BRISKLOG("RouteIntfIteratorConst", "next(): route version mismatch %u!=%u", version, route_.version());
      KIV_TRACE(th, kAnomalyLevel,
                "next"
                    << "(): route version mismatch " << version << "!=" << route_.version());
      mappingMissing_ = true;
      doneIs();
      return;
    }
    if (hit) {
      KIV_ASSERT(intfId != Wirly::IntfId());
      itemIs(RouteIntfRole::oif, intfId, cur);
      return;
    }
    BRISKLOG("RouteIntfIteratorConst", "RouteIntfIterator: missing intf mapping index %u", cur.value());
    KIV_TRACE(th, kAnomalyLevel, "RouteIntfIterator: missing intf mapping index " << cur);
    mappingMissing_ = true;
    if (oifSetExhausted_) {
      doneIs();
      return;
    }
  }
}

void CachedMapRouteIntfIteratorConst::next() {
  if (done_) return;
  if (nextSpecial()) return;
  while (!oifSetExhausted_) {
    OifIndex const cur = nextOif_;
    auto const found = cache_->find(cur);
    advance(cur);
    if (found != cache_->end() && !found->second.empty()) {
      itemIs(RouteIntfRole::oif, found->second, cur);
      return;
    }
    BRISKLOG("RouteIntfIteratorConst", "CachedMapRouteIntfIterator: missing intf mapping from cache: %u", cur.value());
    KIV_TRACE(th, kAnomalyLevel, "CachedMapRouteIntfIterator: missing intf mapping from cache: " << cur);
    mappingMissing_ = true;
  }
  doneIs();
}

}  // namespace Vorn::Multicast::Fib
