// Best-route selection over the MFIB tables of several applications.
//
// MfibVornColl: the MFIB tables (one per application) mounted for one VRF,
// and the queries that pick, for one route key, the table holding the best
// route: the route of strictly greatest priority; on equal priorities the
// table met first in the collection's iteration order; a route of priority
// 0 is never selected. The collection iterates its tables in the order they
// were entered (a table replaced under its key keeps its place), so the
// winner of a tie is the table entered first, the same in every run.
//
// OrderRouteSm keeps a RouteOrderedCollection equal to the best-route choice
// of a whole collection as tables come and go and routes change;
// ModalOrderRouteSm keeps a ModalRouteOrderedCollection listing the keys of
// one table. MfibVornDir holds one collection per VRF; VrfStatus one table
// per VRF.
//
// A table that raises Pelto::CorruptionDetectedException during a lookup or
// a walk hears of it through its corruptionDetected hook and counts as not
// holding the route; nothing is raised to the caller.
//
//   auto coll = mfibVornCollFactory(L3::VrfName("default"));
//   coll->vornPtrIs(table.ptr(), table);          // what the directory does
//   auto ordered = RouteOrderedCollection::create();
//   auto sm = orderRouteSmFactory(coll, ordered); // ordered now holds the best choice
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kiv/Dir.h"
#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"
#include "Mfib/MfibDir.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Schema/Mfib/RouteOrderedCollection.h"
#include "Schema/VrfName.h"
#include "Stelo/EntityManager.h"

namespace Vorn::Multicast::Fib {

// The tables of a collection by key, iterated in the order they were
// entered. A collection holds one table per application, a handful, so a
// vector searched from the front beats any hashed map and keeps the order.
class VornPtrList {
 public:
  using key_type = Status const*;
  using mapped_type = Kiv::Ptr<Status const>;
  using value_type = std::pair<key_type, mapped_type>;
  using iterator = std::vector<value_type>::iterator;
  using const_iterator = std::vector<value_type>::const_iterator;

  iterator begin() { return entries_.begin(); }
  iterator end() { return entries_.end(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  iterator find(key_type k) {
    return std::find_if(begin(), end(), [k](value_type const& e) { return e.first == k; });
  }
  const_iterator find(key_type k) const {
    return std::find_if(begin(), end(), [k](value_type const& e) { return e.first == k; });
  }
  void emplace(key_type k, mapped_type const& v) { entries_.emplace_back(k, v); }
  void erase(iterator it) { entries_.erase(it); }

 private:
  std::vector<value_type> entries_;
};

class MfibVornColl : public Kiv::Entity {
 public:
  using VornPtrMap = VornPtrList;

  class NotifieeConst : public Kiv::NotifieeConstBase<MfibVornColl> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onVornPtr(Status const*) {}
    virtual void onVornPtrkivImmediate() {}
  };

  static Kiv::Ptr<MfibVornColl> MfibVornCollIs(L3::VrfName const& vrfName) { return new MfibVornColl(vrfName); }
  KIV_REFLECT_BEGIN(MfibVornColl, "Vorn::Multicast::Fib::MfibVornColl")

  L3::VrfName const& vrfName() const { return vrfName_; }
  KIV_REFLECT_SCALAR_RO(vrfName)

  Kiv::Ptr<Status const> vornPtr(Status const* key) const;
  // Adds, replaces, or (value null) removes; notifies only a real change.
  // A null key raises Kiv::RangeException.
  void vornPtrIs(Status const* key, Kiv::Ptr<Status const> const& value);
  // Returns the removed table, or null (and no notification).
  Kiv::Ptr<Status const> vornPtrDel(Status const* key);
  void vornPtrDelAll();
  void vornPtrNotify(Status const* key) const { notify(&NotifieeConst::onVornPtr, key); }
  std::size_t vornPtrs() const { return vornPtr_.size(); }
  // The tables in the order they were entered.
  VornPtrMap const& vornPtrMap() const { return vornPtr_; }
  KIV_REFLECT_COLLECTION(vornPtr, Status const*, vornPtrs(), vornPtr_)
  KIV_REFLECT_END

  // Positions the merge iterator yields (every (table, key) whose route no
  // other table beats), counted by walking one.
  std::uint32_t routes() const;
  // The table holding the best route for key, or null.
  Status const* vornKey(IpGenRouteKey const& key) const;
  Kiv::Ptr<Status const> mfibVorn(IpGenRouteKey const& key) const;
  bool isBestRoute(Status const* table, IpGenRouteKey const& key) const { return vornKey(key) == table; }
  // The best table for key among all but `exclude`, or null.
  Kiv::Ptr<Status const> nextBestVorn(Status const* exclude, IpGenRouteKey const& key) const;
  // A copy of the best route for key, or Route() when no table has one.
  Route route(IpGenRouteKey const& key) const;

 private:
  explicit MfibVornColl(L3::VrfName const& vrfName) : Kiv::Entity(vrfName.str()), vrfName_(vrfName) {}
  VornPtrMap::const_iterator best(IpGenRouteKey const& key, Status const* exclude, Route* bestRoute) const;

  L3::VrfName const vrfName_;
  VornPtrMap vornPtr_;
};

// A table's lookup that never raises: corruption goes to the table's hook
// and reads as the absent route.
Route safeRoute(Status const& table, IpGenRouteKey const& key);

// Names one route in one table of a collection.
class MfibVornDirRouteKey {
 public:
  MfibVornDirRouteKey() = default;
  MfibVornDirRouteKey(Status const* vornKey, IpGenRouteKey const& routeKey) : vornKey_(vornKey), routeKey_(routeKey) {}
  // Reads the text form back; Kiv::ParseException when it is not one.
  explicit MfibVornDirRouteKey(std::string_view text);

