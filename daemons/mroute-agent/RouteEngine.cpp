#include "RouteEngine.h"

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "AgentTrace.h"
#include "Mfib/RouteIntfIteratorConst.h"

namespace MrouteAgent {

using Vorn::Multicast::Fib::Route;
using Vorn::Multicast::Fib::RouteIntfIteratorConst;
using Vorn::Multicast::Fib::RouteIntfRole;

namespace {

Kiv::TraceHandle& th() { return agentTrace(); }

unsigned hostLen(Wirly::AddressFamily af) { return af == Wirly::ipv6 ? 128 : 32; }

std::string prefixText(Wirly::IpGenPrefix const& p, bool star) {
  if (star) return "*";
  std::ostringstream os;
  os << p.address();
  if (p.len() != hostLen(p.af())) os << "/" << unsigned(p.len());
  return os.str();
}

std::string listText(std::vector<std::string> const& items) {
  if (items.empty()) return "-";
  std::string out;
  for (std::string const& i : items) out += (out.empty() ? "" : ",") + i;
  return out;
}

// Which resource a refusal of MRT_ADD_MFC names.
MrouteLib::MrouteFailureReason reasonOf(int err) {
  MrouteLib::MrouteFailureReason r;
  switch (err) {
    case ENOBUFS:
    case ENOMEM:
    case ENOSPC:
      r.routeFailureHwFullIs(true);
      break;
    case ENFILE:
    case ENODEV:
    case ENXIO:
      r.oifSetFailureNotMappedIs(true);
      break;
    case EINVAL:
      r.routeFailureBadAddrIs(true);
      break;
    default:
      r.notInitedIs(true);
      break;
  }
  return r;
}

constexpr std::uint32_t programmingMask = MrouteLib::MrouteFailureReason::routeFailureHwFullMask |
                                          MrouteLib::MrouteFailureReason::oifSetFailureNotMappedMask |
                                          MrouteLib::MrouteFailureReason::routeFailureBadAddrMask |
                                          MrouteLib::MrouteFailureReason::notInitedMask |
                                          MrouteLib::MrouteFailureReason::routeFailureNoRouteInfoMask;

}  // namespace

// ---- the VRFs' tables, as the directory mounts them ----

struct RouteEngine::Vrf {
  L3::VrfName name;
  Kiv::Ptr<MfibVornColl> coll;
  Kiv::Ptr<RouteOrderedCollection> ordered;
  Kiv::Ptr<Vorn::Multicast::Fib::OrderRouteSm> sm;
  std::unique_ptr<OrderedWatch> orderedWatch;
  std::unique_ptr<CollWatch> collWatch;
  std::map<Status const*, std::unique_ptr<TableWatch>> tableWatches;
  std::map<Status const*, std::string> appOf;
};

class RouteEngine::OrderedWatch : public RouteOrderedCollection::NotifieeConst {
 public:
  OrderedWatch(Kiv::Ptr<RouteOrderedCollection const> const& c, RouteEngine* e, Vrf* vrf)
      : RouteOrderedCollection::NotifieeConst(c), engine_(e), vrf_(vrf) {}
  void onRoute(IpGenRouteKey key) override { engine_->doNote(*vrf_, key); }

 private:
  RouteEngine* engine_;
  Vrf* vrf_;
};

// A route rewritten by its owner keeps its owner: only the table tells.
class RouteEngine::TableWatch : public Status::NotifieeConst {
 public:
  TableWatch(Kiv::Ptr<Status const> const& t, RouteEngine* e, Vrf* vrf)
      : Status::NotifieeConst(t), engine_(e), vrf_(vrf) {}
  void onRoute(IpGenRouteKey key) override { engine_->doNote(*vrf_, key); }

 private:
  RouteEngine* engine_;
  Vrf* vrf_;
};

class RouteEngine::CollWatch : public MfibVornColl::NotifieeConst {
 public:
  CollWatch(Kiv::Ptr<MfibVornColl const> const& c, RouteEngine* e, Vrf* vrf)
      : MfibVornColl::NotifieeConst(c), engine_(e), vrf_(vrf) {}
  void onVornPtr(Status const* key) override { engine_->handleTable(*vrf_, key); }

