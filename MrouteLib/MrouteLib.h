// The multicast route model: the agent's working memory of every multicast
// route of every VRF, from which it programs forwarding hardware.
//
//   auto coll = mrouteTableCollFactory();                   // one per address family
//   auto table = coll->vrfMrouteTableIs("default");
//   auto route = table->mrouteIs(key);                       // created on first use
//   route->vornRouteIs(mfibRoute);
//   PortVlanSet set = ...;                                    // computed by the agent
//   route->oifSetIs(coll->oifSetFor(set));                    // shared by content
//   auto dirty = table->dirtyInfoIs();                        // a VLAN changed:
//   dirty->dirtyVlanIs(dirty->dirtyVlan() | 1u << bucket);
//   for (auto const& [k, r] : table->mrouteMap())
//     if (dirty->mrouteDirty(r)) reprogram(r);
//
// What the types promise:
// - MrouteTableColl: per-VRF tables, the layer-2 flood-set table, and the
//   registry of OifSets by PortVlanSet. The registry holds no count: an
//   OifSet registers itself when made and leaves when its last Kiv::Ptr goes,
//   so the registry empties when the last route lets go of its sets.
// - MrouteTable: routes and boundary routes by key; its fastdropCount is
//   always the sum of its routes' fastdropCount (and boundaryFastdropCount
//   of its boundary routes'), through every edit, clear, delete and
//   destruction. Counters wrap at their width.
// - Mroute / BoundaryMroute: what the agent decided for one route; setters
//   notify only real changes. An empty map member costs one pointer and no
//   allocation, so a million routes stay cheap (the two MFIB route copies
//   are the only large members).
// - DirtyInfo: which filter buckets and addresses changed; answers, per
//   route, whether the route is touched, without walking anything else.
//
// Every entity notifies its NotifieeConst synchronously. Map attributes call
// on<Attr>kivImmediate(key) and then on<Attr>(key) for each changed entry.
// Traces go to the handle "MrouteLib" (level 9: handlers, 8: detail).
// Single-threaded: everything runs on the agent's event loop.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/PortVlanSet.h"
#include "MrouteLib/SparseMap.h"
#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/Mfib/Route.h"
#include "Schema/VlanId.h"
#include "Schema/VrfName.h"
#include "Wirly/AddressFamily.h"
#include "Wirly/EthAddr.h"
#include "Wirly/IntfId.h"
#include "Wirly/IpGenAddr.h"