  Status const* vornKey() const { return vornKey_; }
  IpGenRouteKey const& routeKey() const { return routeKey_; }

  std::uint64_t hash() const;
  std::string pretty() const;
  std::string valueToStrep() const;
  static MfibVornDirRouteKey fromStrep(std::string_view text) { return MfibVornDirRouteKey(text); }

  friend bool operator==(MfibVornDirRouteKey const&, MfibVornDirRouteKey const&) = default;
  friend bool operator<(MfibVornDirRouteKey const& a, MfibVornDirRouteKey const& b) {
    auto const x = reinterpret_cast<std::uintptr_t>(a.vornKey_), y = reinterpret_cast<std::uintptr_t>(b.vornKey_);
    if (x != y) return x < y;
    return a.routeKey_ < b.routeKey_;
  }

 private:
  Status const* vornKey_ = nullptr;
  IpGenRouteKey routeKey_;
};
std::ostream& operator<<(std::ostream& os, MfibVornDirRouteKey const& k);

class OrderRouteSm : public Kiv::Entity {
 public:
  class KivVornColl : public Kiv::PtrInterface, public MfibVornColl::NotifieeConst {
   public:
    KivVornColl(Kiv::Ptr<MfibVornColl const> const& coll, OrderRouteSm* owner)
        : MfibVornColl::NotifieeConst(coll), owner_(owner) {}
    void onVornPtr(Status const* key) override;
    void onVornPtrkivImmediate() override;

   private:
    OrderRouteSm* owner_;
  };

  class KivMfibVorn : public Kiv::PtrInterface, public Status::NotifieeConst {
   public:
    KivMfibVorn(Kiv::Ptr<Status const> const& table, Status const* key, OrderRouteSm* owner)
        : Status::NotifieeConst(table), key_(key), owner_(owner) {}
    Status const* key() const { return key_; }
    void onRoute(IpGenRouteKey key) override { handleRouteChanged(key); }
    void onRoutekivImmediate() override {}
    void handleInitialize();
    void handleRouteChanged(IpGenRouteKey const& key);

   private:
    Status const* key_;
    OrderRouteSm* owner_;
  };

  static Kiv::Ptr<OrderRouteSm> OrderRouteSmIs(Kiv::Ptr<MfibVornColl const> const& vornColl,
                                               Kiv::Ptr<RouteOrderedCollection> const& routeOrdered);
  ~OrderRouteSm() override;
  KIV_REFLECT_BEGIN(OrderRouteSm, "Vorn::Multicast::Fib::OrderRouteSm")

