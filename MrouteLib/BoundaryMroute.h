// BoundaryMroute: a multicast route stopped at a boundary, kept for its
// fast-drop entries and its filter words.
#ifndef MROUTELIB_MODEL_
// The entities that point at each other are defined together (MrouteLib.h).
#include "MrouteLib/MrouteLib.h"
#elif !defined(MROUTELIB_BOUNDARY_MROUTE_H)
#define MROUTELIB_BOUNDARY_MROUTE_H

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/Attr.h"
#include "MrouteLib/OifSet.h"
#include "MrouteLib/PortVlanSet.h"
#include "MrouteLib/SparseMap.h"
#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/VlanId.h"

namespace MrouteLib {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Routing::Multicast::Fib::IpGenRouteKey;

class MrouteTable;

// A route stopped at a multicast boundary: no OIF set of its own, only
// fast-drop entries, and the route's filter words so that dirty tracking
// finds it. Unlike a route's, its clearing notifies every removed VLAN.
class BoundaryMroute : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<BoundaryMroute> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onMrouteTable() {}
    virtual void onFastdrop(VlanId) {}
    virtual void onFastdropkivImmediate(VlanId) {}
    virtual void onFastdropCount() {}
    virtual void onFastdropDirty() {}
    virtual void onVlanFilter() {}
    virtual void onVlanGroupFilter() {}
    virtual void onVlanPortFilter() {}
    virtual void onLagFilter() {}
    virtual void onDirty() {}
  };

  static Kiv::Ptr<BoundaryMroute> BoundaryMrouteIs(IpGenRouteKey const& key, MrouteTable* mrouteTable) {
    return new BoundaryMroute(key, mrouteTable);
  }
  KIV_REFLECT_BEGIN(BoundaryMroute, "MrouteLib::BoundaryMroute")

  IpGenRouteKey const& key() const { return key_; }
  KIV_REFLECT_SCALAR_RO(key)
  MrouteTable* mrouteTable() const { return mrouteTable_; }
  KIV_REFLECT_SCALAR_RO(mrouteTable)

  using FastdropMap = SparseMap<VlanId, Kiv::Ptr<OifSet>>;
  Kiv::Ptr<OifSet> fastdrop(VlanId v) const;
  FastdropMap const& fastdropMap() const { return fastdrop_; }
  void fastdropIs(VlanId v, Kiv::Ptr<OifSet> const& oifSet);
  void fastdropDel(VlanId v);
  void fastdropDelAll();
  KIV_REFLECT_COLLECTION(fastdrop, VlanId, fastdrop_.size(), fastdrop_)

  MROUTELIB_ATTR(U16, fastdropCount, FastdropCount)
  MROUTELIB_ATTR(bool, fastdropDirty, FastdropDirty)
  MROUTELIB_ATTR(U32, vlanFilter, VlanFilter)
  MROUTELIB_ATTR(U64, vlanGroupFilter, VlanGroupFilter)
  MROUTELIB_ATTR(U32, vlanPortFilter, VlanPortFilter)
  MROUTELIB_ATTR(U32, lagFilter, LagFilter)
  MROUTELIB_ATTR(bool, dirty, Dirty)

  void handleFastdrop();
  KIV_REFLECT_OPERATION(handleFastdrop)
  // Removes every entry with its notification, then recounts once more.
  void doClearFastdrop();
  KIV_REFLECT_OPERATION(doClearFastdrop)
  KIV_REFLECT_END

 private:
  friend class MrouteTable;
  BoundaryMroute(IpGenRouteKey const& key, MrouteTable* mrouteTable) : key_(key), mrouteTable_(mrouteTable) {}
  ~BoundaryMroute() override;
  void doDetachTable(bool uncount);

  IpGenRouteKey key_;
  MrouteTable* mrouteTable_;
  FastdropMap fastdrop_;
  U16 fastdropCount_ = 0;
  bool fastdropDirty_ = false;
  U32 vlanFilter_ = 0;
  U64 vlanGroupFilter_ = 0;
  U32 vlanPortFilter_ = 0;
  U32 lagFilter_ = 0;
  bool dirty_ = false;
};

}  // namespace MrouteLib

#endif  // MROUTELIB_BOUNDARY_MROUTE_H