// A scalar or pointer attribute: reader, a setter that notifies on<Name>()
// only on a real change, and its reflective entry (in the order declared).
// Storage is declared apart, so that the hot words sit together.
#define MROUTELIB_ATTR(T, name, Name)                                 \
  T const& name() const { return name##_; }                           \
  void name##Is(T const& v) {                                         \
    if (::Kiv::changed(name##_, v)) notify(&NotifieeConst::on##Name); \
  }                                                                   \
  KIV_REFLECT_SCALAR(name)

// A counter: the attribute plus Inc/Dec that wrap at the counter's width and
// return the new value.
#define MROUTELIB_COUNTER(T, name, Name)                              \
  T const& name() const { return name##_; }                           \
  void name##Is(T const& v) {                                         \
    if (::Kiv::changed(name##_, v)) notify(&NotifieeConst::on##Name); \
  }                                                                   \
  T name##Inc(T d) {                                                  \
    name##Is(static_cast<T>(name##_ + d));                            \
    return name##_;                                                   \
  }                                                                   \
  T name##Dec(T d) {                                                  \
    name##Is(static_cast<T>(name##_ - d));                            \
    return name##_;                                                   \
  }                                                                   \
  KIV_REFLECT_COUNTER(name)

// A large attribute that most routes never set: held outside the route from
// its first non-default value on, so that an unset one costs a pointer.
#define MROUTELIB_BOXED_ATTR(T, name, Name)                                             \
  T const& name() const { return name##_ ? *name##_ : ::MrouteLib::boxedDefault<T>(); } \
  void name##Is(T const& v) {                                                           \
    if (!name##_) {                                                                     \
      if (v == T()) return;                                                             \
      name##_ = std::make_unique<T>(v);                                                 \
      notify(&NotifieeConst::on##Name);                                                 \
    } else if (::Kiv::changed(*name##_, v)) {                                           \
      notify(&NotifieeConst::on##Name);                                                 \
    }                                                                                   \
  }                                                                                     \
  KIV_REFLECT_SCALAR(name)

namespace MrouteLib {

// What an unset boxed attribute reads as.
template <class T>
T const& boxedDefault() {
  static T const value{};
  return value;
}

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Routing::Multicast::Fib::IpGenRouteKey;

class MrouteTable;
class MrouteTableColl;

// One hardware replication list, shared by every route and fast-drop entry
// whose PortVlanSet is equal. Made through oifSetFactory or
// MrouteTableColl::oifSetFor; registers itself in its collection while it is
// made and unregisters while it is destroyed. Two live sets of equal content
// in one collection are a programming error (assertion).
class OifSet : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<OifSet> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onMrouteTable() {}
    virtual void onInitialized() {}
  };

  // A null collection makes a set that nobody can find.
  static Kiv::Ptr<OifSet> OifSetIs(MrouteTableColl* mrouteTable, PortVlanSet const& portVlanSet) {
    return new OifSet(mrouteTable, portVlanSet);
  }
  KIV_REFLECT_BEGIN(OifSet, "MrouteLib::OifSet")

  // The collection; null once the collection has gone.
  MrouteTableColl* mrouteTable() const { return mrouteTable_; }
  KIV_REFLECT_SCALAR_RO(mrouteTable)
  PortVlanSet const& portVlanSet() const { return portVlanSet_; }
  KIV_REFLECT_SCALAR_RO(portVlanSet)
  bool initialized() const { return initialized_; }
  KIV_REFLECT_SCALAR_RO(initialized)

  bool toCpu() const { return portVlanSet_.toCpu(); }
  KIV_REFLECT_OPERATION(toCpu)
  bool doCmpPortVlanSet(PortVlanSet const& s) const { return portVlanSet_ == s; }
  KIV_REFLECT_OPERATION(doCmpPortVlanSet)
  KIV_REFLECT_END

  void handleInitialized();
  void handleDel();

 private:
  friend class MrouteTableColl;
  OifSet(MrouteTableColl* mrouteTable, PortVlanSet const& portVlanSet);
  ~OifSet() override;

  MrouteTableColl* mrouteTable_;
  PortVlanSet portVlanSet_;
  bool initialized_ = false;
};

// A non-owning reference to a registered OifSet, as the registry stores it.
// Equal when it names the same set. Text form: the pointer ("0x55d0c0de").
// Reading also takes the value's own form,
// Value('MrouteLib::OifSetPtr', ** {'ptr': 0x55d0c0de}), whose one
// attribute `ptr` is that pointer (None for null).
class OifSetPtr {
 public:
  OifSetPtr() = default;
  explicit OifSetPtr(OifSet* p) : ptr_(p) {}
  OifSet* ptr() const { return ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }

  std::string valueToStrep() const { return Kiv::valueToStrep(ptr_); }
  // Kiv::ParseException for any other text.
  static OifSetPtr fromStrep(std::string_view text);

  friend bool operator==(OifSetPtr a, OifSetPtr b) { return a.ptr_ == b.ptr_; }

 private:
  OifSet* ptr_ = nullptr;
};

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

// The multicast routes of one VRF (or the flood sets of a collection), named
// by the VRF.
class MrouteTable : public Kiv::Entity {
 public:
  using MrouteMap = std::unordered_map<IpGenRouteKey, Kiv::Ptr<Mroute>>;
  using BoundaryMrouteMap = std::unordered_map<IpGenRouteKey, Kiv::Ptr<BoundaryMroute>>;

  class NotifieeConst : public Kiv::NotifieeConstBase<MrouteTable> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onAf() {}
    virtual void onMroute(IpGenRouteKey const&) {}
    virtual void onDirtyInfo() {}
    virtual void onBoundaryMroute(IpGenRouteKey const&) {}
    virtual void onBoundaryDirtyInfo() {}
    virtual void onVlanFilter() {}
    virtual void onVlanFilterCounter(U8) {}
    virtual void onReviews() {}
    virtual void onRecomputations() {}
    virtual void onNoChangeRecomputations() {}
    virtual void onFastdropCount() {}
    virtual void onBoundaryFastdropCount() {}
    virtual void onMroutesInitialized() {}
    virtual void onMrouteBatchVersion() {}
    virtual void onInitialized() {}
  };

  static Kiv::Ptr<MrouteTable> MrouteTableIs(L3::VrfName const& vrfName) { return new MrouteTable(vrfName); }
  KIV_REFLECT_BEGIN(MrouteTable, "MrouteLib::MrouteTable")

  L3::VrfName const& vrfName() const { return vrfName_; }
  KIV_REFLECT_SCALAR_RO(vrfName)
  MROUTELIB_ATTR(Wirly::AddressFamily, af, Af)

  // Routes. mrouteIs creates (and notifies) only when the key is new.
  // mrouteDel notifies, then lets go: a route nobody else holds is destroyed
  // and uncounts itself; one still held elsewhere is uncounted and loses its
  // back pointer, so the table's total never counts a route it no longer has.
  // The route under key, or a null pointer.
  Kiv::Ptr<Mroute> const& mroute(IpGenRouteKey const& key) const;
  MrouteMap const& mrouteMap() const { return mroute_; }
  // Every route once, in no particular order, walked through a dense list
  // that prefetches routes ahead of the caller: the way to review all
  // routes of a large table.
  //
  //   for (Mroute& r : table->mrouteList()) if (dirty->mrouteDirty(r)) ...
  //
  // The table must not gain or lose routes during the walk.
  class MrouteList;
  MrouteList mrouteList() const;
  std::size_t mroutes() const { return mroute_.size(); }
  Kiv::Ptr<Mroute> mrouteIs(IpGenRouteKey const& key);
  void mrouteDel(IpGenRouteKey const& key);
  void mrouteDelAll();
  KIV_REFLECT_COLLECTION_BY_KEY(mroute, IpGenRouteKey, mroutes(), mroute_)

  // Made empty on first use; null when none is pending.
  Kiv::Ptr<DirtyInfo> const& dirtyInfo() const { return dirtyInfo_; }
  Kiv::Ptr<DirtyInfo> dirtyInfoIs();
  void dirtyInfoDel();
  KIV_REFLECT_POINTER_DEL(dirtyInfo)

  Kiv::Ptr<BoundaryMroute> boundaryMroute(IpGenRouteKey const& key) const;
  BoundaryMrouteMap const& boundaryMrouteMap() const { return boundaryMroute_; }
  Kiv::Ptr<BoundaryMroute> boundaryMrouteIs(IpGenRouteKey const& key);
  void boundaryMrouteDel(IpGenRouteKey const& key);
  void boundaryMrouteDelAll();
  KIV_REFLECT_COLLECTION_BY_KEY(boundaryMroute, IpGenRouteKey, boundaryMroute_.size(), boundaryMroute_)

  Kiv::Ptr<DirtyInfo> const& boundaryDirtyInfo() const { return boundaryDirtyInfo_; }
  Kiv::Ptr<DirtyInfo> boundaryDirtyInfoIs();
  void boundaryDirtyInfoDel();
  KIV_REFLECT_POINTER_DEL(boundaryDirtyInfo)

  MROUTELIB_ATTR(U32, vlanFilter, VlanFilter)
  // Route contributions per filter bit; 0 for a bit never written.
  U32 vlanFilterCounter(U8 bit) const { return bit < vlanFilterCounter_.size() ? vlanFilterCounter_[bit] : 0; }
  void vlanFilterCounterIs(U8 bit, U32 count);
  U32 vlanFilterCounterInc(U8 bit, U32 delta);
  U32 vlanFilterCounterDec(U8 bit, U32 delta);
  void vlanFilterCounterDel(U8 bit) { vlanFilterCounterIs(bit, 0); }
  void vlanFilterCounterDelAll();
  // Every bit written so far with its count (zeros included), for walks.
  std::map<U8, U32> vlanFilterCounterMap() const;
  KIV_REFLECT_COLLECTION(vlanFilterCounter, U8, vlanFilterCounter_.size(), vlanFilterCounterMap())

  MROUTELIB_COUNTER(U32, reviews, Reviews)
  MROUTELIB_COUNTER(U32, recomputations, Recomputations)
  MROUTELIB_COUNTER(U32, noChangeRecomputations, NoChangeRecomputations)
  MROUTELIB_COUNTER(U16, fastdropCount, FastdropCount)
  MROUTELIB_COUNTER(U16, boundaryFastdropCount, BoundaryFastdropCount)
  MROUTELIB_ATTR(bool, mroutesInitialized, MroutesInitialized)
  MROUTELIB_COUNTER(U32, mrouteBatchVersion, MrouteBatchVersion)
  MROUTELIB_ATTR(bool, initialized, Initialized)

  // Applies one route's change of its VLAN filter word: `chgMrtVlanFilter`
  // marks the bits that changed, `mrtVlanFilter` is the route's new word.
  // Callers keep set and clear paired: a clear for a bit never set wraps
  // the counter and leaves the bit set.
  void doUpdateVrfVlanFilter(U32 mrtVlanFilter, U32 chgMrtVlanFilter);
  KIV_REFLECT_OPERATION(doUpdateVrfVlanFilter)
  KIV_REFLECT_END

  // Runs from the constructor; asserts it runs before initialized is set.
  void handleInitialized();

 private:
  explicit MrouteTable(L3::VrfName const& vrfName);
  ~MrouteTable() override;
  void doListAdd(Mroute* r);
  void doListRemove(Mroute* r);

  L3::VrfName vrfName_;
  Wirly::AddressFamily af_ = Wirly::ipv4;
  MrouteMap mroute_;
  // The routes of mroute_ again, densely, for walks; deletions leave null
  // holes that are closed once they are half the list.
  std::vector<Mroute*> mrouteList_;
  std::size_t mrouteListHoles_ = 0;
  Kiv::Ptr<DirtyInfo> dirtyInfo_;
  BoundaryMrouteMap boundaryMroute_;
  Kiv::Ptr<DirtyInfo> boundaryDirtyInfo_;
  U32 vlanFilter_ = 0;
  std::vector<U32> vlanFilterCounter_;
  U32 reviews_ = 0;
  U32 recomputations_ = 0;
  U32 noChangeRecomputations_ = 0;
  U16 fastdropCount_ = 0;
  U16 boundaryFastdropCount_ = 0;
  bool mroutesInitialized_ = false;
  U32 mrouteBatchVersion_ = 0;
  bool initialized_ = false;
};

class MrouteTable::MrouteList {
 public:
  // Far enough ahead to cover a memory access, near enough to stay cached.
  static constexpr std::ptrdiff_t kAhead = 16;

  class iterator {
   public:
    iterator(Mroute* const* p, Mroute* const* end) : p_(p), end_(end) { skipHoles(); }
    Mroute& operator*() const { return **p_; }
    Mroute* operator->() const { return *p_; }
    iterator& operator++() {
      ++p_;
      skipHoles();
      if (end_ - p_ > kAhead && p_[kAhead]) __builtin_prefetch(p_[kAhead]->hotLine());
      return *this;
    }
    bool operator==(iterator const& o) const { return p_ == o.p_; }

   private:
    void skipHoles() {
      while (p_ != end_ && *p_ == nullptr) ++p_;
    }
    Mroute* const* p_;
    Mroute* const* end_;
  };

  MrouteList(Mroute* const* begin, Mroute* const* end) : begin_(begin), end_(end) {}
  iterator begin() const {
    for (std::ptrdiff_t i = 0; i < kAhead && i < end_ - begin_; ++i) {
      if (begin_[i]) __builtin_prefetch(begin_[i]->hotLine());
    }
    return iterator(begin_, end_);
  }
  iterator end() const { return iterator(end_, end_); }

 private:
  Mroute* const* begin_;
  Mroute* const* end_;
};

inline MrouteTable::MrouteList MrouteTable::mrouteList() const {
  return MrouteList(mrouteList_.data(), mrouteList_.data() + mrouteList_.size());
}

// The root of the model for one address family.
class MrouteTableColl : public Kiv::Entity {
 public:
  using VrfMrouteTableMap = std::unordered_map<L3::VrfName, Kiv::Ptr<MrouteTable>>;
  using OifSetMap = std::unordered_map<PortVlanSet, OifSetPtr, PortVlanSetHash>;

  class NotifieeConst : public Kiv::NotifieeConstBase<MrouteTableColl> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onAf() {}
    virtual void onVrfMrouteTable(L3::VrfName const&) {}
    virtual void onL2FloodsetTable() {}
    virtual void onOifSet(PortVlanSet const&) {}
  };

  static Kiv::Ptr<MrouteTableColl> MrouteTableCollIs(Wirly::AddressFamily af) { return new MrouteTableColl(af); }
  KIV_REFLECT_BEGIN(MrouteTableColl, "MrouteLib::MrouteTableColl")

  MROUTELIB_ATTR(Wirly::AddressFamily, af, Af)

  Kiv::Ptr<MrouteTable> vrfMrouteTable(L3::VrfName const& vrf) const;
  VrfMrouteTableMap const& vrfMrouteTableMap() const { return vrfMrouteTable_; }
  // The VRF's table, made (and notified) when there is none.
  Kiv::Ptr<MrouteTable> vrfMrouteTableIs(L3::VrfName const& vrf);
  void vrfMrouteTableDel(L3::VrfName const& vrf);
  void vrfMrouteTableDelAll();
  KIV_REFLECT_COLLECTION_BY_KEY(vrfMrouteTable, L3::VrfName, vrfMrouteTable_.size(), vrfMrouteTable_)

  Kiv::Ptr<MrouteTable> const& l2FloodsetTable() const { return l2FloodsetTable_; }
  // The flood-set table when it has this name; otherwise a new one replaces it.
  Kiv::Ptr<MrouteTable> l2FloodsetTableIs(L3::VrfName const& vrf);
  void l2FloodsetTableDel();
  KIV_REFLECT_POINTER_DEL(l2FloodsetTable)

  // The registry. Keys are found by PortVlanSet::hash(), so a key's hash
  // must be saved (saveHash) before it goes in or is looked up.
  OifSetMap const& oifSetMap() const { return oifSet_; }
  std::size_t oifSets() const { return oifSet_.size(); }
  OifSetPtr oifSet(PortVlanSet const& s) const;
  bool oifSetHas(PortVlanSet const& s) const { return oifSet_.count(s) != 0; }
  // A null OifSetPtr removes.
  void oifSetIs(PortVlanSet const& s, OifSetPtr p);
  void oifSetDel(PortVlanSet const& s);
  void oifSetDelAll();
  // Read-only by name: the sets register and unregister themselves, and a
  // PortVlanSet has no constructor from text.
  KIV_REFLECT_COLLECTION_RO(oifSet, PortVlanSet, oifSets(), oifSet_)
  KIV_REFLECT_END

  // The registered OifSet of this content, made when there is none: saves
  // the set's hash, looks it up, and on a miss makes the OifSet, which
  // registers itself. The caller holds the only counts; when the last goes
  // the set leaves the registry.
  //
  //   route->oifSetIs(coll->oifSetFor(computedSet));
  Kiv::Ptr<OifSet> oifSetFor(PortVlanSet set);

 private:
  explicit MrouteTableColl(Wirly::AddressFamily af) : af_(af) {}
  ~MrouteTableColl() override;

  Wirly::AddressFamily af_;
  VrfMrouteTableMap vrfMrouteTable_;
  Kiv::Ptr<MrouteTable> l2FloodsetTable_;
  OifSetMap oifSet_;
};

// One change the agent is recording, and how many of each kind it has seen.
class DirtyChangeSet : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<DirtyChangeSet> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onVlanId() {}
    virtual void onPort() {}
    virtual void onEthGroup() {}
    virtual void onLag() {}
    virtual void onDirtyVlanCount() {}
    virtual void onDirtyVlanPortCount() {}
    virtual void onDirtyVlanGroupCount() {}
    virtual void onDirtyLagCount() {}
    virtual void onAllVlansDirtyCount() {}
  };

  static Kiv::Ptr<DirtyChangeSet> DirtyChangeSetIs() { return new DirtyChangeSet(); }
  KIV_REFLECT_BEGIN(DirtyChangeSet, "MrouteLib::DirtyChangeSet")

  MROUTELIB_ATTR(VlanIdOrNone, vlanId, VlanId)
  MROUTELIB_ATTR(Wirly::IntfId, port, Port)
  MROUTELIB_ATTR(Wirly::EthAddr, ethGroup, EthGroup)
  MROUTELIB_ATTR(Wirly::IntfId, lag, Lag)
  MROUTELIB_COUNTER(U32, dirtyVlanCount, DirtyVlanCount)
  MROUTELIB_COUNTER(U32, dirtyVlanPortCount, DirtyVlanPortCount)
  MROUTELIB_COUNTER(U32, dirtyVlanGroupCount, DirtyVlanGroupCount)
  MROUTELIB_COUNTER(U32, dirtyLagCount, DirtyLagCount)
  MROUTELIB_COUNTER(U32, allVlansDirtyCount, AllVlansDirtyCount)
  KIV_REFLECT_END

 private:
  DirtyChangeSet() = default;

  VlanIdOrNone vlanId_;
  Wirly::IntfId port_;
  Wirly::EthAddr ethGroup_;
  Wirly::IntfId lag_;
  U32 dirtyVlanCount_ = 0;
  U32 dirtyVlanPortCount_ = 0;
  U32 dirtyVlanGroupCount_ = 0;
  U32 dirtyLagCount_ = 0;
  U32 allVlansDirtyCount_ = 0;
};