  Kiv::Ptr<MfibVornColl const> const& vornColl() const { return vornColl_; }
  // Watches another collection (null: none) and brings the table reactors
  // in line with it.
  void vornCollIs(Kiv::Ptr<MfibVornColl const> const& coll);
  // Stops watching the collection and returns it; the table reactors stay.
  Kiv::Ptr<MfibVornColl const> vornCollDel();
  KIV_REFLECT_SCALAR(vornColl)
  Kiv::Ptr<RouteOrderedCollection> const& routeOrdered() const { return routeOrdered_; }
  KIV_REFLECT_SCALAR_RO(routeOrdered)

  bool initialized() const { return initialized_; }
  void initializedIs(bool b) { initialized_ = b; }
  KIV_REFLECT_SCALAR(initialized)

  KivMfibVorn* mfibVorn(Status const* key) const;
  std::size_t mfibVorns() const { return mfibVorn_.size(); }
  void mfibVornIs(Status const* key, Kiv::Ptr<Status const> const& table);
  Kiv::Ptr<Status const> mfibVornDel(Status const* key);
  void mfibVornDelAll();
  KIV_REFLECT_COLLECTION_RO(mfibVorn, Status const*, mfibVorns(), mfibVorn_)

  // The initial pass: fills the output from a walk of the merge iterator.
  void handleInitialized();
  KIV_REFLECT_OPERATION(handleInitialized)
  KIV_REFLECT_END

  void kivDoZombieReactors(bool zombie) override;
  void hasNotificationActiveIs(bool active) override;

 private:
  OrderRouteSm(Kiv::Ptr<MfibVornColl const> const& vornColl, Kiv::Ptr<RouteOrderedCollection> const& routeOrdered);

  Kiv::Ptr<MfibVornColl const> vornColl_;
  Kiv::Ptr<RouteOrderedCollection> routeOrdered_;
  bool initialized_ = false;
  std::map<Status const*, Kiv::Ptr<KivMfibVorn>> mfibVorn_;
  Kiv::Ptr<KivVornColl> kivVornColl_;
};

class ModalOrderRouteSm : public Kiv::Entity {
 public:
  class KivMfibVorn : public Kiv::PtrInterface, public Status::NotifieeConst {
   public:
    KivMfibVorn(Kiv::Ptr<Status const> const& table, ModalOrderRouteSm* owner)
        : Status::NotifieeConst(table), owner_(owner) {}
    void onRoute(IpGenRouteKey key) override { owner_->handleRouteChanged(key); }

   private:
    ModalOrderRouteSm* owner_;
  };

  static Kiv::Ptr<ModalOrderRouteSm> ModalOrderRouteSmIs(Kiv::Ptr<Status const> const& mfibVorn,
                                                         Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered);
  ~ModalOrderRouteSm() override;
  KIV_REFLECT_BEGIN(ModalOrderRouteSm, "Vorn::Multicast::Fib::ModalOrderRouteSm")

  Kiv::Ptr<Status const> const& mfibVorn() const { return mfibVorn_; }
  void mfibVornIs(Kiv::Ptr<Status const> const& table);
  Kiv::Ptr<Status const> mfibVornDel();
  KIV_REFLECT_SCALAR(mfibVorn)
  Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered() const { return routeOrdered_; }
  KIV_REFLECT_SCALAR_RO(routeOrdered)

  bool initialized() const { return initialized_; }
  void initializedIs(bool b) { initialized_ = b; }
  KIV_REFLECT_SCALAR(initialized)
  void handleRouteChanged(IpGenRouteKey const& key);
  KIV_REFLECT_OPERATION(handleRouteChanged)
  KIV_REFLECT_OPERATION(initializedIs)
  // Lists every key of the table; until it runs, changes are dropped.
  void handleInitialized();
  KIV_REFLECT_OPERATION(handleInitialized)
  KIV_REFLECT_END

  void kivDoZombieReactors(bool zombie) override;
  void hasNotificationActiveIs(bool active) override;

 private:
  ModalOrderRouteSm(Kiv::Ptr<Status const> const& mfibVorn, Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered);

