#include "Mfib/MfibDirSm.h"

#include <vector>

#include "Brisklog/Brisklog.h"
#include "Kiv/Assert.h"
#include "Kiv/CollectionAttr.h"
#include "Kiv/Trace.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Stelo/Mount.h"

namespace Vorn::Multicast::Fib {

namespace {
Kiv::TraceHandle th("Mroute::MfibVorn");
constexpr char mfibTypeName[] = "Vorn::Multicast::Fib::Status";
constexpr char bitMapperTypeName[] = "BitMapper::VornStatus";
}  // namespace

// ---- construction

Kiv::Ptr<MfibDirSm> MfibDirSm::MfibDirSmIs(Kiv::Ptr<Kiv::Dir const> const& mfibDir,
                                           Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                           Kiv::Ptr<Stelo::EntityManager> const& entityManager) {
  Kiv::Ptr<MfibDirSm> sm = new MfibDirSm(mfibDir, mfibVornDir, entityManager);
  sm->handleInitialized();
  return sm;
}

MfibDirSm::MfibDirSm(Kiv::Ptr<Kiv::Dir const> const& mfibDir, Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                     Kiv::Ptr<Stelo::EntityManager> const& entityManager)
    : mfibDir_(mfibDir), mfibVornDir_(mfibVornDir), entityManager_(entityManager) {
  if (mfibDir_) kivMfibDir_ = new KivMfibDir(mfibDir_, this);
}

MfibDirSm::~MfibDirSm() {
  kivDoZombieReactors(true);
  appDir_.clear();
}

void MfibDirSm::kivDoZombieReactors(bool zombie) {
  if (kivMfibDir_) kivMfibDir_->kivDoZombieReactors(zombie);
  for (auto const& [name, r] : appDir_) r->kivDoZombieReactors(zombie);
}

void MfibDirSm::hasNotificationActiveIs(bool active) {
  if (kivMfibDir_) kivMfibDir_->hasNotificationActiveIs(active);
  for (auto const& [name, r] : appDir_) r->hasNotificationActiveIs(active);
}

// ---- collections

Kiv::Ptr<MfibDir const> MfibDirSm::mfibAppDir(Kiv::Name const& name) const {
  auto it = mfibAppDir_.find(name);
  return it == mfibAppDir_.end() ? nullptr : it->second;
}

void MfibDirSm::mfibAppDirIs(Kiv::Ptr<MfibDir const> const& appDir) {
  if (!appDir) throw Kiv::nullParameter("_mfibAppDir", "Vorn::Multicast::Fib::MfibDirSm::mfibAppDir");
  Kiv::Name const name = appDir->name();
  Kiv::Ptr<KivAppDir> reactor = appDir_.contains(name) ? appDir_[name] : nullptr;
  auto it = mfibAppDir_.find(name);
  if (it != mfibAppDir_.end() && it->second == appDir && reactor) return;
  mfibAppDir_[name] = appDir;
  appDirIs(name, new KivAppDir(appDir, this));
}

void MfibDirSm::mfibAppDirDel(Kiv::Name const& name) {
  mfibAppDir_.erase(name);
  appDirDel(name);
}

Kiv::Ptr<MfibDirSm::KivAppDir> MfibDirSm::appDir(Kiv::Name const& name) const {
  auto it = appDir_.find(name);
  return it == appDir_.end() ? nullptr : it->second;
}

void MfibDirSm::appDirIs(Kiv::Name const& name, Kiv::Ptr<KivAppDir> const& reactor) {
  if (!reactor) throw Kiv::nullParameter("_appDir", "Vorn::Multicast::Fib::MfibDirSm::appDir");
  auto it = appDir_.find(name);
  if (it != appDir_.end()) {
    if (it->second == reactor) return;
    it->second->kivDoZombieReactors(true);
    it->second = reactor;
    return;
  }
  appDir_.emplace(name, reactor);
}

Kiv::Ptr<MfibDirSm::KivAppDir> MfibDirSm::appDirDel(Kiv::Name const& name) {
  Kiv::Ptr<KivAppDir> old = Kiv::entryTake(appDir_, name);
  if (old) old->kivDoZombieReactors(true);
  return old;
}

// ---- handlers

void MfibDirSm::handleInitialized() {
  KIV_TRACE(th, 9, "void Vorn::Multicast::Fib::MfibDirSm::handleInitialized()");
  BRISKLOG("MfibDirSm", "handleInitialized, Initializing... ");
  if (!mfibDir_) return;
  // handleMfibDir may make a reactor that edits nothing here, but a
  // notifiee of the mounts may edit the directory: walk a copy of the names.
  std::vector<Kiv::Name> names;
  for (auto const& [name, entity] : *mfibDir_) names.push_back(name);
  for (Kiv::Name const& name : names) handleMfibDir(name);
  initialized_ = true;
  for (auto const& [name, entity] : *mfibDir_) {
    if (!entity) continue;
    mfibAppDirIs(Kiv::ptrCast<MfibDir const>(Kiv::Ptr<Kiv::Entity const>(entity)));
  }
}

void MfibDirSm::handleMfibDir(Kiv::Name const& name) {
  KIV_TRACE(th, 9,
            "void Vorn::Multicast::Fib::MfibDirSm::handleMfibDir(Kiv::Name)"
                << "( " << name << " )");
  Kiv::Ptr<MfibDir const> appDir = Kiv::ptrCast<MfibDir const>(Kiv::Ptr<Kiv::Entity const>(mfibDir_->entity(name)));
  if (appDir) {
    KIV_TRACE(th, 8, "Created Mfib directory " << name);
    BRISKLOG("MfibDirSm", "handleMfibDir, created mfib directory %s containing %u VRFs", name,
             static_cast<unsigned>(appDir->dirColls()));
    std::vector<L3::VrfName> vrfs;
    for (auto const& [vrf, coll] : appDir->dirCollMap()) vrfs.push_back(vrf);
    for (L3::VrfName const& vrf : vrfs) handleMountPoint(name, vrf);
    mfibAppDirIs(appDir);
  } else {
    KIV_TRACE(th, 8, "Deleted Mfib directory " << name);
    mfibAppDirDel(name);
  }
}

void MfibDirSm::handleMountPoint(Kiv::Name const& name, L3::VrfName const& vrf) {
  KIV_TRACE(th, 9,
            "void Vorn::Multicast::Fib::MfibDirSm::handleMountPoint(Kiv::Name, L3::VrfName)"
                << " App: " << name << " Vrf: " << vrf);
  KIV_ASSERT(name && "Need a valid name supplied");
  Kiv::Ptr<MfibDir const> appDir = Kiv::ptrCast<MfibDir const>(Kiv::Ptr<Kiv::Entity const>(mfibDir_->entity(name)));
  KIV_ASSERT(appDir);
  Kiv::Ptr<MfibDirColl const> coll = appDir->dirColl(vrf);
  if (!coll) return;  // withdrawn meanwhile; its reactor's handleDel follows
  std::string const url = coll->vornUrl();
  if (url.empty()) {
    KIV_TRACE(th, 4, "Ignoring Vorn URL " << url << " of size 0");
    return;
  }
  KIV_TRACE(th, 4, "Mounting " << url << " Mfib vorn table for VRF " << vrf);
  BRISKLOG("MfibDirSm", "handleMountPoint Mounting %s Mfib vorn table for VRF %s", url, vrf.view());
  KivVorn::Mount mount(entityManager_);
  mount.doMount(url, mfibTypeName, KivVorn::MountInfo(KivVorn::MountInfo::mfibReader));
  Kiv::Ptr<MfibVornColl> vornColl = mfibVornDir_->vornCollIs(vrf);
  Kiv::Ptr<Status> table = Kiv::ptrCast<Status>(mount.getEntity(url));
  std::string const bitMapperUrl = coll->bitMapperVornUrl();
  KIV_TRACE(th, 4,
            "handleMountPoint"
                << " bitMapperUrl " << bitMapperUrl);
  if (!bitMapperUrl.empty()) {
    mount.doMount(bitMapperUrl, bitMapperTypeName, KivVorn::MountInfo(KivVorn::MountInfo::reader));
    Kiv::Ptr<BitMapper::VornStatus> bitMapper = Kiv::ptrCast<BitMapper::VornStatus>(mount.getEntity(bitMapperUrl));
    KIV_TRACE(th, 4,
              "handleMountPoint"
                  << " bitMapper " << bitMapperUrl << " ptr: " << static_cast<void const*>(bitMapper.ptr()));
    BRISKLOG("MfibDirSm", "handleMountPoint Mounting %s Bitmapper vorn table for VRF %s", bitMapperUrl, vrf.view());
    if (table) table->bitMapperVornStatusIs(bitMapper);
  }
  if (table) vornColl->vornPtrIs(table.ptr(), table);
}

// ---- KivMfibDir

void MfibDirSm::KivMfibDir::onEntityPtr(Kiv::Name name) { owner_->handleMfibDir(name); }

// ---- KivAppDir

MfibDirSm::KivAppDir::KivAppDir(Kiv::Ptr<MfibDir const> const& appDir, MfibDirSm* owner)
    : MfibDir::NotifieeConst(appDir), owner_(owner) {
  for (auto const& [vrf, coll] : appDir->dirCollMap())
    mfibCollIs(vrf, new KivMfibColl(coll, appDir->name(), vrf, owner_));
}

MfibDirSm::KivAppDir::~KivAppDir() { kivDoZombieReactors(true); }

void MfibDirSm::KivAppDir::kivDoZombieReactors(bool zombie) {
  MfibDir::NotifieeConst::kivDoZombieReactors(zombie);
  for (auto const& [vrf, r] : mfibColl_) r->kivDoZombieReactors(zombie);
}

void MfibDirSm::KivAppDir::hasNotificationActiveIs(bool active) {
  MfibDir::NotifieeConst::hasNotificationActiveIs(active);
  for (auto const& [vrf, r] : mfibColl_) r->hasNotificationActiveIs(active);
}

Kiv::Ptr<MfibDirSm::KivAppDir::KivMfibColl> MfibDirSm::KivAppDir::mfibColl(L3::VrfName const& vrf) const {
  auto it = mfibColl_.find(vrf);
  return it == mfibColl_.end() ? nullptr : it->second;
}

void MfibDirSm::KivAppDir::mfibCollIs(L3::VrfName const& vrf, Kiv::Ptr<KivMfibColl> const& reactor) {
  if (!reactor) throw Kiv::nullParameter("_mfibColl", "Vorn::Multicast::Fib::MfibDirSm::KivAppDir::mfibColl");
  auto it = mfibColl_.find(vrf);
  if (it != mfibColl_.end()) {
    if (it->second == reactor) return;
    it->second->kivDoZombieReactors(true);
    it->second = reactor;
    return;
  }
  mfibColl_.emplace(vrf, reactor);
}

Kiv::Ptr<MfibDirSm::KivAppDir::KivMfibColl> MfibDirSm::KivAppDir::mfibCollDel(L3::VrfName const& vrf) {
  Kiv::Ptr<KivMfibColl> old = Kiv::entryTake(mfibColl_, vrf);
  if (old) old->kivDoZombieReactors(true);
  return old;
}

void MfibDirSm::KivAppDir::onDirColl(L3::VrfName vrf) {
  Kiv::Ptr<MfibDir const> appDir = notifier();
  Kiv::Ptr<MfibDirColl> coll = appDir->dirColl(vrf);
  Kiv::Ptr<KivMfibColl> reactor = mfibColl(vrf);
  if (coll) {
    if (!reactor || reactor->notifier() != coll) mfibCollIs(vrf, new KivMfibColl(coll, appDir->name(), vrf, owner_));
    return;
  }
  if (!reactor) return;
  reactor->handleDel();
  mfibCollDel(vrf);
}

// ---- KivMfibColl

void MfibDirSm::KivAppDir::KivMfibColl::onVornUrl() { owner_->handleMountPoint(appName_, vrf_); }

void MfibDirSm::KivAppDir::KivMfibColl::onBitMapperVornUrl() { owner_->handleMountPoint(appName_, vrf_); }

void MfibDirSm::KivAppDir::KivMfibColl::handleDel() {
  KIV_TRACE(th, 9,
            "void Vorn::Multicast::Fib::MfibDirSm::KivAppDir::KivMfibColl::handleDel()"
                << "( " << vrf_ << " )"
                << " for app " << appName_);
  std::string const url = notifier()->vornUrl();
  KIV_TRACE(th, 4, "UnMounting " << url << " Mfib vorn table for VRF " << vrf_);
  KivVorn::Mount mount(owner_->entityManager());
  Kiv::Ptr<MfibVornDir> const& vornDir = owner_->mfibVornDir();
  Kiv::Ptr<MfibVornColl> vornColl = vornDir->vornColl(vrf_);
  Kiv::Ptr<Status> table = url.empty() ? nullptr : Kiv::ptrCast<Status>(mount.getEntity(url));
  if (vornColl && table) vornColl->vornPtrDel(table.ptr());
  if (!url.empty()) mount.doUnmount(url);
  if (vornColl && vornColl->vornPtrs() == 0) vornDir->vornCollDel(vrf_);
}

Kiv::Ptr<MfibDirSm> mfibDirSmFactory(Kiv::Ptr<Kiv::Dir const> const& mfibDir, Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                     Kiv::Ptr<Stelo::EntityManager> const& entityManager) {
  return MfibDirSm::MfibDirSmIs(mfibDir, mfibVornDir, entityManager);
}

}  // namespace Vorn::Multicast::Fib