// Requests to review the routes of a VRF: one number per VRF for IPv4
// (review) and IPv6 (review6). Observers of an entry review that VRF.
class ReviewInfo : public Kiv::Entity {
 public:
  using ReviewMap = std::unordered_map<L3::VrfName, U32>;

  class NotifieeConst : public Kiv::NotifieeConstBase<ReviewInfo> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onReview(L3::VrfName const&) {}
    virtual void onReview6(L3::VrfName const&) {}
  };

  static Kiv::Ptr<ReviewInfo> ReviewInfoIs() { return new ReviewInfo(); }
  KIV_REFLECT_BEGIN(ReviewInfo, "MrouteLib::ReviewInfo")

  // 0 when the VRF has no entry.
  U32 review(L3::VrfName const& vrf) const;
  ReviewMap const& reviewMap() const { return review_; }
  void reviewIs(L3::VrfName const& vrf, U32 n);
  void reviewDel(L3::VrfName const& vrf);
  void reviewDelAll();
  KIV_REFLECT_COLLECTION(review, L3::VrfName, review_.size(), review_)
  U32 review6(L3::VrfName const& vrf) const;
  ReviewMap const& review6Map() const { return review6_; }
  void review6Is(L3::VrfName const& vrf, U32 n);
  void review6Del(L3::VrfName const& vrf);
  void review6DelAll();
  KIV_REFLECT_COLLECTION(review6, L3::VrfName, review6_.size(), review6_)
  KIV_REFLECT_END

 private:
  ReviewInfo() = default;

  ReviewMap review_;
  ReviewMap review6_;
};

