// Mroute: what the agent decided for one multicast route of one VRF.
// Setters notify only real changes. An empty map member costs one pointer
// and no allocation, so a million routes stay cheap (the two MFIB route
// copies are the only large members).
#ifndef MROUTELIB_MODEL_
// The entities that point at each other are defined together (MrouteLib.h).
#include "MrouteLib/MrouteLib.h"
#elif !defined(MROUTELIB_MROUTE_H)
#define MROUTELIB_MROUTE_H

#include <cstddef>
#include <memory>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/Attr.h"
#include "MrouteLib/OifSet.h"
#include "MrouteLib/PortVlanSet.h"
#include "MrouteLib/SparseMap.h"
#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/Mfib/Route.h"
#include "Schema/VlanId.h"
#include "Wirly/IntfId.h"

namespace MrouteLib {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Routing::Multicast::Fib::IpGenRouteKey;

class MrouteTable;

// The agent's record of one multicast route of one VRF. Made by
// MrouteTable::mrouteIs, which is also its back pointer; keeps its table's
// fastdropCount right: each fast-drop edit recounts, and destruction clears.
class Mroute : public Kiv::Entity {
 public:
  using OifIndex = Vorn::Multicast::Fib::OifIndex;
  using Route = Vorn::Multicast::Fib::Route;
  using RpaIndex = Vorn::Multicast::Fib::RpaIndex;

  class NotifieeConst : public Kiv::NotifieeConstBase<Mroute> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onMrouteTable() {}
    virtual void onAcceptingVlanId() {}
    virtual void onAcceptingIntfId() {}
    virtual void onNotifyingVlanId() {}
    virtual void onStaticFastdropVlanId() {}
    virtual void onFrrVlanId() {}
    virtual void onPrevFrr() {}
    virtual void onOifSet() {}
    virtual void onReview() {}
    virtual void onVersion() {}
    virtual void onMcastGroupRequestId() {}
    virtual void onVlanFilter() {}
    virtual void onVlanPortFilter() {}
    virtual void onVlanGroupFilter() {}
    virtual void onLagFilter() {}
    virtual void onDirty() {}
    virtual void onNoRpf() {}
    virtual void onMarkedForDeletion() {}
    virtual void onRpfFailureCount(VlanId) {}
    virtual void onRpfFailureCountkivImmediate(VlanId) {}
    virtual void onFastdrop(VlanId) {}
    virtual void onFastdropkivImmediate(VlanId) {}
    virtual void onFastdropCount() {}
    virtual void onFastdropDirty() {}
    virtual void onRpaId() {}
    virtual void onVornRoute() {}
    virtual void onLastSeenVornRoute() {}
    virtual void onOifIndexIntfIdCache(OifIndex) {}
    virtual void onOifIndexIntfIdCachekivImmediate(OifIndex) {}
    virtual void onOptimizeStatus() {}
    virtual void onNotifyOifSet() {}
    virtual void onStaticFastdropOifSet() {}
    virtual void onFrrOifSet() {}
  };

  // A route outside any table (mrouteTable null) counts nothing; routes of a
  // table come from MrouteTable::mrouteIs.
  static Kiv::Ptr<Mroute> MrouteIs(IpGenRouteKey const& key, MrouteTable* mrouteTable) {
    return new Mroute(key, mrouteTable);
  }
  KIV_REFLECT_BEGIN(Mroute, "MrouteLib::Mroute")

  // Attributes in their reflective order.
  IpGenRouteKey const& key() const { return key_; }
  KIV_REFLECT_SCALAR_RO(key)
  MrouteTable* mrouteTable() const { return mrouteTable_; }
  KIV_REFLECT_SCALAR_RO(mrouteTable)
  MROUTELIB_ATTR(VlanIdOrNone, acceptingVlanId, AcceptingVlanId)
  MROUTELIB_ATTR(Wirly::IntfId, acceptingIntfId, AcceptingIntfId)
  MROUTELIB_ATTR(VlanIdOrNone, notifyingVlanId, NotifyingVlanId)
  MROUTELIB_ATTR(VlanIdOrNone, staticFastdropVlanId, StaticFastdropVlanId)
  MROUTELIB_ATTR(VlanIdOrNone, frrVlanId, FrrVlanId)
  MROUTELIB_ATTR(VlanIdOrNone, prevFrr, PrevFrr)
  MROUTELIB_ATTR(Kiv::Ptr<OifSet>, oifSet, OifSet)
  MROUTELIB_ATTR(U32, review, Review)
  MROUTELIB_ATTR(U32, version, Version)
  MROUTELIB_ATTR(U32, mcastGroupRequestId, McastGroupRequestId)
  MROUTELIB_ATTR(U32, vlanFilter, VlanFilter)
  MROUTELIB_ATTR(U32, vlanPortFilter, VlanPortFilter)
  MROUTELIB_ATTR(U64, vlanGroupFilter, VlanGroupFilter)
  MROUTELIB_ATTR(U32, lagFilter, LagFilter)
  MROUTELIB_ATTR(bool, dirty, Dirty)
  MROUTELIB_ATTR(bool, noRpf, NoRpf)
  MROUTELIB_ATTR(bool, markedForDeletion, MarkedForDeletion)

  // RPF failures per VLAN: 0 when absent. Kept only; the agent counts.
  using RpfFailureCountMap = SparseMap<VlanId, U16>;
  U16 rpfFailureCount(VlanId v) const;
  RpfFailureCountMap const& rpfFailureCountMap() const { return rpfFailureCount_; }
  void rpfFailureCountIs(VlanId v, U16 count);
  void rpfFailureCountDel(VlanId v);
  void rpfFailureCountDelAll();
  KIV_REFLECT_COLLECTION(rpfFailureCount, VlanId, rpfFailureCount_.size(), rpfFailureCount_)

