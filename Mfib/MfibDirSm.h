// MfibDirSm: the reading side of the MFIB directory. It watches a directory
// of MfibDir entries (one per application) and, for every application and
// VRF, mounts the announced MFIB table and, when one is announced, the
// application's bit mapper table, stores the bit mapper table in the MFIB
// table's bitMapperVornStatus, and enters the MFIB table into the VRF's
// MfibVornColl inside an MfibVornDir (creating the collection on the way).
// A withdrawn VRF leaves its collection (an emptied collection leaves the
// MfibVornDir) and its MFIB table is unmounted; its bit mapper table stays
// mounted.
//
//   auto vornDir = mfibVornDirFactory();
//   auto sm = mfibDirSmFactory(dir, vornDir, entityManager);   // mounts what is announced now
//   // later: vornDir->vornColl("red") holds every application's table for VRF red
//
// A changed URL mounts the new table and enters it; the table of the old
// URL stays (in the collection and mounted) until the VRF is withdrawn.
// Announcements with an empty MFIB URL are skipped; a table that cannot be
// mounted is simply not entered. A directory entry that is not an MfibDir
// counts as absent, except at start, where it makes the factory raise the
// null-argument range exception of mfibAppDir. Mounting for an application
// without a directory is a broken invariant (assertion "appDir").
//
// Everything runs synchronously with the directory's notifications, on the
// owner's event loop. Traces: "Mroute::MfibVorn"; ring-buffer source
// "MfibDirSm".
#pragma once

#include <map>
#include <string_view>

#include "Kiv/Dir.h"
#include "Kiv/Entity.h"
#include "Mfib/MfibDir.h"
#include "Mfib/MfibVorn.h"
#include "Stelo/EntityManager.h"

namespace Vorn::Multicast::Fib {

class MfibDirSm : public Kiv::Entity {
 public:
  // Watches the MFIB directory.
  class KivMfibDir : public Kiv::PtrInterface, public Kiv::Dir::NotifieeConst {
   public:
    KivMfibDir(Kiv::Ptr<Kiv::Dir const> const& dir, MfibDirSm* owner) : Kiv::Dir::NotifieeConst(dir), owner_(owner) {}
    void onEntityPtr(Kiv::Name name) override;

   private:
    MfibDirSm* owner_;
  };

  // Watches one application's directory and holds one KivMfibColl per VRF.
  class KivAppDir : public Kiv::PtrInterface, public MfibDir::NotifieeConst {
   public:
    // Watches one VRF's announcement.
    class KivMfibColl : public Kiv::PtrInterface, public MfibDirColl::NotifieeConst {
     public:
      KivMfibColl(Kiv::Ptr<MfibDirColl const> const& coll, Kiv::Name const& appName, L3::VrfName const& vrf,
                  MfibDirSm* owner)
          : MfibDirColl::NotifieeConst(coll), appName_(appName), vrf_(vrf), owner_(owner) {}
      Kiv::Name const& appName() const { return appName_; }
      L3::VrfName const& vrf() const { return vrf_; }
      void onVornUrl() override;
      void onBitMapperVornUrl() override;
      // The application withdrew the VRF.
      void handleDel();

     private:
      Kiv::Name const appName_;
      L3::VrfName const vrf_;
      MfibDirSm* owner_;
    };

    KivAppDir(Kiv::Ptr<MfibDir const> const& appDir, MfibDirSm* owner);
    ~KivAppDir() override;
    void onDirColl(L3::VrfName vrf) override;

    Kiv::Ptr<KivMfibColl> mfibColl(L3::VrfName const& vrf) const;
    // A null reactor raises Kiv::RangeException.
    void mfibCollIs(L3::VrfName const& vrf, Kiv::Ptr<KivMfibColl> const& reactor);
    Kiv::Ptr<KivMfibColl> mfibCollDel(L3::VrfName const& vrf);
    std::size_t mfibColls() const { return mfibColl_.size(); }

    void kivDoZombieReactors(bool zombie) override;
    void hasNotificationActiveIs(bool active) override;

