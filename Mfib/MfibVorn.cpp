#include "Mfib/MfibVorn.h"

#include <sstream>
#include <vector>

#include "Brisklog/Brisklog.h"
#include "Kiv/Assert.h"
#include "Kiv/CollectionAttr.h"
#include "Kiv/Hash.h"
#include "Kiv/Trace.h"
#include "Kiv/ValueText.h"
#include "Mfib/MfibVornCollRouteIteratorConst.h"
#include "Stelo/Mount.h"
#include "Wirly/BrisklogArg.h"

namespace Vorn::Multicast::Fib {

namespace {

Kiv::TraceHandle th("Mroute::MfibVorn");

// "(s: <source> g: <group>", the opening of the route-entry traces.
struct SourceGroup {
  IpGenRouteKey const& key;
};
std::ostream& operator<<(std::ostream& os, SourceGroup const& sg) {
  return os << "(s: " << sg.key.source() << " g: " << sg.key.group();
}

// Walks every route of one table in key order; corruption ends the walk
// and goes to the table.
template <class F>
void forEachRoute(Status const& table, F&& f) {
  auto const& routes = table.routeTable();
  try {
    Vorn::IterHint hint;
    IpGenRouteKey key;
    Route route;
    for (bool more = routes.first(key, route, hint); more; more = routes.next(key, key, route, hint)) f(key);
  } catch (Pelto::CorruptionDetectedException const& e) {
    routes.corruptionDetected(e.what());
  }
}

}  // namespace

Route safeRoute(Status const& table, IpGenRouteKey const& key) {
  try {
    return table.route(key);
  } catch (Pelto::CorruptionDetectedException const& e) {
    table.routeTable().corruptionDetected(e.what());
    return Route();
  }
}

// ---- MfibVornColl

Kiv::Ptr<Status const> MfibVornColl::vornPtr(Status const* key) const {
  auto it = vornPtr_.find(key);
  return it == vornPtr_.end() ? nullptr : it->second;
}

void MfibVornColl::vornPtrIs(Status const* key, Kiv::Ptr<Status const> const& value) {
  if (!key) throw Kiv::nullParameter("_vornPtr", "Vorn::Multicast::Fib::MfibVornColl::vornPtr");
  if (Kiv::ptrEntryIs(vornPtr_, key, value)) vornPtrNotify(key);
}

Kiv::Ptr<Status const> MfibVornColl::vornPtrDel(Status const* key) {
  Kiv::Ptr<Status const> old = Kiv::entryTake(vornPtr_, key);
  if (old) vornPtrNotify(key);
  return old;
}

void MfibVornColl::vornPtrDelAll() {
  for (Status const* k : Kiv::keysOf(vornPtr_)) vornPtrDel(k);
}

std::uint32_t MfibVornColl::routes() const {
  std::uint32_t n = 0;
  for (MfibVornCollRouteIteratorConst it(this); !it.done(); it.updateToBestRouteIterators()) ++n;
  return n;
}

MfibVornColl::VornPtrMap::const_iterator MfibVornColl::best(IpGenRouteKey const& key, Status const* exclude,
                                                            Route* bestRoute) const {
  auto best = vornPtr_.end();
  RoutePriority bestPriority;
  for (auto it = vornPtr_.begin(); it != vornPtr_.end(); ++it) {
    if (it->first == exclude) continue;
    Route r = safeRoute(*it->second, key);
    if (r == Route()) continue;
    // Strictly better only: on a tie the table met first stays.
    if (bestPriority < r.priority()) {
      best = it;
      bestPriority = r.priority();
      if (bestRoute) *bestRoute = r;
    }
  }
  return best;
}

Status const* MfibVornColl::vornKey(IpGenRouteKey const& key) const {
  auto it = best(key, nullptr, nullptr);
  return it == vornPtr_.end() ? nullptr : it->first;
}

Kiv::Ptr<Status const> MfibVornColl::mfibVorn(IpGenRouteKey const& key) const {
  auto it = best(key, nullptr, nullptr);
  return it == vornPtr_.end() ? nullptr : it->second;
}

Kiv::Ptr<Status const> MfibVornColl::nextBestVorn(Status const* exclude, IpGenRouteKey const& key) const {
  auto it = best(key, exclude, nullptr);
  return it == vornPtr_.end() ? nullptr : it->second;
}

Route MfibVornColl::route(IpGenRouteKey const& key) const {
  Route r;
  return best(key, nullptr, &r) == vornPtr_.end() ? Route() : r;
}

// ---- MfibVornDirRouteKey

namespace {
constexpr char routeKeyTypeName[] = "Vorn::Multicast::Fib::MfibVornDirRouteKey";
}

MfibVornDirRouteKey::MfibVornDirRouteKey(std::string_view text) {
  Kiv::ValueReader r(text, routeKeyTypeName);
  vornKey_ = r.get<Status const*>("vornKey");
  routeKey_ = IpGenRouteKey::fromStrep(r.raw("routeKey"));
  r.done();
}

std::uint64_t MfibVornDirRouteKey::hash() const {
  Kiv::HashAccumulator h;
  h.mix(&vornKey_, sizeof vornKey_);  // NOLINT(bugprone-sizeof-expression): the key is the table's address
  h.mix32(static_cast<std::uint32_t>(Wirly::IpGenPrefixBase::hash(routeKey_.source())) ^
          static_cast<std::uint32_t>(Wirly::IpGenPrefixBase::hash(routeKey_.group())));
  return h.result();
}

std::string MfibVornDirRouteKey::pretty() const {
  std::ostringstream os;
  os << "[";
  if (vornKey_) {
    os << vornKey_->typeName() << "('" << vornKey_->name() << "')";
  } else {
    os << "None";
  }
  os << "] " << routeKey_;
  return os.str();
}

std::string MfibVornDirRouteKey::valueToStrep() const {
  Kiv::ValueWriter w(routeKeyTypeName);
  w.field("vornKey", vornKey_).fieldRaw("routeKey", routeKey_.valueToStrep());
  return w.str();
}

std::ostream& operator<<(std::ostream& os, MfibVornDirRouteKey const& k) { return os << k.pretty(); }

// ---- OrderRouteSm

Kiv::Ptr<OrderRouteSm> OrderRouteSm::OrderRouteSmIs(Kiv::Ptr<MfibVornColl const> const& vornColl,
                                                    Kiv::Ptr<RouteOrderedCollection> const& routeOrdered) {
  Kiv::Ptr<OrderRouteSm> sm = new OrderRouteSm(vornColl, routeOrdered);
  sm->handleInitialized();
  return sm;
}

OrderRouteSm::OrderRouteSm(Kiv::Ptr<MfibVornColl const> const& vornColl,
                           Kiv::Ptr<RouteOrderedCollection> const& routeOrdered)
    : vornColl_(vornColl), routeOrdered_(routeOrdered) {
  if (vornColl_) {
    kivVornColl_ = new KivVornColl(vornColl_, this);
    kivVornColl_->hasNotificationActiveIs(true);
    for (auto const& [key, table] : vornColl_->vornPtrMap()) mfibVornIs(key, table);
  }
}

OrderRouteSm::~OrderRouteSm() {
  kivDoZombieReactors(true);
  mfibVorn_.clear();
}

void OrderRouteSm::kivDoZombieReactors(bool zombie) {
  if (kivVornColl_) kivVornColl_->kivDoZombieReactors(zombie);
  for (auto const& [k, r] : mfibVorn_) r->kivDoZombieReactors(zombie);
}

void OrderRouteSm::hasNotificationActiveIs(bool active) {
  if (kivVornColl_) kivVornColl_->hasNotificationActiveIs(active);
  for (auto const& [k, r] : mfibVorn_) r->hasNotificationActiveIs(active);
}

void OrderRouteSm::vornCollIs(Kiv::Ptr<MfibVornColl const> const& coll) {
  if (coll == vornColl_) return;
  vornCollDel();
  vornColl_ = coll;
  if (!coll) return;
  kivVornColl_ = new KivVornColl(coll, this);
  kivVornColl_->hasNotificationActiveIs(true);
  kivVornColl_->onVornPtrkivImmediate();
}

Kiv::Ptr<MfibVornColl const> OrderRouteSm::vornCollDel() {
  if (kivVornColl_) {
    kivVornColl_->kivDoZombieReactors(true);
    kivVornColl_ = nullptr;
  }
  Kiv::Ptr<MfibVornColl const> old = std::move(vornColl_);
  vornColl_ = nullptr;
  return old;
}

void OrderRouteSm::handleInitialized() {
  KIV_TRACE(th, 8, "void Vorn::Multicast::Fib::OrderRouteSm::handleInitialized()");
  if (initialized_) return;
  KIV_TRACE(th, 2, "Initializing OrderRouteSm");
  // Keys tied at the top priority are written once per tied table, the
  // last one last; later changes are decided by vornKey, which prefers the
  // first. Agents see the difference only until a key's next change.
  if (vornColl_ && th.enabled(8)) {
    // The iterator traces every position it weighs.
    for (MfibVornCollRouteIteratorConst it(vornColl_); !it.done(); it.updateToBestRouteIterators()) {
      IpGenRouteKey const key = it.valid() ? it.routeKey() : Routing::Multicast::Fib::invalidRouteKey();
      routeOrdered_->routeIs(key, it.vornKey());
    }
  } else if (vornColl_) {
    // The same positions in the same order, from one pass over all tables
    // together: the cost per route does not grow with the number of tables.
    auto const keys = unbeatenKeys(*vornColl_);
    auto table = vornColl_->vornPtrMap().begin();
    for (auto const& tableKeys : keys) {
      for (IpGenRouteKey const& key : tableKeys) routeOrdered_->routeIs(key, table->first);
      ++table;
    }
  }
  initializedIs(true);
  KIV_TRACE(th, 2, "Initialized OrderRouteSm");
}

OrderRouteSm::KivMfibVorn* OrderRouteSm::mfibVorn(Status const* key) const {
  auto it = mfibVorn_.find(key);
  return it == mfibVorn_.end() ? nullptr : it->second.ptr();
}

void OrderRouteSm::mfibVornIs(Status const* key, Kiv::Ptr<Status const> const& table) {
  auto it = mfibVorn_.find(key);
  if (it != mfibVorn_.end()) {
    if (it->second->notifier() == table) return;
    mfibVornDel(key);
  }
  if (!table) return;
  Kiv::Ptr<KivMfibVorn> r = new KivMfibVorn(table, key, this);
  r->hasNotificationActiveIs(true);
  mfibVorn_.emplace(key, r);
  r->handleInitialize();
}

Kiv::Ptr<Status const> OrderRouteSm::mfibVornDel(Status const* key) {
  auto it = mfibVorn_.find(key);
  if (it == mfibVorn_.end()) return nullptr;
  Kiv::Ptr<KivMfibVorn> r = std::move(it->second);
  mfibVorn_.erase(it);
  r->kivDoZombieReactors(true);
  return r->notifier();
}

void OrderRouteSm::mfibVornDelAll() {
  while (!mfibVorn_.empty()) mfibVornDel(mfibVorn_.begin()->first);
}

void OrderRouteSm::KivVornColl::onVornPtr(Status const* key) {
  Kiv::Ptr<Status const> table = notifier()->vornPtr(key);
  if (table) {
    owner_->mfibVornIs(key, table);
  } else {
    owner_->mfibVornDel(key);
  }
}

void OrderRouteSm::KivVornColl::onVornPtrkivImmediate() {
  if (!notifier() || !owner_) return;
  auto const& tables = notifier()->vornPtrMap();
  for (auto const& [key, table] : tables) owner_->mfibVornIs(key, table);
  std::vector<Status const*> gone;
  for (auto const& [key, r] : owner_->mfibVorn_) {
    if (tables.find(key) == tables.end()) gone.push_back(key);
  }
  for (Status const* key : gone) owner_->mfibVornDel(key);
}

void OrderRouteSm::KivMfibVorn::handleInitialize() {
  KIV_TRACE(th, 8, "void Vorn::Multicast::Fib::OrderRouteSm::KivMfibVorn::handleInitialize()");
  if (!owner_->initialized()) {
    KIV_TRACE(th, 2, "OrderRouteSm Not initialized");
    return;
  }
  forEachRoute(*notifier(), [this](IpGenRouteKey const& key) { handleRouteChanged(key); });
}

void OrderRouteSm::KivMfibVorn::handleRouteChanged(IpGenRouteKey const& key) {
  KIV_TRACE(th, 8,
            "void Vorn::Multicast::Fib::OrderRouteSm::KivMfibVorn::handleRouteChanged("
            "Routing::Multicast::Fib::IpGenRouteKey)");
  if (!owner_->initialized()) {
    KIV_TRACE(th, 2, "OrderRouteSm Not initialized");
    return;
  }
  MfibVornColl const* coll = owner_->vornColl().ptr();
  RouteOrderedCollection& ordered = *owner_->routeOrdered();
  if (!coll || coll->route(key) == Route()) {
    KIV_TRACE(th, 2, "Route entry deleted for key " << SourceGroup{key});
    BRISKLOG("OrderRouteSm", "(%s/%u, %s/%u): no table has the route any more", key.source().address(),
             key.source().len(), key.group().address(), key.group().len());
    ordered.routeDel(key);
    return;
  }
  Status const* const current = ordered.route(key).value_or(nullptr);
  Status const* const owner = coll->vornKey(key);
  if (current == owner) return;
  KIV_TRACE(th, 2, "Route entry updated for key " << SourceGroup{key} << ")");
  BRISKLOG("OrderRouteSm", "(%s/%u, %s/%u): best route now from table %s", key.source().address(), key.source().len(),
           key.group().address(), key.group().len(), owner != nullptr ? owner->name() : Kiv::Name());
  ordered.routeIs(key, owner);
}

// ---- ModalOrderRouteSm

Kiv::Ptr<ModalOrderRouteSm> ModalOrderRouteSm::ModalOrderRouteSmIs(
    Kiv::Ptr<Status const> const& mfibVorn, Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered) {
  return new ModalOrderRouteSm(mfibVorn, routeOrdered);
}

ModalOrderRouteSm::ModalOrderRouteSm(Kiv::Ptr<Status const> const& mfibVorn,
                                     Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered)
    : routeOrdered_(routeOrdered) {
  mfibVornIs(mfibVorn);
}

ModalOrderRouteSm::~ModalOrderRouteSm() { kivDoZombieReactors(true); }

void ModalOrderRouteSm::kivDoZombieReactors(bool zombie) {
  if (kivMfibVorn_) kivMfibVorn_->kivDoZombieReactors(zombie);
}

void ModalOrderRouteSm::hasNotificationActiveIs(bool active) {
  if (kivMfibVorn_) kivMfibVorn_->hasNotificationActiveIs(active);
}

void ModalOrderRouteSm::mfibVornIs(Kiv::Ptr<Status const> const& table) {
  if (table == mfibVorn_) return;
  mfibVornDel();
  mfibVorn_ = table;
  if (!table) return;
  kivMfibVorn_ = new KivMfibVorn(table, this);
  kivMfibVorn_->hasNotificationActiveIs(true);
}

Kiv::Ptr<Status const> ModalOrderRouteSm::mfibVornDel() {
  if (kivMfibVorn_) {
    kivMfibVorn_->kivDoZombieReactors(true);
    kivMfibVorn_ = nullptr;
  }
  Kiv::Ptr<Status const> old = std::move(mfibVorn_);
  mfibVorn_ = nullptr;
  return old;
}

void ModalOrderRouteSm::handleInitialized() {
  KIV_TRACE(th, 8, "void Vorn::Multicast::Fib::ModalOrderRouteSm::handleInitialized()");
  if (initialized_) return;
  KIV_TRACE(th, 2, "Initializing ModalOrderRouteSm");
  if (mfibVorn_) forEachRoute(*mfibVorn_, [this](IpGenRouteKey const& key) { routeOrdered_->routeIs(key, true); });
  initializedIs(true);
  KIV_TRACE(th, 2, "Initialized ModalOrderRouteSm");
}

void ModalOrderRouteSm::handleRouteChanged(IpGenRouteKey const& key) {
  KIV_TRACE(th, 8,
            "void Vorn::Multicast::Fib::ModalOrderRouteSm::handleRouteChanged("
            "Routing::Multicast::Fib::IpGenRouteKey)");
  if (!initialized_) {
    KIV_TRACE(th, 2, "ModalOrderRouteSm not initialized");
    return;
  }
  if (!mfibVorn_ || safeRoute(*mfibVorn_, key) == Route()) {
    KIV_TRACE(th, 2, "Route entry deleted for key " << SourceGroup{key});
    BRISKLOG("ModalOrderRouteSm", "(%s/%u, %s/%u): route gone from table %s", key.source().address(),
             key.source().len(), key.group().address(), key.group().len(), mfibVorn_ ? mfibVorn_->name() : Kiv::Name());
    routeOrdered_->routeDel(key);
    return;
  }
  if (routeOrdered_->route(key) == std::optional<bool>(true)) return;
  KIV_TRACE(th, 2, "Route entry added for key " << SourceGroup{key} << ")");
  BRISKLOG("ModalOrderRouteSm", "(%s/%u, %s/%u): route added from table %s", key.source().address(), key.source().len(),
           key.group().address(), key.group().len(), mfibVorn_->name());
  routeOrdered_->routeIs(key, true);
}

// ---- MfibVornDir

Kiv::Ptr<MfibVornColl> MfibVornDir::vornColl(L3::VrfName const& vrf) const {
  auto it = vornColl_.find(vrf);
  return it == vornColl_.end() ? nullptr : it->second;
}

Kiv::Ptr<MfibVornColl> MfibVornDir::vornCollIs(L3::VrfName const& vrf) {
  auto it = vornColl_.find(vrf);
  if (it != vornColl_.end()) return it->second;
  Kiv::Ptr<MfibVornColl> coll = MfibVornColl::MfibVornCollIs(vrf);
  vornColl_.emplace(vrf, coll);
  vornCollNotify(vrf);
  return coll;
}

Kiv::Ptr<MfibVornColl> MfibVornDir::vornCollDel(L3::VrfName const& vrf) {
  Kiv::Ptr<MfibVornColl> old = Kiv::entryTake(vornColl_, vrf);
  if (old) vornCollNotify(vrf);
  return old;
}

void MfibVornDir::vornCollDelAll() {
  for (auto const& vrf : Kiv::keysOf(vornColl_)) vornCollDel(vrf);
}

void MfibVornDir::vornCollNotify(L3::VrfName const& vrf) const {
  using Hook = void (NotifieeConst::*)(L3::VrfName);
  notify(Hook(&NotifieeConst::onVornColl), vrf);
}

// ---- VrfStatus

Kiv::Ptr<Status> VrfStatus::status(L3::VrfName const& vrf) const {
  auto it = status_.find(vrf);
  return it == status_.end() ? nullptr : it->second;
}

void VrfStatus::statusIs(L3::VrfName const& vrf, Kiv::Ptr<Status> const& status) {
  if (Kiv::ptrEntryIs(status_, vrf, status)) statusNotify(vrf);
}

Kiv::Ptr<Status> VrfStatus::statusDel(L3::VrfName const& vrf) {
  Kiv::Ptr<Status> old = Kiv::entryTake(status_, vrf);
  if (old) statusNotify(vrf);
  return old;
}

void VrfStatus::statusDelAll() {
  for (auto const& vrf : Kiv::keysOf(status_)) statusDel(vrf);
}

// ---- MfibDirWriter

namespace {
// "( a, b ) for app X", the tail of every operation's entry trace.
struct OpArgs {
  L3::VrfName const& vrf;
  Kiv::String const& url;
  Kiv::String const& app;
};
std::ostream& operator<<(std::ostream& os, OpArgs const& a) {
  return os << "( " << a.vrf << ", " << a.url << " )"
            << " for app " << a.app;
}
}  // namespace

Kiv::Ptr<MfibDirWriter> MfibDirWriter::MfibDirWriterIs(Kiv::String const& appName, Kiv::Ptr<Kiv::Dir> const& mfibDir,
                                                       Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                                       Kiv::Ptr<Stelo::EntityManager> const& entityManager) {
  Kiv::Ptr<MfibDirWriter> w = new MfibDirWriter(appName, mfibDir, mfibVornDir, entityManager);
  w->handleInitialized();
  return w;
}

Kiv::Ptr<MfibDir> MfibDirWriter::appDir() const { return Kiv::ptrCast<MfibDir>(mfibDir_->entity(appName_)); }

void MfibDirWriter::handleInitialized() {
  KIV_TRACE(th, 9,
            "void Vorn::Multicast::Fib::MfibDirWriter::handleInitialized()"
                << " for app " << appName_);
  Kiv::Ptr<MfibDir> dir = Kiv::ptrCast<MfibDir>(mfibDir_->entryIs(appName_, MfibDir::typeNameText));
  KIV_ASSERT(dir);
  dir->dirCollIs(L3::VrfName::defaultVrf());
  KIV_TRACE(th, 4, "Created directory collection for default vrf ");
  initialized_ = true;
}

Kiv::Ptr<Status> MfibDirWriter::mfibVorn(Kiv::String const& url) const {
  KIV_TRACE(th, 9,
            "Vorn::Multicast::Fib::Status::Ptr Vorn::Multicast::Fib::MfibDirWriter::mfibVorn(Kiv::String)"
                << "( " << url << " )"
                << " for app " << appName_);
  return Kiv::ptrCast<Status>(KivVorn::Mount(entityManager_).getEntity(url));
}

Kiv::Ptr<Status> MfibDirWriter::doAddVorn(L3::VrfName const& vrf, Kiv::String const& url) {
  KIV_TRACE(th, 9,
            "Vorn::Multicast::Fib::Status::Ptr Vorn::Multicast::Fib::MfibDirWriter::doAddVorn(L3::VrfName, Kiv::String)"
                << (OpArgs{vrf, url, appName_}));
  Kiv::String const& vornUrl = url;
  KIV_ASSERT(vornUrl.size());
  Kiv::Ptr<MfibDir> dir = appDir();
  if (!dir) {
    KIV_TRACE(th, 2, "doAddVorn: no directory entry for app " << appName_ << "; " << url << " not added");
    return nullptr;
  }
  KivVorn::Mount mount(entityManager_);
  mount.doMount(url, Status::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::writer));
  Kiv::Ptr<Status> table = Kiv::ptrCast<Status>(mount.getEntity(url));
  if (!table) {
    KIV_TRACE(th, 2, "doAddVorn: could not mount " << url << " for writing; nothing announced");
    return nullptr;
  }
  KIV_TRACE(th, 4, "Mounted " << url);
  if (!mfibVornDir_->vornColl(vrf)) {
    KIV_TRACE(th, 4, "Created Vorned directory collection for vrf " << vrf);
    mfibVornDir_->vornCollIs(vrf);
  }
  if (!dir->dirColl(vrf)) {
    KIV_TRACE(th, 4, "Created directory collection for vrf " << vrf);
    dir->dirCollIs(vrf);
  }
  mfibVornDir_->vornColl(vrf)->vornPtrIs(table.ptr(), table);
  dir->dirColl(vrf)->vornUrlIs(url);
  KIV_TRACE(th, 4, "Added url " << url << " into mfibDir collection");
  return table;
}

