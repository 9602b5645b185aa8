// DirtyInfo: which filter buckets and addresses changed; answers, per
// route, whether the route is touched, without walking anything else.
#ifndef MROUTELIB_MODEL_
// The entities that point at each other are defined together (MrouteLib.h).
#include "MrouteLib/MrouteLib.h"
#elif !defined(MROUTELIB_DIRTY_INFO_H)
#define MROUTELIB_DIRTY_INFO_H

#include <string>
#include <unordered_map>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/Attr.h"
#include "MrouteLib/BoundaryMroute.h"
#include "MrouteLib/Mroute.h"
#include "MrouteLib/PortVlanSet.h"
#include "Wirly/IpGenAddr.h"

namespace MrouteLib {

// Pending changes that may touch routes, as bits in the routes' filter
// buckets and as group and NAT source addresses. How a VLAN, port, group or
// LAG maps to a bucket bit is the agent's choice; this only stores and
// matches bits.
class DirtyInfo : public Kiv::Entity {
 public:
  using AddrMap = std::unordered_map<Wirly::IpGenAddr, bool>;

  class NotifieeConst : public Kiv::NotifieeConstBase<DirtyInfo> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onDirtyVlan() {}
    virtual void onDirtyVlanPort() {}
    virtual void onDirtyVlanGroup() {}
    virtual void onDirtyGroupSet(Wirly::IpGenAddr const&) {}
    virtual void onDirtyLag() {}
    virtual void onDirtyRoute() {}
    virtual void onDirtyNatSrc(Wirly::IpGenAddr const&) {}
  };

  static Kiv::Ptr<DirtyInfo> DirtyInfoIs() { return new DirtyInfo(); }
  KIV_REFLECT_BEGIN(DirtyInfo, "MrouteLib::DirtyInfo")

  MROUTELIB_ATTR(U32, dirtyVlan, DirtyVlan)
  MROUTELIB_ATTR(U32, dirtyVlanPort, DirtyVlanPort)
  MROUTELIB_ATTR(U64, dirtyVlanGroup, DirtyVlanGroup)

  // The entry of one address: false when absent.
  AddrMap const& dirtyGroupSet() const { return dirtyGroupSet_; }
  bool dirtyGroupSet(Wirly::IpGenAddr const& a) const { return entryOf(dirtyGroupSet_, a); }
  void dirtyGroupSetIs(Wirly::IpGenAddr const& a, bool dirty);
  void dirtyGroupSetDel(Wirly::IpGenAddr const& a);
  void dirtyGroupSetDelAll();
  KIV_REFLECT_COLLECTION(dirtyGroupSet, Wirly::IpGenAddr, dirtyGroupSet_.size(), dirtyGroupSet_)

  MROUTELIB_ATTR(U32, dirtyLag, DirtyLag)
  MROUTELIB_ATTR(bool, dirtyRoute, DirtyRoute)

  AddrMap const& dirtyNatSrc() const { return dirtyNatSrc_; }
  bool dirtyNatSrc(Wirly::IpGenAddr const& a) const { return entryOf(dirtyNatSrc_, a); }
  void dirtyNatSrcIs(Wirly::IpGenAddr const& a, bool dirty);
  void dirtyNatSrcDel(Wirly::IpGenAddr const& a);
  void dirtyNatSrcDelAll();
  KIV_REFLECT_COLLECTION(dirtyNatSrc, Wirly::IpGenAddr, dirtyNatSrc_.size(), dirtyNatSrc_)

  // Anything recorded at all, including address entries whose value is false.
  bool isDirty() const;
  KIV_REFLECT_OPERATION(isDirty)
  void clear();
  KIV_REFLECT_OPERATION(clear)
  KIV_REFLECT_END
  // ORs the other's words and flag in; its addresses arrive as true entries.
  void mergeWith(Kiv::PtrConst<DirtyInfo> const& other);

  // Whether the change touches the route: its own dirty flag, a shared
  // bucket bit, a true entry for its group, or its source's NAT entry.
  // dirtyRoute is not consulted.
  bool mrouteDirty(Kiv::PtrConst<Mroute> const& route) const { return mrouteDirty(*route); }
  bool mrouteDirty(Mroute const& route) const { return route.dirty() || mrouteL2Dirty(route); }
  // The same without the route's own dirty flag.
  bool mrouteL2Dirty(Kiv::PtrConst<Mroute> const& route) const { return mrouteL2Dirty(*route); }
  bool mrouteL2Dirty(Mroute const& route) const;
  // Bucket bits and the boundary route's dirty flag only.
  bool boundaryDirty(Kiv::PtrConst<BoundaryMroute> const& route) const;
  // "<vlanFilter> <vlanPortFilter> <vlanGroupFilter> <lagFilter> <dirtyVlan>
  //  <dirtyVlanPort> <dirtyVlanGroup> <natSrc 0|1> <group 0|1> <dirtyLag>", hex.
  std::string mrouteDirtyInfoStr(Kiv::PtrConst<Mroute> const& route) const;

 private:
  DirtyInfo() = default;
  static bool entryOf(AddrMap const& m, Wirly::IpGenAddr const& a) {
    auto it = m.find(a);
    return it != m.end() && it->second;
  }
  void dirtyGroupSetNotify(Wirly::IpGenAddr const& a) { notify(&NotifieeConst::onDirtyGroupSet, a); }
  void dirtyNatSrcNotify(Wirly::IpGenAddr const& a) { notify(&NotifieeConst::onDirtyNatSrc, a); }

  U32 dirtyVlan_ = 0;
  U32 dirtyVlanPort_ = 0;
  U64 dirtyVlanGroup_ = 0;
  U32 dirtyLag_ = 0;
  bool dirtyRoute_ = false;
  AddrMap dirtyGroupSet_;
  AddrMap dirtyNatSrc_;
};

inline bool DirtyInfo::mrouteL2Dirty(Mroute const& r) const {
  if ((dirtyVlan_ & r.vlanFilter()) != 0) return true;
  if ((dirtyVlanPort_ & r.vlanPortFilter()) != 0 || (dirtyVlanGroup_ & r.vlanGroupFilter()) != 0) return true;
  if (!dirtyGroupSet_.empty()) {
    auto it = dirtyGroupSet_.find(r.key().group().address());
    if (it != dirtyGroupSet_.end() && it->second) return true;
  }
  if ((dirtyLag_ & r.lagFilter()) != 0) return true;
  if (dirtyNatSrc_.empty()) return false;
  auto it = dirtyNatSrc_.find(r.key().source().address());
  return it != dirtyNatSrc_.end() && it->second;
}

}  // namespace MrouteLib

#endif  // MROUTELIB_DIRTY_INFO_H