 private:
  RouteEngine* engine_;
  Vrf* vrf_;
};

class RouteEngine::VornDirWatch : public MfibVornDir::NotifieeConst {
 public:
  VornDirWatch(Kiv::Ptr<MfibVornDir const> const& d, RouteEngine* e) : MfibVornDir::NotifieeConst(d), engine_(e) {}
  void onVornColl(L3::VrfName vrf) override { engine_->handleVrf(vrf); }

 private:
  RouteEngine* engine_;
};

RouteEngine::RouteEngine(std::vector<IntfConfig> intfs, Kiv::Ptr<MfibVornDir> const& vornDir, AppNameOf appNameOf)
    : intfs_(std::move(intfs)), vornDir_(vornDir), appNameOf_(std::move(appNameOf)) {
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    kernelStatus_[idx(af)] = Routing::KernelMfib::Status::statusIs(af == Wirly::ipv4 ? "kernelMfib4" : "kernelMfib6");
    coll_[idx(af)] = MrouteLib::mrouteTableCollFactory(af);
    for (IntfConfig const& i : intfs_) kernelStatus_[idx(af)]->vifIntfIs(i.vif, i.id);
  }
  vornDirWatch_ = std::make_unique<VornDirWatch>(vornDir_, this);
  for (auto const& [name, coll] : vornDir_->vornCollMap()) handleVrf(name);
}

RouteEngine::~RouteEngine() {
  vornDirWatch_.reset();
  vrfs_.clear();
  retired_.clear();
  for (auto& [vrf, routes] : routes_) routes.clear();
}

void RouteEngine::mfcIs(Wirly::AddressFamily af, KernelMfc* mfc) { mfc_[idx(af)] = mfc; }

std::uint64_t RouteEngine::now() const {
  if (clock_) return clock_();
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1000000000ull + std::uint64_t(ts.tv_nsec);
}

bool RouteEngine::isStarG(IpGenRouteKey const& k) { return k.source().len() == 0; }

std::string RouteEngine::keyText(IpGenRouteKey const& k) {
  return "(" + prefixText(k.source(), isStarG(k)) + ", " + prefixText(k.group(), false) + ")";
}

std::string RouteEngine::sgText(SgKey const& k) { return "(" + k.source.str() + ", " + k.group.str() + ")"; }

std::string RouteEngine::vifText(Wirly::AddressFamily af, std::uint16_t vif) const {
  Wirly::IntfId const id = kernelStatus_[idx(af)]->vifIntf(vif);
  return id.empty() ? "vif" + std::to_string(vif) : id.name();
}

void RouteEngine::handleVrf(L3::VrfName const& name) {
  if (Kiv::Ptr<MfibVornColl> coll = vornDir_->vornColl(name)) {
    if (vrfs_.count(name.str())) return;
    auto vrf = std::make_unique<Vrf>();
    vrf->name = name;
    vrf->coll = coll;
    vrf->ordered = RouteOrderedCollection::create();
    vrf->orderedWatch = std::make_unique<OrderedWatch>(vrf->ordered, this, vrf.get());
    vrf->collWatch = std::make_unique<CollWatch>(coll, this, vrf.get());
    for (auto const& [key, table] : coll->vornPtrMap()) handleTable(*vrf, key);
    // The ordering machine reads every table it finds; what it writes
    // reaches the agent through the ordered collection.
    vrf->sm = Vorn::Multicast::Fib::orderRouteSmFactory(coll, vrf->ordered);
    KIV_TRACE(th(), 4, "vrf " << name.str() << ": new collection");
    vrfs_[name.str()] = std::move(vrf);
    return;
  }
  auto it = vrfs_.find(name.str());
  if (it == vrfs_.end()) return;
  KIV_TRACE(th(), 4, "vrf " << name.str() << ": collection removed");
  Vrf& vrf = *it->second;
  // Every key of the VRF goes: its last table went.
  for (auto const& [key, owner] : vrf.ordered->routeMap()) pending_.insert({vrf.name.str(), key});
  vrf.collWatch.reset();
  vrf.tableWatches.clear();
  vrf.orderedWatch.reset();
  vrf.sm = nullptr;
  retired_.push_back(std::move(it->second));
  vrfs_.erase(it);
  if (flushRequest_) flushRequest_();
}