void MfibDirWriter::doDelVorn(L3::VrfName const& vrf, Kiv::String const& url) {
  KIV_TRACE(
      th, 9,
      "void Vorn::Multicast::Fib::MfibDirWriter::doDelVorn(L3::VrfName, Kiv::String)" << (OpArgs{vrf, url, appName_}));
  KivVorn::Mount mount(entityManager_);
  Kiv::Ptr<Status> table = Kiv::ptrCast<Status>(mount.getEntity(url));
  Kiv::Ptr<MfibVornColl> coll = mfibVornDir_->vornColl(vrf);
  if (coll && table) coll->vornPtrDel(table.ptr());
  mount.doUnmount(url);
  mount.cleanup(url);
  KIV_TRACE(th, 4, "Unmounted " << url);
  if (coll && coll->vornPtrs() == 0) {
    mfibVornDir_->vornCollDel(vrf);
    KIV_TRACE(th, 4, "Deleted Vorned directory collection for vrf " << vrf);
  }
  if (vrf != L3::VrfName::defaultVrf()) {
    if (Kiv::Ptr<MfibDir> dir = appDir()) dir->dirCollDel(vrf);
    KIV_TRACE(th, 4, "Deleted directory collection for vrf " << vrf);
  }
}

Kiv::Ptr<BitMapper::VornStatus> MfibDirWriter::mfibBitMapperVorn(Kiv::String const& url) const {
  KIV_TRACE(th, 9,
            "BitMapper::VornStatus::Ptr Vorn::Multicast::Fib::MfibDirWriter::mfibBitMapperVorn(Kiv::String)"
                << "( " << url << " )"
                << " for app " << appName_);
  return Kiv::ptrCast<BitMapper::VornStatus>(KivVorn::Mount(entityManager_).getEntity(url));
}

