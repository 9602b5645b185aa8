// MrouteTableColl: the root of the route model for one address family:
// per-VRF tables, the layer-2 flood-set table, and the registry of
// OifSets by PortVlanSet, which empties when the last route lets go of
// its sets.
#ifndef MROUTELIB_MODEL_
// The entities that point at each other are defined together (MrouteLib.h).
#include "MrouteLib/MrouteLib.h"
#elif !defined(MROUTELIB_MROUTE_TABLE_COLL_H)
#define MROUTELIB_MROUTE_TABLE_COLL_H

#include <cstddef>
#include <unordered_map>

#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reflect.h"
#include "MrouteLib/Attr.h"
#include "MrouteLib/MrouteTable.h"
#include "MrouteLib/OifSet.h"
#include "MrouteLib/PortVlanSet.h"
#include "Schema/VrfName.h"
#include "Wirly/AddressFamily.h"

namespace MrouteLib {

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

}  // namespace MrouteLib

#endif  // MROUTELIB_MROUTE_TABLE_COLL_H