void RouteEngine::handleTable(Vrf& vrf, Status const* key) {
  Kiv::Ptr<Status const> table = vrf.coll->vornPtr(key);
  auto noteKeys = [&](Status const& t) {
    try {
      Vorn::IterHint hint;
      IpGenRouteKey k;
      Route r;
      for (bool more = t.routeTable().first(k, r, hint); more; more = t.routeTable().next(k, k, r, hint))
        doNote(vrf, k);
    } catch (Pelto::CorruptionDetectedException const& e) {
      t.routeTable().corruptionDetected(e.what());
    }
  };
  if (table) {
    vrf.appOf[key] = appNameOf_ ? appNameOf_(vrf.name, *table) : table->name().str();
    vrf.tableWatches[key] = std::make_unique<TableWatch>(table, this, &vrf);
    KIV_TRACE(th(), 4, "vrf " << vrf.name.str() << ": + table of " << vrf.appOf[key]);
    noteKeys(*table);
    return;
  }
  auto watch = vrf.tableWatches.find(key);
  if (watch == vrf.tableWatches.end()) return;
  Kiv::Ptr<Status const> left = watch->second->notifier();
  vrf.tableWatches.erase(watch);
  noteKeys(*left);
  // The ordering machine leaves a departed table's keys where they are:
  // each goes to the best table left, or away.
  if (!vrf.ordered) return;
  std::vector<IpGenRouteKey> owned;
  for (auto const& [k, owner] : vrf.ordered->routeMap())
    if (owner == key) owned.push_back(k);
  for (IpGenRouteKey const& k : owned) {
    if (Status const* best = vrf.coll->vornKey(k))
      vrf.ordered->routeIs(k, best);
    else
      vrf.ordered->routeDel(k);
  }
}

void RouteEngine::doNote(Vrf& vrf, IpGenRouteKey const& key) {
  bool const first = pending_.empty();
  pending_.insert({vrf.name.str(), key});
  if (first && flushRequest_) flushRequest_();
}

void RouteEngine::flush() {
  while (!pending_.empty()) {
    auto [vrfName, key] = *pending_.begin();
    pending_.erase(pending_.begin());
    auto it = vrfs_.find(vrfName);
    if (it != vrfs_.end()) {
      doRoute(*it->second, key);
      continue;
    }
    // The VRF went: its routes are withdrawn.
    Vrf gone;
    gone.name = L3::VrfName(vrfName);
    doRoute(gone, key);
  }
  retired_.clear();
}

bool RouteEngine::doReadRoute(Vrf& vrf, IpGenRouteKey const& key, RouteState& out) const {
  if (!vrf.ordered) return false;
  std::optional<Status const*> const owner = vrf.ordered->route(key);
  if (!owner || *owner == nullptr) return false;
  Kiv::Ptr<Status const> table = vrf.coll->vornPtr(*owner);
  if (!table) return false;
  // A walk that meets a rewritten route ends early: read it again.
  for (int attempt = 0;; ++attempt) {
    Route const route = Vorn::Multicast::Fib::safeRoute(*table, key);
    if (route == Route()) return false;
    out.iif = Wirly::IntfId();
    out.oifs.clear();
    RouteIntfIteratorConst it(table.ptr(), route);
    for (it.next(); !it.done(); it.next()) {
      if (it.role() == RouteIntfRole::oif) {
        if (std::find(out.oifs.begin(), out.oifs.end(), it.intfId()) == out.oifs.end()) out.oifs.push_back(it.intfId());
      } else if (it.role() == RouteIntfRole::specialIntf1 || it.role() == RouteIntfRole::specialIntf1Alt) {
        out.iif = it.intfId();
      }
    }
    out.mappingMissing = it.mappingMissing();
    out.priority = route.priority().value();
    auto app = vrf.appOf.find(*owner);
    out.app = app == vrf.appOf.end() ? std::string("?") : app->second;
    if (!it.mappingMissing() || attempt == 3 ||
        Vorn::Multicast::Fib::safeRoute(*table, key).version() == route.version()) {
      if (out.mroute) out.mroute->vornRouteIs(route);
      return true;
    }
  }
}