Kiv::Ptr<BitMapper::VornStatus> MfibDirWriter::doAddBitMapperVorn(L3::VrfName const& vrf, Kiv::String const& url) {
  KIV_TRACE(th, 9,
            "BitMapper::VornStatus::Ptr Vorn::Multicast::Fib::MfibDirWriter::doAddBitMapperVorn(L3::VrfName, "
            "Kiv::String)"
                << (OpArgs{vrf, url, appName_}));
  KivVorn::Mount mount(entityManager_);
  mount.doMount(url, "BitMapper::VornStatus", KivVorn::MountInfo(KivVorn::MountInfo::writer));
  Kiv::Ptr<BitMapper::VornStatus> table = Kiv::ptrCast<BitMapper::VornStatus>(mount.getEntity(url));
  Kiv::Ptr<MfibDir> dir = appDir();
  if (!table || !dir) {
    KIV_TRACE(th, 2, "doAddBitMapperVorn: could not mount " << url << " for writing; nothing announced");
    return nullptr;
  }
  if (!dir->dirColl(vrf)) {
    KIV_TRACE(th, 4, "Created directory collection for vrf " << vrf);
    dir->dirCollIs(vrf);
  }
  dir->dirColl(vrf)->bitMapperVornUrlIs(url);
  KIV_TRACE(th, 4, "Added bitmapper url " << url << " into mfibDir collection");
  return table;
}