  Kiv::Ptr<Status const> mfibVorn_;
  Kiv::Ptr<ModalRouteOrderedCollection> routeOrdered_;
  bool initialized_ = false;
  Kiv::Ptr<KivMfibVorn> kivMfibVorn_;
};

class MfibVornDir : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<MfibVornDir> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onVornColl(L3::VrfName) {}
    virtual void onVornColl() {}
    virtual void onVornCollkivImmediate() {}
  };

  static Kiv::Ptr<MfibVornDir> MfibVornDirIs() { return new MfibVornDir(); }
  KIV_REFLECT_BEGIN(MfibVornDir, "Vorn::Multicast::Fib::MfibVornDir")

  Kiv::Ptr<MfibVornColl> vornColl(L3::VrfName const& vrf) const;
  // The VRF's collection, created (and announced) when there is none.
  Kiv::Ptr<MfibVornColl> vornCollIs(L3::VrfName const& vrf);
  Kiv::Ptr<MfibVornColl> vornCollDel(L3::VrfName const& vrf);
  void vornCollDelAll();
  void vornCollNotify(L3::VrfName const& vrf) const;
  std::size_t vornColls() const { return vornColl_.size(); }
  std::unordered_map<L3::VrfName, Kiv::Ptr<MfibVornColl>> const& vornCollMap() const { return vornColl_; }
  KIV_REFLECT_COLLECTION_BY_KEY(vornColl, L3::VrfName, vornColls(), vornColl_)
  KIV_REFLECT_END

 private:
  MfibVornDir() = default;
  std::unordered_map<L3::VrfName, Kiv::Ptr<MfibVornColl>> vornColl_;
};

// One table per VRF. It announces nothing itself: users watch the tables.
class VrfStatus : public Kiv::Entity {
 public:
  class KivStatus : public Kiv::PtrInterface, public Status::NotifieeConst {
   public:
    using Status::NotifieeConst::NotifieeConst;
  };

  static Kiv::Ptr<VrfStatus> VrfStatusIs() { return new VrfStatus(); }
  KIV_REFLECT_BEGIN(VrfStatus, "Vorn::Multicast::Fib::VrfStatus")

  Kiv::Ptr<Status> status(L3::VrfName const& vrf) const;
  void statusIs(L3::VrfName const& vrf, Kiv::Ptr<Status> const& status);
  Kiv::Ptr<Status> statusDel(L3::VrfName const& vrf);
  void statusDelAll();
  void statusNotify(L3::VrfName const&) const {}
  std::size_t statuses() const { return status_.size(); }
  KIV_REFLECT_COLLECTION(status, L3::VrfName, statuses(), status_)
  KIV_REFLECT_END

 private:
  VrfStatus() = default;
  std::unordered_map<L3::VrfName, Kiv::Ptr<Status>> status_;
};

// MfibDirWriter: the publishing side of the MFIB directory. An application
// creates (mounts for writing) one MFIB table per VRF, and a bit mapper
// table when its outgoing interfaces are bit indices, announces their URLs
// in its MfibDir entry of the MFIB directory and takes them back; its own
// tables also go into its local MfibVornDir, so it reads them through the
// same collections as everybody else's.
//
//   auto w = mfibDirWriterFactory("pim", mfibDir, mfibVornDir, entityManager);
//   Kiv::Ptr<Status> red = w->doAddVorn("red", "mfib/red/pim");   // table first, then the URL
//   red->routePublish(route);
//   w->doDelVorn("red", "mfib/red/pim");                          // withdrawn, unmounted, file removed
//
// The factory creates the application's entry and the default VRF's
// announcement (with empty URLs), which lives as long as the entry: deleting
// the default VRF's table leaves it. Announcing comes after creating, so a
// reader that reacts to the URL finds the table. An empty URL for doAddVorn
// is a broken invariant (assertion "vornUrl.size()"); a table that cannot be
// mounted makes the add operations return null and announce nothing.
class MfibDirWriter : public Kiv::Entity {
 public:
  static Kiv::Ptr<MfibDirWriter> MfibDirWriterIs(Kiv::String const& appName, Kiv::Ptr<Kiv::Dir> const& mfibDir,
                                                 Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                                 Kiv::Ptr<Stelo::EntityManager> const& entityManager);
  // By name: its four arguments and initialized (read-only), then the
  // operations, each invocable with its arguments in text form
  // (doAddVorn 'red', 'mfib/red/pim').
  KIV_REFLECT_BEGIN(MfibDirWriter, "Vorn::Multicast::Fib::MfibDirWriter")