std::uint32_t RouteEngine::filterOf(Wirly::AddressFamily af, RouteState const& st) const {
  // Routed interfaces have no VLAN: the bucket of an interface is its VIF.
  std::uint32_t bits = 0;
  auto const& ks = *kernelStatus_[idx(af)];
  if (std::uint16_t v = ks.intfVif(st.iif); v != 0 && v < 32) bits |= 1u << v;
  for (Wirly::IntfId o : st.oifs)
    if (std::uint16_t v = ks.intfVif(o); v != 0 && v < 32) bits |= 1u << v;
  return bits;
}

void RouteEngine::doModel(Vrf& vrf, IpGenRouteKey const& key, RouteState& st) {
  Wirly::AddressFamily const af = key.group().af();
  Kiv::Ptr<MrouteLib::MrouteTable> table = coll_[idx(af)]->vrfMrouteTableIs(vrf.name);
  table->afIs(af);
  if (!st.mroute) st.mroute = table->mrouteIs(key);
  MrouteLib::Mroute& r = *st.mroute;
  r.acceptingIntfIdIs(st.iif);
  MrouteLib::PortVlanSet set;
  for (Wirly::IntfId o : st.oifs) set.portVlanIs(MrouteLib::PortVlan(o, MrouteLib::OutLif(0)), true);
  set.currentIifIs(st.iif);
  r.oifSetIs(coll_[idx(af)]->oifSetFor(set));
  r.vlanPortFilterIs(filterOf(af, st));
}

void RouteEngine::doRoute(Vrf& vrf, IpGenRouteKey const& key) {
  std::string const vrfName = vrf.name.str();
  auto& routes = routes_[vrfName];
  auto had = routes.find(key);
  RouteState now;
  if (had != routes.end()) now = had->second;
  if (!doReadRoute(vrf, key, now)) {
    if (had == routes.end()) return;
    emit("route " + vrfName + " " + keyText(key) + " withdrawn");
    routes.erase(had);
    if (auto table = coll_[idx(key.group().af())]->vrfMrouteTable(vrf.name)) table->mrouteDel(key);
    if (vrfName == kernelVrf) doKernelFor(key);
    return;
  }
  bool const changed = had == routes.end() || had->second.app != now.app || had->second.priority != now.priority ||
                       had->second.iif != now.iif || had->second.oifs != now.oifs;
  if (had == routes.end()) now.sinceNs = RouteEngine::now();
  if (changed) now.changedNs = RouteEngine::now();
  doModel(vrf, key, now);
  Wirly::AddressFamily const af = key.group().af();
  bool const programmable = vrfName == kernelVrf && mfc_[idx(af)] != nullptr &&
                            (isStarG(key) || key.source().len() == hostLen(af)) && key.group().len() == hostLen(af);
  if (!programmable) {
    if (!now.failure.routeFailureVrfStatusNotInited()) {
      ++notProgrammed_;
      KIV_TRACE(th(), 3,
                "route " << vrfName << " " << keyText(key) << " not programmed: "
                         << (vrfName != kernelVrf ? "the VRF has no kernel table"
                             : mfc_[idx(af)]      ? "not a host or any-source route"
                                                  : "its family is not programmed"));
    }
    now.failure.routeFailureVrfStatusNotInitedIs(true);
  }
  routes[key] = now;
  if (changed) {
    std::vector<std::string> oifs;
    for (Wirly::IntfId o : now.oifs) oifs.push_back(o.name());
    emit("route " + vrfName + " " + keyText(key) + " " + now.app + " prio " + std::to_string(now.priority) + ": " +
         intfText(now.iif) + " -> " + listText(oifs));
  }
  if (programmable) doKernelFor(key);
}

