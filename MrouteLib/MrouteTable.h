// MrouteTable: the routes and boundary routes of one VRF by key. Its
// fastdropCount is always the sum of its routes' fastdropCount (and
// boundaryFastdropCount of its boundary routes'), through every edit,
// clear, delete and destruction. Counters wrap at their width.
#ifndef MROUTELIB_MODEL_
// The entities that point at each other are defined together (MrouteLib.h).
#include "MrouteLib/MrouteLib.h"
#elif !defined(MROUTELIB_MROUTE_TABLE_H)
#define MROUTELIB_MROUTE_TABLE_H

#include <cstddef>
#include <map>
#include <unordered_map>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/Attr.h"
#include "MrouteLib/BoundaryMroute.h"
#include "MrouteLib/DirtyInfo.h"
#include "MrouteLib/Mroute.h"
#include "MrouteLib/PortVlanSet.h"
#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/VrfName.h"
#include "Wirly/AddressFamily.h"

namespace MrouteLib {

using Routing::Multicast::Fib::IpGenRouteKey;

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

}  // namespace MrouteLib

#endif  // MROUTELIB_MROUTE_TABLE_H