  // Fast-drop entries per VLAN. The same set again does nothing; a null set
  // removes; every real change recounts (handleFastdrop) and then notifies.
  using FastdropMap = SparseMap<VlanId, Kiv::Ptr<OifSet>>;
  Kiv::Ptr<OifSet> fastdrop(VlanId v) const;
  FastdropMap const& fastdropMap() const { return fastdrop_; }
  void fastdropIs(VlanId v, Kiv::Ptr<OifSet> const& oifSet);
  void fastdropDel(VlanId v);
  void fastdropDelAll();
  KIV_REFLECT_COLLECTION(fastdrop, VlanId, fastdrop_.size(), fastdrop_)

  MROUTELIB_ATTR(U16, fastdropCount, FastdropCount)
  MROUTELIB_ATTR(bool, fastdropDirty, FastdropDirty)
  MROUTELIB_ATTR(RpaIndex, rpaId, RpaId)
  MROUTELIB_BOXED_ATTR(Route, vornRoute, VornRoute)
  MROUTELIB_BOXED_ATTR(Route, lastSeenVornRoute, LastSeenVornRoute)

  // Resolved OIF indexes, read by the cached route interface walk.
  struct OifIndexHash {
    std::size_t operator()(OifIndex i) const noexcept { return i.hash(); }
  };
  using OifIndexIntfIdCacheMap = SparseMap<OifIndex, Wirly::IntfId, OifIndexHash>;
  Wirly::IntfId oifIndexIntfIdCache(OifIndex i) const;
  OifIndexIntfIdCacheMap const& oifIndexIntfIdCacheMap() const { return oifIndexIntfIdCache_; }
  void oifIndexIntfIdCacheIs(OifIndex i, Wirly::IntfId id);
  void oifIndexIntfIdCacheDel(OifIndex i);
  void oifIndexIntfIdCacheDelAll();
  KIV_REFLECT_COLLECTION(oifIndexIntfIdCache, OifIndex, oifIndexIntfIdCache_.size(), oifIndexIntfIdCache_)

  MROUTELIB_ATTR(bool, optimizeStatus, OptimizeStatus)
  MROUTELIB_ATTR(Kiv::Ptr<OifSet>, notifyOifSet, NotifyOifSet)
  MROUTELIB_ATTR(Kiv::Ptr<OifSet>, staticFastdropOifSet, StaticFastdropOifSet)
  MROUTELIB_ATTR(Kiv::Ptr<OifSet>, frrOifSet, FrrOifSet)

  // Recount the fast-drop entries into the table's total; set fastdropDirty.
  void handleFastdrop(VlanId v);
  void handleFastdrop();
  KIV_REFLECT_OPERATION_SIG(handleFastdrop, void (KivSelf::*)())
  // Empties the fast-drop and RPF-failure maps without per-entry
  // notifications, then recounts once.
  void doClearFastdrop();
  KIV_REFLECT_OPERATION(doClearFastdrop)
  KIV_REFLECT_END
  void handleDel();

  // Where a review walk of the table prefetches ahead: the words every
  // dirty test reads.
  void const* hotLine() const { return &vlanFilter_; }

  // Routes live densely in huge-page chunks (SlotPool.h), so that a walk
  // over a million of them is not dominated by TLB misses.
  static void* operator new(std::size_t bytes);
  static void operator delete(void* p, std::size_t bytes);

 private:
  friend class MrouteTable;
  Mroute(IpGenRouteKey const& key, MrouteTable* mrouteTable) : key_(key), mrouteTable_(mrouteTable) {}
  ~Mroute() override;
  // The table lets go of the route: its count leaves the table's total
  // when `uncount`, and the back pointer goes.
  void doDetachTable(bool uncount);

  // The words every dirty test reads sit together, first after the
  // entity's header, so a review touches one cache line per route.
  U32 vlanFilter_ = 0;
  U32 vlanPortFilter_ = 0;
  U64 vlanGroupFilter_ = 0;
  U32 lagFilter_ = 0;
  bool dirty_ = false;
  bool noRpf_ = false;
  bool markedForDeletion_ = false;
  bool fastdropDirty_ = false;
  bool optimizeStatus_ = false;
  U16 fastdropCount_ = 0;
  // Position in the table's walk list.
  U32 listIndex_ = 0;
  VlanIdOrNone acceptingVlanId_;
  VlanIdOrNone notifyingVlanId_;
  VlanIdOrNone staticFastdropVlanId_;
  VlanIdOrNone frrVlanId_;
  VlanIdOrNone prevFrr_;
  IpGenRouteKey key_;
  MrouteTable* mrouteTable_;
  Wirly::IntfId acceptingIntfId_;
  U32 review_ = 0;
  U32 version_ = 0;
  U32 mcastGroupRequestId_ = 0;
  RpaIndex rpaId_;
  Kiv::Ptr<OifSet> oifSet_;
  Kiv::Ptr<OifSet> notifyOifSet_;
  Kiv::Ptr<OifSet> staticFastdropOifSet_;
  Kiv::Ptr<OifSet> frrOifSet_;
  RpfFailureCountMap rpfFailureCount_;
  FastdropMap fastdrop_;
  OifIndexIntfIdCacheMap oifIndexIntfIdCache_;
  std::unique_ptr<Route> vornRoute_;
  std::unique_ptr<Route> lastSeenVornRoute_;
};

}  // namespace MrouteLib

#endif  // MROUTELIB_MROUTE_H