RouteState* RouteEngine::kernelRoute(IpGenRouteKey const& key) {
  auto vrf = routes_.find(kernelVrf);
  if (vrf == routes_.end()) return nullptr;
  auto it = vrf->second.find(key);
  return it == vrf->second.end() ? nullptr : &it->second;
}

std::optional<IpGenRouteKey> RouteEngine::routeFor(Wirly::AddressFamily af, SgKey const& sg) const {
  auto vrf = routes_.find(kernelVrf);
  if (vrf == routes_.end()) return std::nullopt;
  unsigned const len = hostLen(af);
  IpGenRouteKey const exactKey(Wirly::IpGenPrefix(sg.source, len), Wirly::IpGenPrefix(sg.group, len));
  if (vrf->second.count(exactKey)) return exactKey;
  // Every report of a flood comes here: no address parsed per call.
  static Wirly::IpGenAddr const any4("0.0.0.0"), any6("::");
  IpGenRouteKey const starKey(Wirly::IpGenPrefix(af == Wirly::ipv4 ? any4 : any6, 0),
                              Wirly::IpGenPrefix(sg.group, len));
  if (vrf->second.count(starKey)) return starKey;
  return std::nullopt;
}

void RouteEngine::doKernelFor(IpGenRouteKey const& key) {
  Wirly::AddressFamily const af = key.group().af();
  if (!mfc_[idx(af)]) return;
  if (isStarG(key)) {
    // Exactly the entries of this group that came from it, or that wait
    // as drop entries for a route.
    SgKey const from{key.group().address(), Wirly::IpGenAddr()};
    std::vector<SgKey> touched;
    auto& entries = entries_[idx(af)];
    for (auto it = entries.lower_bound(from); it != entries.end() && it->first.group == from.group; ++it)
      if (it->second.origin != KernelEntry::exact) touched.push_back(it->first);
    for (SgKey const& sg : touched) doProgram(af, sg, false);
    return;
  }
  if (key.source().len() != hostLen(af)) return;
  doProgram(af, SgKey{key.group().address(), key.source().address()}, true);
}

std::vector<std::uint16_t> RouteEngine::vifsOf(Wirly::AddressFamily af, RouteState const& st, std::uint16_t iif) const {
  std::vector<std::uint16_t> out;
  for (Wirly::IntfId o : st.oifs) {
    std::uint16_t const v = kernelStatus_[idx(af)]->intfVif(o);
    if (v == 0 || v == iif || down_.count(o)) continue;
    out.push_back(v);
  }
  std::sort(out.begin(), out.end());
  return out;
}