void MfibDirWriter::doDelBitMapperVorn(L3::VrfName const& vrf, Kiv::String const& url) {
  KIV_TRACE(th, 9,
            "void Vorn::Multicast::Fib::MfibDirWriter::doDelBitMapperVorn(L3::VrfName, Kiv::String)"
                << (OpArgs{vrf, url, appName_}));
  KivVorn::Mount mount(entityManager_);
  mount.doUnmount(url);
  if (Kiv::Ptr<MfibDir> dir = appDir()) {
    if (Kiv::Ptr<MfibDirColl> coll = dir->dirColl(vrf)) coll->bitMapperVornUrlIs("");
  }
  KIV_TRACE(th, 4, "Deleted url " << url);
}

// ---- factories

Kiv::Ptr<MfibVornColl> mfibVornCollFactory(L3::VrfName const& vrfName) { return MfibVornColl::MfibVornCollIs(vrfName); }
Kiv::Ptr<MfibVornDir> mfibVornDirFactory() { return MfibVornDir::MfibVornDirIs(); }
Kiv::Ptr<VrfStatus> vrfStatusFactory() { return VrfStatus::VrfStatusIs(); }
Kiv::Ptr<OrderRouteSm> orderRouteSmFactory(Kiv::Ptr<MfibVornColl const> const& vornColl,
                                           Kiv::Ptr<RouteOrderedCollection> const& routeOrdered) {
  return OrderRouteSm::OrderRouteSmIs(vornColl, routeOrdered);
}
Kiv::Ptr<ModalOrderRouteSm> modalOrderRouteSmFactory(Kiv::Ptr<Status const> const& mfibVorn,
                                                     Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered) {
  return ModalOrderRouteSm::ModalOrderRouteSmIs(mfibVorn, routeOrdered);
}

Kiv::Ptr<MfibDirWriter> mfibDirWriterFactory(Kiv::String const& appName, Kiv::Ptr<Kiv::Dir> const& mfibDir,
                                             Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                             Kiv::Ptr<Stelo::EntityManager> const& entityManager) {
  return MfibDirWriter::MfibDirWriterIs(appName, mfibDir, mfibVornDir, entityManager);
}

}  // namespace Vorn::Multicast::Fib
