// The MFIB directory: where routing applications announce their tables.
//
// The directory is a Kiv::Dir with one MfibDir entry per application (named
// after it). An MfibDir holds one MfibDirColl per VRF, the announcement of
// that VRF's tables: `vornUrl` names the application's MFIB table (a
// Vorn::Multicast::Fib::Status) and `bitMapperVornUrl` its bit mapper table
// (empty when it has none). MfibDirWriter writes it; MfibDirSm reads it.
//
// Across processes the directory is a shared directory (Stelo/SharedDir.h)
// under the URL "mfibdir": each application's MfibDir lives in its own shared
// table, "mfibdir/<application>" of type MfibDirStatus, one record per VRF,
// which only the application's process writes. A reader process mirrors
// every application's part into its local directory:
//
//   // application "pim"
//   KivVorn::Mount(em).doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText,
//                              KivVorn::MountInfo::dirWriterOf("pim"));
//   // agent (its entity manager has the agent's event loop)
//   KivVorn::Mount(em).doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText,
//                              KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
//   auto dir = Kiv::ptrCast<Kiv::Dir>(KivVorn::Mount(em).getEntity(MfibDir::sharedDirUrl));
//
// A reader hears, from its event loop, onEntityPtr(app) when an application
// appears or goes, onDirColl(vrf) when it adds or withdraws a VRF and
// onVornUrl / onBitMapperVornUrl when a URL changes, in the order the
// application made the changes. A reader that wakes up after several changes
// of one VRF sees its latest announcement at once, vornUrl before
// bitMapperVornUrl (a URL changed twice in between is heard once, with the
// second value). A record it cannot read intact is
// reported to the table's corruptionDetected hook and leaves the VRF as last
// seen. URLs longer than maxUrlLength are not shared (traced, level 1).
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Entity.h"
#include "Kiv/Name.h"
#include "Kiv/Reflect.h"
#include "Schema/VrfName.h"
#include "Vorn/Registry.h"
#include "Vorn/Status.h"
#include "Vorn/Table.h"

namespace Vorn::Multicast::Fib {

// One application's announcement for one VRF.
class MfibDirColl : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<MfibDirColl> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onVornUrl() {}
    virtual void onBitMapperVornUrl() {}
  };

  static Kiv::Ptr<MfibDirColl> MfibDirCollIs(L3::VrfName const& vrf) { return new MfibDirColl(vrf); }
  KIV_REFLECT_BEGIN(MfibDirColl, "Vorn::Multicast::Fib::MfibDirColl")
  L3::VrfName const& vrfName() const { return vrfName_; }
  KIV_REFLECT_SCALAR_RO(vrfName)
  KIV_ATTR(Kiv::String, vornUrl, onVornUrl, {})
  KIV_ATTR(Kiv::String, bitMapperVornUrl, onBitMapperVornUrl, {})
  KIV_REFLECT_END

 private:
  explicit MfibDirColl(L3::VrfName const& vrf) : Kiv::Entity(vrf.str()), vrfName_(vrf) {}
  L3::VrfName const vrfName_;
};

// One application's directory: its announcements by VRF, in VRF name order.
class MfibDir : public Kiv::Entity {
 public:
  using DirCollMap = std::map<L3::VrfName, Kiv::Ptr<MfibDirColl>>;

  class NotifieeConst : public Kiv::NotifieeConstBase<MfibDir> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onDirColl(L3::VrfName) {}
  };

  static constexpr char const* typeNameText = "Vorn::Multicast::Fib::MfibDir";
  // Where the directory is shared between processes.
  static constexpr char const* sharedDirUrl = "mfibdir";

  static Kiv::Ptr<MfibDir> MfibDirIs(Kiv::Name const& appName) { return new MfibDir(appName); }
  KIV_REFLECT_BEGIN(MfibDir, typeNameText)

  Kiv::Ptr<MfibDirColl> dirColl(L3::VrfName const& vrf) const;
  // The VRF's announcement, created (and announced) when there is none.
  Kiv::Ptr<MfibDirColl> dirCollIs(L3::VrfName const& vrf);
  // Returns the removed announcement, or null (and no notification).
  Kiv::Ptr<MfibDirColl> dirCollDel(L3::VrfName const& vrf);
  void dirCollDelAll();
  std::size_t dirColls() const { return dirColl_.size(); }
  DirCollMap const& dirCollMap() const { return dirColl_; }
  KIV_REFLECT_COLLECTION_BY_KEY(dirColl, L3::VrfName, dirColls(), dirColl_)
  KIV_REFLECT_END

 private:
  explicit MfibDir(Kiv::Name const& appName) : Kiv::Entity(appName) {}
  DirCollMap dirColl_;
};

// ---- the shared form of one application's directory

// A table URL in fixed storage, zero-padded.
struct MfibDirUrl {
  static constexpr std::size_t maxLength = 255;
  char bytes[maxLength + 1] = {};

  MfibDirUrl() = default;
  // Longer texts are cut; callers check fits() first.
  explicit MfibDirUrl(std::string_view s) { std::memcpy(bytes, s.data(), std::min(s.size(), maxLength)); }
  static bool fits(std::string_view s) { return s.size() <= maxLength && s.find('\0') == std::string_view::npos; }
  std::string str() const { return std::string(bytes, ::strnlen(bytes, maxLength)); }
  friend bool operator==(MfibDirUrl const& a, MfibDirUrl const& b) {
    return std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0;
  }
};

// One VRF's announcement as the shared table holds it.
struct MfibDirRecord {
  L3::VrfName vrfName;
  MfibDirUrl vornUrl;
  MfibDirUrl bitMapperVornUrl;
  friend bool operator==(MfibDirRecord const&, MfibDirRecord const&) = default;
};
std::ostream& operator<<(std::ostream& os, MfibDirRecord const& r);

// One application's part of the shared directory; read it through MfibDir.
class MfibDirStatus : public Vorn::Status {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<MfibDirStatus> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onDirColl(L3::VrfName const&) {}
  };
  static constexpr char const* typeNameText = "Vorn::Multicast::Fib::MfibDirStatus";

  explicit MfibDirStatus(Kiv::Name const& name = Kiv::Name()) : Vorn::Status(name) {}
  std::string_view typeName() const override { return typeNameText; }

  VORN_TABLE(MfibDirStatus, dirColl, DirColl, L3::VrfName, MfibDirRecord, &MfibDirRecord::vrfName, 1024)
};

// Registers MfibDir with Kiv::Dir and with the shared directories, and
// MfibDirStatus with the table registry, in every program that includes
// this header.
struct MfibDirRegistrar {
  MfibDirRegistrar();
};
inline MfibDirRegistrar const mfibDirRegistrar;
inline Vorn::StatusRegistrar<MfibDirStatus> const mfibDirStatusRegistrar(MfibDirStatus::typeNameText);

}  // namespace Vorn::Multicast::Fib