bool RouteEngine::doProgram(Wirly::AddressFamily af, SgKey const& sg, bool create, std::uint16_t askedVif) {
  KernelMfc* mfc = mfc_[idx(af)];
  if (!mfc) return false;
  auto& entries = entries_[idx(af)];
  auto it = entries.find(sg);
  std::optional<IpGenRouteKey> const routeKey = routeFor(af, sg);
  RouteState* st = routeKey ? kernelRoute(*routeKey) : nullptr;
  if (st && isStarG(*routeKey) && it == entries.end() && !create) return false;

  KernelEntry want;
  if (it != entries.end()) {
    want.learnedNs = it->second.learnedNs;
    want.recovered = it->second.recovered;
  }
  if (st) {
    std::uint16_t const iif = kernelStatus_[idx(af)]->intfVif(st->iif);
    if (iif == 0) {
      // Nothing to accept on: the route cannot forward; hold the flow as a
      // drop entry and say why on the route.
      st->failure.routeFailureNoRouteInfoIs(true);
      KIV_TRACE(th(), 2,
                "route " << keyText(*routeKey) << ": incoming interface " << intfText(st->iif) << " is not configured");
    } else {
      want.origin = isStarG(*routeKey) ? KernelEntry::fromStarG : KernelEntry::exact;
      want.routeKey = *routeKey;
      want.iif = iif;
      want.oifs = vifsOf(af, *st, iif);
    }
  } else if (it == entries.end()) {
    if (!create) return false;
  } else if (it->second.origin != KernelEntry::drop) {
    // Its route went: the entry goes; the next packet asks again.
    int const err = mfc->mfcDel(sg.source, sg.group, it->second.iif);
    if (err != 0 && err != ENOENT) KIV_TRACE(th(), 2, "remove " << sgText(sg) << " failed: " << std::strerror(err));
    emit("remove " + sgText(sg));
    entries.erase(it);
    return true;
  }
  if (want.origin == KernelEntry::drop) {
    // A drop entry needs some incoming VIF; the kernel matches (S, G) alone.
    if (it != entries.end() && it->second.origin == KernelEntry::drop && it->second.iif != 0)
      want.iif = it->second.iif;
    else
      want.iif = askedVif != 0 ? askedVif : (intfs_.empty() ? 0 : intfs_.front().vif);
  }
  if (it != entries.end() && it->second.installed && it->second.origin == want.origin && it->second.iif == want.iif &&
      it->second.oifs == want.oifs) {
    it->second.routeKey = want.routeKey;
    return false;
  }
  if (it == entries.end()) {
    it = entries.emplace(sg, want).first;
    doDropCount(false, want.origin == KernelEntry::drop);
  } else {
    want.installedNs = it->second.installedNs;
    doDropCount(it->second.origin == KernelEntry::drop, want.origin == KernelEntry::drop);
    it->second = want;
  }
  doWrite(af, sg, it->second);
  return true;
}

bool RouteEngine::doWrite(Wirly::AddressFamily af, SgKey const& sg, KernelEntry& e) {
  KernelMfc* mfc = mfc_[idx(af)];
  RouteState* st = e.origin == KernelEntry::drop ? nullptr : kernelRoute(e.routeKey);
  int const err = mfc->mfcIs(sg.source, sg.group, e.iif, e.oifs);
  if (err != 0) {
    ++writeRefusals_;
    e.installed = false;
    e.error = err;
    if (st) {
      MrouteLib::MrouteFailureReason r = st->failure;
      r.valueIs((r.value() & ~programmingMask) | reasonOf(err).value());
      st->failure = r;
    }
    KIV_TRACE(th(), 2, "install " << sgText(sg) << " refused: " << std::strerror(err));
    return false;
  }
  bool const first = e.installedNs == 0;
  e.installed = true;
  e.error = 0;
  e.installedNs = now();
  if (st) st->failure.valueIs(st->failure.value() & ~programmingMask);
  if (e.origin == KernelEntry::drop) {
    emit("install " + sgText(sg) + " drop");
  } else {
    std::vector<std::string> oifs;
    for (std::uint16_t v : e.oifs) oifs.push_back(vifText(af, v));
    emit("install " + sgText(sg) + " " + vifText(af, e.iif) + " -> " + listText(oifs));
  }
  if (first && e.learnedNs != 0 && flowLog_) flowLog_(af, sg, e);
  return true;
}

void RouteEngine::doDropCount(bool wasDrop, bool isDrop) {
  if (wasDrop == isDrop) return;
  if (isDrop) {
    budget_->dropEntriesInc();
    return;
  }
  budget_->dropEntriesDec();
  if (budget_->dropEntries() < budget_->dropEntryMax()) atDropEntryMax_ = false;
}

