// Helpers for the MFIB directory tests: a private table root with entity
// managers on it, and a recorder that writes down, in order, everything a
// directory announces (applications, VRFs, URLs).
#pragma once

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Kiv/Dir.h"
#include "Mfib/MfibDir.h"
#include "Mfib/MfibDirSm.h"
#include "MfibTestUtil.h"
#include "Stelo/Mount.h"

namespace MfibTest {

// Everything a directory says, as lines such as "+app pim", "pim +vrf red",
// "pim/red vornUrl mfib/red/pim", "pim -vrf red", "-app pim".
class DirRecorder : public Kiv::Dir::NotifieeConst {
 public:
  class AppRecorder : public Kiv::PtrInterface, public MfibDir::NotifieeConst {
   public:
    AppRecorder(Kiv::Ptr<MfibDir const> const& d, DirRecorder* owner) : MfibDir::NotifieeConst(d), owner_(owner) {
      for (auto const& [vrf, coll] : d->dirCollMap()) watch(vrf, coll);
    }
    void onDirColl(L3::VrfName vrf) override {
      std::string const app = notifier()->name().str();
      if (auto coll = notifier()->dirColl(vrf)) {
        owner_->events.push_back(app + " +vrf " + vrf.str());
        watch(vrf, coll);
      } else {
        owner_->events.push_back(app + " -vrf " + vrf.str());
        colls_.erase(vrf);
      }
    }

   private:
    class CollRecorder : public Kiv::PtrInterface, public MfibDirColl::NotifieeConst {
     public:
      CollRecorder(Kiv::Ptr<MfibDirColl const> const& c, std::string prefix, DirRecorder* owner)
          : MfibDirColl::NotifieeConst(c), prefix_(std::move(prefix)), owner_(owner) {}
      void onVornUrl() override { owner_->events.push_back(prefix_ + " vornUrl " + notifier()->vornUrl()); }
      void onBitMapperVornUrl() override {
        owner_->events.push_back(prefix_ + " bitMapperVornUrl " + notifier()->bitMapperVornUrl());
      }

     private:
      std::string prefix_;
      DirRecorder* owner_;
    };
    void watch(L3::VrfName const& vrf, Kiv::Ptr<MfibDirColl const> const& coll) {
      colls_[vrf] = new CollRecorder(coll, notifier()->name().str() + "/" + vrf.str(), owner_);
    }
    DirRecorder* owner_;
    std::map<L3::VrfName, Kiv::Ptr<CollRecorder>> colls_;
  };

  explicit DirRecorder(Kiv::Ptr<Kiv::Dir> const& dir) : Kiv::Dir::NotifieeConst(dir) {
    for (auto const& [name, e] : *dir) watch(name);
  }
  void onEntityPtr(Kiv::Name name) override {
    if (notifier()->entity(name)) {
      events.push_back("+app " + name.str());
      watch(name);
    } else {
      events.push_back("-app " + name.str());
      apps_.erase(name);
    }
  }
  std::vector<std::string> take() { return std::exchange(events, {}); }

  std::vector<std::string> events;

 private:
  void watch(Kiv::Name const& name) {
    if (auto d = Kiv::ptrCast<MfibDir const>(Kiv::Ptr<Kiv::Entity const>(notifier()->entity(name))))
      apps_[name] = new AppRecorder(d, this);
  }
  std::map<Kiv::Name, Kiv::Ptr<AppRecorder>> apps_;
};

// The whole directory as one line per VRF, for comparing two of them.
inline std::string snapshot(Kiv::Dir const& dir) {
  std::ostringstream os;
  for (auto const& [name, e] : dir) {
    os << name << ":";
    if (auto d = Kiv::ptrCast<MfibDir const>(Kiv::Ptr<Kiv::Entity const>(e))) {
      for (auto const& [vrf, c] : d->dirCollMap())
        os << " " << vrf << "=" << c->vornUrl() << "," << c->bitMapperVornUrl();
    }
    os << ";";
  }
  return os.str();
}

}  // namespace MfibTest
