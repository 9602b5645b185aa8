#include "Mfib/MfibDir.h"

#include <vector>

#include "Kiv/CollectionAttr.h"
#include "Kiv/Dir.h"
#include "Kiv/Trace.h"
#include "Stelo/SharedDir.h"

namespace Vorn::Multicast::Fib {

namespace {
Kiv::TraceHandle th("Mroute::MfibVorn");
}

// ---- MfibDir

Kiv::Ptr<MfibDirColl> MfibDir::dirColl(L3::VrfName const& vrf) const {
  auto it = dirColl_.find(vrf);
  return it == dirColl_.end() ? nullptr : it->second;
}

Kiv::Ptr<MfibDirColl> MfibDir::dirCollIs(L3::VrfName const& vrf) {
  auto it = dirColl_.find(vrf);
  if (it != dirColl_.end()) return it->second;
  Kiv::Ptr<MfibDirColl> coll = MfibDirColl::MfibDirCollIs(vrf);
  dirColl_.emplace(vrf, coll);
  notify(&NotifieeConst::onDirColl, vrf);
  return coll;
}

Kiv::Ptr<MfibDirColl> MfibDir::dirCollDel(L3::VrfName const& vrf) {
  Kiv::Ptr<MfibDirColl> old = Kiv::entryTake(dirColl_, vrf);
  if (old) notify(&NotifieeConst::onDirColl, L3::VrfName(vrf));
  return old;
}

void MfibDir::dirCollDelAll() {
  for (L3::VrfName const& vrf : Kiv::keysOf(dirColl_)) dirCollDel(vrf);
}

std::ostream& operator<<(std::ostream& os, MfibDirRecord const& r) {
  return os << "MfibDirRecord(vrf " << r.vrfName << ", vornUrl '" << r.vornUrl.str() << "', bitMapperVornUrl '"
            << r.bitMapperVornUrl.str() << "')";
}

// ---- sharing an MfibDir through its table

namespace {

MfibDirRecord recordOf(MfibDirColl const& coll) {
  MfibDirRecord r;
  r.vrfName = coll.vrfName();
  r.vornUrl = MfibDirUrl(coll.vornUrl());
  r.bitMapperVornUrl = MfibDirUrl(coll.bitMapperVornUrl());
  return r;
}

void apply(MfibDir& dir, MfibDirRecord const& r) {
  Kiv::Ptr<MfibDirColl> coll = dir.dirCollIs(r.vrfName);
  coll->vornUrlIs(r.vornUrl.str());
  coll->bitMapperVornUrlIs(r.bitMapperVornUrl.str());
}

// Every record of the table; a walk cut short by corruption goes to the
// table's hook and yields what was read.
std::vector<MfibDirRecord> records(MfibDirStatus const& table, bool* intact = nullptr) {
  std::vector<MfibDirRecord> out;
  if (intact) *intact = true;
  auto const& t = table.dirCollTable();
  try {
    Vorn::IterHint hint;
    L3::VrfName vrf;
    MfibDirRecord rec;
    for (bool more = t.first(vrf, rec, hint); more; more = t.next(vrf, vrf, rec, hint)) out.push_back(rec);
  } catch (Pelto::CorruptionDetectedException const& e) {
    t.corruptionDetected(e.what());
    if (intact) *intact = false;
  }
  return out;
}

// Writer side: the entity is the truth; the table follows it.
class DirPublisher : public Kiv::PtrInterface, public MfibDir::NotifieeConst {
 public:
  class CollPublisher : public Kiv::PtrInterface, public MfibDirColl::NotifieeConst {
   public:
    CollPublisher(Kiv::Ptr<MfibDirColl const> const& coll, DirPublisher* owner)
        : MfibDirColl::NotifieeConst(coll), owner_(owner) {}
    void onVornUrl() override { owner_->write(*notifier()); }
    void onBitMapperVornUrl() override { owner_->write(*notifier()); }

   private:
    DirPublisher* owner_;
  };

  DirPublisher(Kiv::Ptr<MfibDir> const& dir, Kiv::Ptr<MfibDirStatus> const& table)
      : MfibDir::NotifieeConst(dir), table_(table) {
    // A table left by an earlier run of this application: what it announced
    // stays announced, so readers see no withdrawal while it starts again.
    for (MfibDirRecord const& r : records(*table_))
      if (!dir->dirColl(r.vrfName)) apply(*dir, r);
    for (auto const& [vrf, coll] : dir->dirCollMap()) track(vrf);
    for (MfibDirRecord const& r : records(*table_))
      if (!dir->dirColl(r.vrfName)) table_->dirCollDel(r.vrfName);
  }
  ~DirPublisher() override {
    for (auto& [vrf, c] : colls_) c->kivDoZombieReactors(true);
  }