bool RouteEngine::doAdmit(Wirly::AddressFamily af, SgKey const& sg, std::uint16_t vif, bool* routed) {
  bool const hasRoute = routeFor(af, sg).has_value();
  if (routed) *routed = hasRoute;
  if (hasRoute || entries_[idx(af)].count(sg)) return true;
  UpcallBudget::Verdict const v = budget_->doAdmit(vif, now());
  if (v == UpcallBudget::admitted) return true;
  if (v == UpcallBudget::overDropEntryMax && !atDropEntryMax_) {
    atDropEntryMax_ = true;
    emit("drop entries at their maximum of " + std::to_string(budget_->dropEntryMax()) +
         ": flows without a route get none until some expire");
  }
  KIV_TRACE(th(), 6,
            "refused " << sgText(sg) << " on vif " << vif
                       << (v == UpcallBudget::overIntfBudget    ? ": interface budget"
                           : v == UpcallBudget::overTotalBudget ? ": total budget"
                                                                : ": drop entries at maximum"));
  return false;
}

void RouteEngine::handleNoCache(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                                Wirly::IntfId intf) {
  ++upcalls_;
  SgKey const sg{group, source};
  bool routed = false;
  if (mfc_[idx(af)] && !doAdmit(af, sg, kernelStatus_[idx(af)]->intfVif(intf), &routed)) return;
  emit("upcall nocache " + sgText(sg) + " on " + intfText(intf));
  if (!mfc_[idx(af)]) return;
  if (routed) ++routedUpcalls_;
  auto& entries = entries_[idx(af)];
  auto it = entries.find(sg);
  if (it == entries.end()) {
    KernelEntry e;
    e.learnedNs = now();
    // Placeholder until doProgram decides: a flow nobody asked for before.
    it = entries.emplace(sg, e).first;
    doDropCount(false, true);
    it->second.iif = kernelStatus_[idx(af)]->intfVif(intf);
    it->second.installed = false;
  } else if (it->second.installed) {
    // A report queued before the entry was written (a burst, or a flow
    // recovered from the unresolved list first) is stale; one about an
    // entry written long ago means the kernel lost it: write it again.
    if (now() - it->second.installedNs < staleUpcallNs) return;
    it->second.installed = false;
  }
  if (!doProgram(af, sg, true, kernelStatus_[idx(af)]->intfVif(intf))) {
    KernelEntry& e = entries.at(sg);
    if (!e.installed) doWrite(af, sg, e);
  }
}

bool RouteEngine::handleRecovered(Wirly::AddressFamily af, Wirly::IpGenAddr const& source,
                                  Wirly::IpGenAddr const& group) {
  if (!mfc_[idx(af)]) return false;
  SgKey const sg{group, source};
  auto& entries = entries_[idx(af)];
  auto it = entries.find(sg);
  bool const fresh = it == entries.end();
  if (fresh) {
    // The dump does not say where the flow came in: the unknown interface's budget.
    if (!doAdmit(af, sg, 0)) return false;
    KernelEntry e;
    e.learnedNs = now();
    e.recovered = true;
    it = entries.emplace(sg, e).first;
    doDropCount(false, true);
    ++recovered_;
  }
  // A dump resumed while the kernel's list changed may name a flow twice,
  // or one just written: only an entry written long ago is written again.
  if (!fresh && it->second.installed && now() - it->second.installedNs < staleUpcallNs) return false;
  it->second.installed = false;
  if (!doProgram(af, sg, true)) {
    KernelEntry& e = entries.at(sg);
    if (!e.installed) doWrite(af, sg, e);
  }
  return fresh;
}

void RouteEngine::handleWrongVif(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                                 Wirly::IntfId intf) {
  ++upcalls_;
  emit("upcall wrongvif " + sgText({group, source}) + " on " + intfText(intf));
  std::optional<IpGenRouteKey> const key = routeFor(af, {group, source});
  RouteState* st = key ? kernelRoute(*key) : nullptr;
  if (!st || !st->mroute) return;
  // Routed interfaces have no VLAN: failures are kept by the VIF they came in on.
  Bridging::VlanId const at(kernelStatus_[idx(af)]->intfVif(intf));
  st->mroute->rpfFailureCountIs(at, static_cast<MrouteLib::U16>(st->mroute->rpfFailureCount(at) + 1));
}

