#include "RouteEngine.h"

#include <errno.h>
#include <malloc.h>
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

unsigned hostLen(Wirly::AddressFamily af) { return af == Wirly::ipv6 ? 128 : 32; }

std::string prefixText(Wirly::IpGenPrefix const& p, bool star) {
  if (star) return "*";
  std::string out = p.address().str();
  if (p.len() != hostLen(p.af())) out += "/" + std::to_string(unsigned(p.len()));
  return out;
}

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
  auto& pending = pending_[vrf.name.str()];
  for (auto const& [key, owner] : vrf.ordered->routeMap()) pending.push_back(key);
  pendingCount_ += vrf.ordered->routeMap().size();
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
  bool const first = pendingCount_ == 0;
  auto& pending = pending_[vrf.name.str()];
  // A table and the ordering machine often tell of the same key in a row.
  if (!pending.empty() && pending.back() == key) return;
  pending.push_back(key);
  ++pendingCount_;
  if (first && flushRequest_) flushRequest_();
}

void RouteEngine::flush() {
  std::size_t visited = 0;
  while (pendingCount_ != 0) {
    std::map<std::string, std::vector<IpGenRouteKey>> batch;
    batch.swap(pending_);
    pendingCount_ = 0;
    for (auto& [vrfName, keys] : batch) {
      // Each key once, in key order.
      std::sort(keys.begin(), keys.end());
      keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
      auto it = vrfs_.find(vrfName);
      std::unique_ptr<Vrf> gone;
      if (it == vrfs_.end()) {
        // The VRF went: its routes are withdrawn.
        gone = std::make_unique<Vrf>();
        gone->name = L3::VrfName(vrfName);
      }
      Vrf& vrf = gone ? *gone : *it->second;
      for (IpGenRouteKey const& key : keys) doRoute(vrf, key);
      visited += keys.size();
      // What this batch held goes back to the system before the next.
      std::vector<IpGenRouteKey>().swap(keys);
    }
  }
  retired_.clear();
  // A change of many routes leaves freed memory between the live routes
  // (the batch, notifications and copies made on the way); unreturned, it
  // would count as the agent's for good and grow with every such change.
  if (visited >= trimAfterRoutes) ::malloc_trim(0);
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

std::optional<IpGenRouteKey> RouteEngine::routeFor(Wirly::AddressFamily af, SgKey const& sg, RouteState** st) {
  auto vrf = routes_.find(kernelVrf);
  if (vrf == routes_.end()) return std::nullopt;
  unsigned const len = hostLen(af);
  IpGenRouteKey const exactKey(Wirly::IpGenPrefix(sg.source, len), Wirly::IpGenPrefix(sg.group, len));
  if (auto it = vrf->second.find(exactKey); it != vrf->second.end()) {
    if (st) *st = &it->second;
    return exactKey;
  }
  // Every report of a flood comes here: no address parsed per call.
  static Wirly::IpGenAddr const any4("0.0.0.0"), any6("::");
  IpGenRouteKey const starKey(Wirly::IpGenPrefix(af == Wirly::ipv4 ? any4 : any6, 0),
                              Wirly::IpGenPrefix(sg.group, len));
  if (auto it = vrf->second.find(starKey); it != vrf->second.end()) {
    if (st) *st = &it->second;
    return starKey;
  }
  return std::nullopt;
}

std::vector<std::pair<SgKey, KernelEntry const*>> RouteEngine::entriesOf(IpGenRouteKey const& key) const {
  std::vector<std::pair<SgKey, KernelEntry const*>> out;
  Wirly::AddressFamily const af = key.group().af();
  SgIndex const& entries = entries_[idx(af)];
  if (isStarG(key)) {
    for (SgKey const& sg : entries.groupEntries(key.group().address())) {
      KernelEntry const* e = entries.find(sg);
      if (e && e->origin == KernelEntry::fromStarG && e->routeKey == key) out.push_back({sg, e});
    }
  } else if (key.source().len() == hostLen(af)) {
    SgKey const sg{key.group().address(), key.source().address()};
    KernelEntry const* e = entries.find(sg);
    if (e && e->origin == KernelEntry::exact && e->routeKey == key) out.push_back({sg, e});
  }
  return out;
}

std::vector<std::pair<SgKey, KernelEntry const*>> RouteEngine::dropEntries(Wirly::AddressFamily af) const {
  std::vector<std::pair<SgKey, KernelEntry const*>> out;
  SgIndex const& entries = entries_[idx(af)];
  std::vector<SgKey> keys = entries.nonExactEntries();
  std::sort(keys.begin(), keys.end());
  for (SgKey const& sg : keys)
    if (KernelEntry const* e = entries.find(sg); e && e->origin == KernelEntry::drop) out.push_back({sg, e});
  return out;
}

void RouteEngine::doKernelFor(IpGenRouteKey const& key) {
  Wirly::AddressFamily const af = key.group().af();
  if (!mfc_[idx(af)]) return;
  if (isStarG(key)) {
    // Exactly the entries of this group that came from it, or that wait
    // as drop entries for a route.
    for (SgKey const& sg : entries_[idx(af)].groupEntries(key.group().address())) doProgram(af, sg, false);
    return;
  }
  if (key.source().len() != hostLen(af)) return;
  doProgram(af, SgKey{key.group().address(), key.source().address()}, true);
}

VifMask RouteEngine::vifsOf(Wirly::AddressFamily af, RouteState const& st, std::uint16_t iif) const {
  VifMask out = 0;
  for (Wirly::IntfId o : st.oifs) {
    std::uint16_t const v = kernelStatus_[idx(af)]->intfVif(o);
    if (v == 0 || v == iif || v >= KernelMfc::maxVifs || (!down_.empty() && down_.count(o))) continue;
    out |= VifMask(1) << v;
  }
  return out;
}

bool RouteEngine::doProgram(Wirly::AddressFamily af, SgKey const& sg, bool create, std::uint16_t askedVif) {
  KernelMfc* mfc = mfc_[idx(af)];
  if (!mfc) return false;
  auto& entries = entries_[idx(af)];
  KernelEntry* had = entries.find(sg);
  RouteState* st = nullptr;
  std::optional<IpGenRouteKey> const routeKey = routeFor(af, sg, &st);
  if (st && isStarG(*routeKey) && !had && !create) return false;

  KernelEntry want;
  if (had) {
    want.learnedNs = had->learnedNs;
    want.recovered = had->recovered;
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
  } else if (!had) {
    if (!create) return false;
  } else if (had->origin != KernelEntry::drop) {
    // Its route went: the entry goes; the next packet asks again.
    int const err = mfc->mfcDel(sg.source, sg.group, had->iif);
    if (err != 0 && err != ENOENT) KIV_TRACE(th(), 2, "remove " << sgText(sg) << " failed: " << std::strerror(err));
    emit("remove " + sgText(sg));
    doErase(af, sg);
    return true;
  }
  if (want.origin == KernelEntry::drop) {
    // A drop entry needs some incoming VIF; the kernel matches (S, G) alone.
    if (had && had->origin == KernelEntry::drop && had->iif != 0)
      want.iif = had->iif;
    else
      want.iif = askedVif != 0 ? askedVif : (intfs_.empty() ? 0 : intfs_.front().vif);
  }
  if (had && had->installed && had->origin == want.origin && had->iif == want.iif && had->oifs == want.oifs) {
    had->routeKey = want.routeKey;
    return false;
  }
  if (had) want.installedNs = had->installedNs;
  doDropCount(had && had->origin == KernelEntry::drop, want.origin == KernelEntry::drop);
  doWrite(af, sg, entries.put(sg, want), st);
  return true;
}

void RouteEngine::doErase(Wirly::AddressFamily af, SgKey const& sg) {
  entries_[idx(af)].erase(sg);
  failed_[idx(af)].erase(sg);
}

bool RouteEngine::doWrite(Wirly::AddressFamily af, SgKey const& sg, KernelEntry& e, RouteState* route) {
  KernelMfc* mfc = mfc_[idx(af)];
  RouteState* st = e.origin == KernelEntry::drop ? nullptr : route ? route : kernelRoute(e.routeKey);
  int const err = mfc->mfcIs(sg.source, sg.group, e.iif, e.oifs);
  if (err != 0) {
    ++writeRefusals_;
    e.installed = false;
    e.error = err;
    failed_[idx(af)].insert(sg);
    if (st) {
      MrouteLib::MrouteFailureReason r = st->failure;
      r.valueIs((r.value() & ~programmingMask) | reasonOf(err).value());
      st->failure = r;
    }
    KIV_TRACE(th(), 2, "install " << sgText(sg) << " refused: " << std::strerror(err));
    return false;
  }
  bool const first = e.installedNs == 0;
  if (!failed_[idx(af)].empty()) failed_[idx(af)].erase(sg);
  e.installed = true;
  e.error = 0;
  e.installedNs = now();
  if (st) st->failure.valueIs(st->failure.value() & ~programmingMask);
  if (e.origin == KernelEntry::drop) {
    emit("install " + sgText(sg) + " drop");
  } else {
    std::string line = "install " + sgText(sg) + " " + vifText(af, e.iif) + " -> ";
    if (e.oifs == 0) line += "-";
    for (std::uint16_t v = 0; v < KernelMfc::maxVifs; ++v)
      if (e.oifs & (VifMask(1) << v)) line += (line.back() == ' ' ? "" : ",") + vifText(af, v);
    emit(line);
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
  bool const hasRoute = routeFor(af, sg, nullptr).has_value();
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
  KernelEntry* had = entries.find(sg);
  if (!had) {
    KernelEntry e;
    e.learnedNs = now();
    // Placeholder until doProgram decides: a flow nobody asked for before.
    e.iif = kernelStatus_[idx(af)]->intfVif(intf);
    e.installed = false;
    entries.put(sg, e);
    doDropCount(false, true);
  } else if (had->installed) {
    // A report queued before the entry was written (a burst, or a flow
    // recovered from the unresolved list first) is stale; one about an
    // entry written long ago means the kernel lost it: write it again.
    if (now() - had->installedNs < staleUpcallNs) return;
    had->installed = false;
  }
  if (!doProgram(af, sg, true, kernelStatus_[idx(af)]->intfVif(intf))) {
    KernelEntry* e = entries.find(sg);
    if (e && !e->installed) doWrite(af, sg, *e);
  }
}

bool RouteEngine::handleRecovered(Wirly::AddressFamily af, Wirly::IpGenAddr const& source,
                                  Wirly::IpGenAddr const& group) {
  if (!mfc_[idx(af)]) return false;
  SgKey const sg{group, source};
  auto& entries = entries_[idx(af)];
  KernelEntry* e = entries.find(sg);
  bool const fresh = e == nullptr;
  if (fresh) {
    // The dump does not say where the flow came in: the unknown interface's budget.
    if (!doAdmit(af, sg, 0)) return false;
    KernelEntry placeholder;
    placeholder.learnedNs = now();
    placeholder.recovered = true;
    e = &entries.put(sg, placeholder);
    doDropCount(false, true);
    ++recovered_;
  }
  // A dump resumed while the kernel's list changed may name a flow twice,
  // or one just written: only an entry written long ago is written again.
  if (!fresh && e->installed && now() - e->installedNs < staleUpcallNs) return false;
  e->installed = false;
  if (!doProgram(af, sg, true)) {
    KernelEntry* now = entries.find(sg);
    if (now && !now->installed) doWrite(af, sg, *now);
  }
  return fresh;
}

void RouteEngine::handleWrongVif(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                                 Wirly::IntfId intf) {
  ++upcalls_;
  emit("upcall wrongvif " + sgText({group, source}) + " on " + intfText(intf));
  RouteState* st = nullptr;
  routeFor(af, {group, source}, &st);
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
        for (SgKey const& sg : entries.groupEntries(key.group().address()))
          if (entries.find(sg)->origin == KernelEntry::fromStarG) sgs.push_back(sg);
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
    // Only entries no exact route owns can be drop entries.
    for (SgKey const& sg : entries.nonExactEntries()) {
      KernelEntry& e = *entries.find(sg);
      if (e.origin != KernelEntry::drop || !e.installed) continue;
      KernelMfc::Counters const c = mfc->counters(sg.source, sg.group);
      if (c.valid && c.pkts != e.lastPkts) {
        e.lastPkts = c.pkts;
        e.lastActiveNs = t;
      }
      if (t - std::max(e.lastActiveNs, e.installedNs) < idleNs) continue;
      int const err = mfc->mfcDel(sg.source, sg.group, e.iif);
      if (err != 0 && err != ENOENT) {
        KIV_TRACE(th(), 2, "remove " << sgText(sg) << " failed: " << std::strerror(err));
        continue;
      }
      emit("remove " + sgText(sg));
      doErase(af, sg);
      doDropCount(true, false);
      ++gone;
    }
  }
  return gone;
}

std::size_t RouteEngine::retryFailed() {
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    if (!mfc_[idx(af)]) continue;
    std::vector<SgKey> const refused(failed_[idx(af)].begin(), failed_[idx(af)].end());
    for (SgKey const& sg : refused)
      if (KernelEntry* e = entries_[idx(af)].find(sg); e && !e->installed) doWrite(af, sg, *e);
  }
  return failedEntries();
}

std::size_t RouteEngine::failedEntries() const { return failed_[0].size() + failed_[1].size(); }

}  // namespace MrouteAgent