// On which VLANs a static multicast NAT rule applies for one address. A
// value holding a collection: no constructor from text.
class StaticNatIpInfo {
 public:
  using VlanMap = std::unordered_map<VlanId, bool>;
  // Refused, not asserted, when read from text by name.
  static constexpr bool kivNoTextConstructor = true;

  VlanMap const& vlan() const { return vlan_; }
  bool vlan(VlanId v) const;
  void vlanIs(VlanId v, bool on) { vlan_[v] = on; }
  bool vlanDel(VlanId v) { return vlan_.erase(v) != 0; }
  void vlanDelAll() { vlan_.clear(); }

  std::string valueToStrep() const;
  // Always fails: the value holds a collection.
  [[noreturn]] static StaticNatIpInfo fromStrep(std::string_view text);

  friend bool operator==(StaticNatIpInfo const& a, StaticNatIpInfo const& b) { return &a == &b || a.vlan_ == b.vlan_; }

 private:
  VlanMap vlan_;
};

// Static multicast NAT rules by address.
class StaticNatInfo : public Kiv::Entity {
 public:
  using IpInfoMap = std::unordered_map<Wirly::IpGenAddr, StaticNatIpInfo>;

  class NotifieeConst : public Kiv::NotifieeConstBase<StaticNatInfo> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onIpInfo(Wirly::IpGenAddr const&) {}
    virtual void onIpInfokivImmediate(Wirly::IpGenAddr const&) {}
  };

  static Kiv::Ptr<StaticNatInfo> StaticNatInfoIs() { return new StaticNatInfo(); }
  KIV_REFLECT_BEGIN(StaticNatInfo, "MrouteLib::StaticNatInfo")

  // An empty value when the address has no entry.
  StaticNatIpInfo ipInfo(Wirly::IpGenAddr const& a) const;
  IpInfoMap const& ipInfoMap() const { return ipInfo_; }
  // An equal value already stored changes nothing and notifies nobody.
  void ipInfoIs(Wirly::IpGenAddr const& a, StaticNatIpInfo const& info);
  void ipInfoDel(Wirly::IpGenAddr const& a);
  void ipInfoDelAll();
  KIV_REFLECT_COLLECTION(ipInfo, Wirly::IpGenAddr, ipInfo_.size(), ipInfo_)
  KIV_REFLECT_END

 private:
  StaticNatInfo() = default;
  void ipInfoNotify(Wirly::IpGenAddr const& a);

  IpInfoMap ipInfo_;
};

// The factories an agent builds the model with.
Kiv::Ptr<MrouteTableColl> mrouteTableCollFactory(Wirly::AddressFamily af = Wirly::ipv4);
Kiv::Ptr<MrouteTable> mrouteTableFactory(L3::VrfName const& vrfName);
Kiv::Ptr<OifSet> oifSetFactory(Kiv::Ptr<MrouteTableColl> const& coll, PortVlanSet const& portVlanSet);
Kiv::Ptr<BoundaryMroute> boundaryMrouteFactory(IpGenRouteKey const& key, MrouteTable* table);
Kiv::Ptr<DirtyInfo> dirtyInfoFactory();
Kiv::Ptr<DirtyChangeSet> dirtyChangeSetFactory();
Kiv::Ptr<ReviewInfo> reviewInfoFactory();
Kiv::Ptr<StaticNatInfo> staticNatInfoFactory();

}  // namespace MrouteLib

#undef MROUTELIB_COUNTER
#undef MROUTELIB_ATTR