void RouteEngine::handleWholePkt(Wirly::AddressFamily, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                                 Wirly::IntfId intf) {
  ++upcalls_;
  emit("upcall wholepkt " + sgText({group, source}) + " on " + intfText(intf));
}

std::size_t RouteEngine::handleLink(Wirly::IntfId intf, bool up) {
  if (up == !down_.count(intf)) return 0;
  if (up)
    down_.erase(intf);
  else
    down_.insert(intf);
  std::size_t reprogrammed = 0, total = 0;
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    total += entries_[idx(af)].size();
    if (!mfc_[idx(af)]) continue;
    std::uint16_t const vif = kernelStatus_[idx(af)]->intfVif(intf);
    Kiv::Ptr<MrouteLib::MrouteTable> table = coll_[idx(af)]->vrfMrouteTable(L3::VrfName(kernelVrf));
    if (vif == 0 || vif >= 32 || !table) continue;
    Kiv::Ptr<MrouteLib::DirtyInfo> dirty = table->dirtyInfoIs();
    dirty->dirtyVlanPortIs(dirty->dirtyVlanPort() | (1u << vif));
    std::vector<IpGenRouteKey> touched;
    for (MrouteLib::Mroute& r : table->mrouteList())
      if (dirty->mrouteDirty(r)) touched.push_back(r.key());
    table->dirtyInfoDel();
    auto& entries = entries_[idx(af)];
    for (IpGenRouteKey const& key : touched) {
      std::vector<SgKey> sgs;
      if (isStarG(key)) {
        SgKey const from{key.group().address(), Wirly::IpGenAddr()};
        for (auto it = entries.lower_bound(from); it != entries.end() && it->first.group == from.group; ++it)
          if (it->second.origin == KernelEntry::fromStarG) sgs.push_back(it->first);
      } else if (entries.count({key.group().address(), key.source().address()})) {
        sgs.push_back({key.group().address(), key.source().address()});
      }
      for (SgKey const& sg : sgs)
        if (doProgram(af, sg, false)) ++reprogrammed;
    }
  }
  emit("link " + intfText(intf) + (up ? " up" : " down") + ": reprogrammed " + std::to_string(reprogrammed) + " of " +
       std::to_string(total) + " entries");
  return reprogrammed;
}

std::size_t RouteEngine::expireDrops(std::uint64_t idleNs) {
  std::size_t gone = 0;
  std::uint64_t const t = now();
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    KernelMfc* mfc = mfc_[idx(af)];
    if (!mfc) continue;
    auto& entries = entries_[idx(af)];
    for (auto it = entries.begin(); it != entries.end();) {
      KernelEntry& e = it->second;
      if (e.origin != KernelEntry::drop || !e.installed) {
        ++it;
        continue;
      }
      KernelMfc::Counters const c = mfc->counters(it->first.source, it->first.group);
      if (c.valid && c.pkts != e.lastPkts) {
        e.lastPkts = c.pkts;
        e.lastActiveNs = t;
      }
      if (t - std::max(e.lastActiveNs, e.installedNs) < idleNs) {
        ++it;
        continue;
      }
      int const err = mfc->mfcDel(it->first.source, it->first.group, e.iif);
      if (err != 0 && err != ENOENT) {
        KIV_TRACE(th(), 2, "remove " << sgText(it->first) << " failed: " << std::strerror(err));
        ++it;
        continue;
      }
      emit("remove " + sgText(it->first));
      it = entries.erase(it);
      doDropCount(true, false);
      ++gone;
    }
  }
  return gone;
}

std::size_t RouteEngine::retryFailed() {
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    if (!mfc_[idx(af)]) continue;
    for (auto& [sg, e] : entries_[idx(af)])
      if (!e.installed) doWrite(af, sg, e);
  }
  return failedEntries();
}

std::size_t RouteEngine::failedEntries() const {
  std::size_t n = 0;
  for (auto const& entries : entries_)
    for (auto const& [sg, e] : entries) n += e.installed ? 0 : 1;
  return n;
}

}  // namespace MrouteAgent