   private:
    MfibDirSm* owner_;
    std::map<L3::VrfName, Kiv::Ptr<KivMfibColl>> mfibColl_;
  };

  static Kiv::Ptr<MfibDirSm> MfibDirSmIs(Kiv::Ptr<Kiv::Dir const> const& mfibDir,
                                         Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                         Kiv::Ptr<Stelo::EntityManager> const& entityManager);
  ~MfibDirSm() override;
  KIV_REFLECT_BEGIN(MfibDirSm, "Vorn::Multicast::Fib::MfibDirSm")

  Kiv::Ptr<Kiv::Dir const> const& mfibDir() const { return mfibDir_; }
  KIV_REFLECT_SCALAR_RO(mfibDir)
  Kiv::Ptr<MfibVornDir> const& mfibVornDir() const { return mfibVornDir_; }
  KIV_REFLECT_SCALAR_RO(mfibVornDir)
  Kiv::Ptr<Stelo::EntityManager> const& entityManager() const { return entityManager_; }
  KIV_REFLECT_SCALAR_RO(entityManager)

  // Application directories seen, by application name (the entity's name).
  Kiv::Ptr<MfibDir const> mfibAppDir(Kiv::Name const& name) const;
  // Adds the directory and its KivAppDir reactor (an existing one is kept);
  // a null directory raises Kiv::RangeException.
  void mfibAppDirIs(Kiv::Ptr<MfibDir const> const& appDir);
  // Removes the directory and its reactor.
  void mfibAppDirDel(Kiv::Name const& name);
  std::size_t mfibAppDirs() const { return mfibAppDir_.size(); }
  KIV_REFLECT_COLLECTION_WITH_(mfibAppDir, Kiv::Name, mfibAppDirs(), mfibAppDir_, nullptr,
                               [](MfibDirSm& s, Kiv::Name const& k) { s.mfibAppDirDel(k); })

  Kiv::Ptr<KivAppDir> appDir(Kiv::Name const& name) const;
  void appDirIs(Kiv::Name const& name, Kiv::Ptr<KivAppDir> const& reactor);
  Kiv::Ptr<KivAppDir> appDirDel(Kiv::Name const& name);
  std::size_t appDirs() const { return appDir_.size(); }
  KIV_REFLECT_COLLECTION_RO(appDir, Kiv::Name, appDirs(), appDir_)

  bool initialized() const { return initialized_; }
  KIV_REFLECT_SCALAR_RO(initialized)

  void handleMfibDir(Kiv::Name const& name);
  KIV_REFLECT_OPERATION(handleMfibDir)
  // Mounts one application's tables for one VRF.
  void handleMountPoint(Kiv::Name const& name, L3::VrfName const& vrf);
  KIV_REFLECT_OPERATION(handleMountPoint)
  void handleInitialized();
  KIV_REFLECT_OPERATION(handleInitialized)
  KIV_REFLECT_END

  void kivDoZombieReactors(bool zombie) override;
  void hasNotificationActiveIs(bool active) override;

 private:
  MfibDirSm(Kiv::Ptr<Kiv::Dir const> const& mfibDir, Kiv::Ptr<MfibVornDir> const& mfibVornDir,
            Kiv::Ptr<Stelo::EntityManager> const& entityManager);

  Kiv::Ptr<Kiv::Dir const> mfibDir_;
  Kiv::Ptr<MfibVornDir> mfibVornDir_;
  Kiv::Ptr<Stelo::EntityManager> entityManager_;
  bool initialized_ = false;
  std::map<Kiv::Name, Kiv::Ptr<MfibDir const>> mfibAppDir_;
  std::map<Kiv::Name, Kiv::Ptr<KivAppDir>> appDir_;
  Kiv::Ptr<KivMfibDir> kivMfibDir_;
};

Kiv::Ptr<MfibDirSm> mfibDirSmFactory(Kiv::Ptr<Kiv::Dir const> const& mfibDir, Kiv::Ptr<MfibVornDir> const& mfibVornDir,
                                     Kiv::Ptr<Stelo::EntityManager> const& entityManager);

}  // namespace Vorn::Multicast::Fib