  Kiv::String const& appName() const { return appName_; }
  KIV_REFLECT_SCALAR_RO(appName)
  Kiv::Ptr<Kiv::Dir> const& mfibDir() const { return mfibDir_; }
  KIV_REFLECT_SCALAR_RO(mfibDir)
  Kiv::Ptr<MfibVornDir> const& mfibVornDir() const { return mfibVornDir_; }
  KIV_REFLECT_SCALAR_RO(mfibVornDir)
  Kiv::Ptr<Stelo::EntityManager> const& entityManager() const { return entityManager_; }
  KIV_REFLECT_SCALAR_RO(entityManager)
  bool initialized() const { return initialized_; }
  KIV_REFLECT_SCALAR_RO(initialized)
  // The application's entry in the MFIB directory, or null.
  Kiv::Ptr<MfibDir> appDir() const;

  void handleInitialized();
  KIV_REFLECT_OPERATION(handleInitialized)

  // The MFIB table mounted under url, or null; mounts nothing.
  Kiv::Ptr<Status> mfibVorn(Kiv::String const& url) const;
  KIV_REFLECT_OPERATION(mfibVorn)
  Kiv::Ptr<Status> doAddVorn(L3::VrfName const& vrf, Kiv::String const& url);
  KIV_REFLECT_OPERATION(doAddVorn)
  void doDelVorn(L3::VrfName const& vrf, Kiv::String const& url);
  KIV_REFLECT_OPERATION(doDelVorn)
  Kiv::Ptr<BitMapper::VornStatus> mfibBitMapperVorn(Kiv::String const& url) const;
  KIV_REFLECT_OPERATION(mfibBitMapperVorn)
  Kiv::Ptr<BitMapper::VornStatus> doAddBitMapperVorn(L3::VrfName const& vrf, Kiv::String const& url);
  KIV_REFLECT_OPERATION(doAddBitMapperVorn)
  void doDelBitMapperVorn(L3::VrfName const& vrf, Kiv::String const& url);
  KIV_REFLECT_OPERATION(doDelBitMapperVorn)
  KIV_REFLECT_END

 private:
  MfibDirWriter(Kiv::String const& appName, Kiv::Ptr<Kiv::Dir> const& mfibDir, Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                Kiv::Ptr<Stelo::EntityManager> const& entityManager)
      : Kiv::Entity(appName),
        appName_(appName),
        mfibDir_(mfibDir),
        mfibVornDir_(mfibVornDir),
        entityManager_(entityManager) {}

  Kiv::String const appName_;
  Kiv::Ptr<Kiv::Dir> mfibDir_;
  Kiv::Ptr<MfibVornDir> mfibVornDir_;
  Kiv::Ptr<Stelo::EntityManager> entityManager_;
  bool initialized_ = false;
};

Kiv::Ptr<MfibVornColl> mfibVornCollFactory(L3::VrfName const& vrfName);
Kiv::Ptr<MfibVornDir> mfibVornDirFactory();
Kiv::Ptr<VrfStatus> vrfStatusFactory();
Kiv::Ptr<OrderRouteSm> orderRouteSmFactory(Kiv::Ptr<MfibVornColl const> const& vornColl,
                                           Kiv::Ptr<RouteOrderedCollection> const& routeOrdered);
Kiv::Ptr<ModalOrderRouteSm> modalOrderRouteSmFactory(Kiv::Ptr<Status const> const& mfibVorn,
                                                     Kiv::Ptr<ModalRouteOrderedCollection> const& routeOrdered);
Kiv::Ptr<MfibDirWriter> mfibDirWriterFactory(Kiv::String const& appName, Kiv::Ptr<Kiv::Dir> const& mfibDir,
                                             Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                             Kiv::Ptr<Stelo::EntityManager> const& entityManager);

}  // namespace Vorn::Multicast::Fib