  void onDirColl(L3::VrfName vrf) override {
    if (notifier()->dirColl(vrf)) {
      track(vrf);
      return;
    }
    if (auto it = colls_.find(vrf); it != colls_.end()) {
      it->second->kivDoZombieReactors(true);
      colls_.erase(it);
    }
    table_->dirCollDel(vrf);
  }

 private:
  void track(L3::VrfName const& vrf) {
    Kiv::Ptr<MfibDirColl> coll = notifier()->dirColl(vrf);
    auto it = colls_.find(vrf);
    if (it == colls_.end() || it->second->notifier() != coll) {
      if (it != colls_.end()) it->second->kivDoZombieReactors(true);
      colls_[vrf] = new CollPublisher(coll, this);
    }
    write(*coll);
  }

  void write(MfibDirColl const& coll) {
    if (!MfibDirUrl::fits(coll.vornUrl()) || !MfibDirUrl::fits(coll.bitMapperVornUrl())) {
      KIV_TRACE(th, 1,
                "MfibDir " << notifier()->name() << ": announcement for vrf " << coll.vrfName()
                           << " not shared: a URL is longer than " << MfibDirUrl::maxLength << " bytes");
      return;
    }
    table_->dirCollIs(recordOf(coll));
  }

  Kiv::Ptr<MfibDirStatus> table_;
  std::map<L3::VrfName, Kiv::Ptr<CollPublisher>> colls_;
};

// Reader side: the table is the truth; the entity follows it.
class DirFollower : public Kiv::PtrInterface, public MfibDirStatus::NotifieeConst {
 public:
  DirFollower(Kiv::Ptr<MfibDir> const& dir, Kiv::Ptr<MfibDirStatus> const& table)
      : MfibDirStatus::NotifieeConst(table), dir_(dir) {
    bool intact = true;
    std::vector<MfibDirRecord> const recs = records(*table, &intact);
    std::map<L3::VrfName, MfibDirRecord const*> now;
    for (MfibDirRecord const& r : recs) now.emplace(r.vrfName, &r);
    // A table that could not be read whole withdraws nothing.
    if (intact) {
      for (L3::VrfName const& vrf : Kiv::keysOf(dir->dirCollMap()))
        if (!now.contains(vrf)) dir->dirCollDel(vrf);
    }
    for (MfibDirRecord const& r : recs) apply(*dir, r);
  }

  void onDirColl(L3::VrfName const& vrf) override {
    MfibDirRecord r;
    try {
      r = notifier()->dirColl(vrf);
    } catch (Pelto::CorruptionDetectedException const& e) {
      notifier()->dirCollTable().corruptionDetected(e.what());
      return;
    }
    if (r == MfibDirRecord()) {
      dir_->dirCollDel(vrf);
    } else {
      apply(*dir_, r);
    }
  }

 private:
  Kiv::Ptr<MfibDir> dir_;
};

Stelo::SharedDirEntryType::Binding publishDir(Kiv::Ptr<Kiv::Entity> const& e, Kiv::Ptr<Vorn::Status> const& s) {
  auto dir = Kiv::ptrCast<MfibDir>(e);
  auto table = Kiv::ptrCast<MfibDirStatus>(s);
  if (!dir || !table) return nullptr;
  return new DirPublisher(dir, table);
}

Stelo::SharedDirEntryType::Binding followDir(Kiv::Ptr<Kiv::Entity> const& e, Kiv::Ptr<Vorn::Status> const& s) {
  auto dir = Kiv::ptrCast<MfibDir>(e);
  auto table = Kiv::ptrCast<MfibDirStatus>(s);
  if (!dir || !table) return nullptr;
  return new DirFollower(dir, table);
}

}  // namespace

MfibDirRegistrar::MfibDirRegistrar() {
  Kiv::Dir::typeIs(MfibDir::typeNameText,
                   [](Kiv::Name const& name) -> Kiv::Ptr<Kiv::Entity> { return MfibDir::MfibDirIs(name); });
  Stelo::SharedDirEntryType::typeIs(
      MfibDir::typeNameText,
      Stelo::SharedDirEntryType{MfibDirStatus::typeNameText, publishDir, followDir, [](Kiv::Ptr<Kiv::Entity> const& e) {
                                  if (auto dir = Kiv::ptrCast<MfibDir>(e)) dir->dirCollDelAll();
                                }});
}

}  // namespace Vorn::Multicast::Fib
