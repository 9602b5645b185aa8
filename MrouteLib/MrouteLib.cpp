#include "MrouteLib/MrouteLib.h"

#include <ios>
#include <sstream>

#include "Kiv/Assert.h"
#include "Kiv/CollectionAttr.h"
#include "Kiv/Trace.h"
#include "MrouteLib/SlotPool.h"

namespace MrouteLib {

namespace {

Kiv::TraceHandle& th() {
  static Kiv::TraceHandle handle("MrouteLib");
  return handle;
}

}  // namespace

// ---- OifSet ----

OifSet::OifSet(MrouteTableColl* mrouteTable, PortVlanSet const& portVlanSet)
    : mrouteTable_(mrouteTable), portVlanSet_(portVlanSet) {
  handleInitialized();
}

OifSet::~OifSet() { handleDel(); }

void OifSet::handleInitialized() {
  KIV_TRACE(th(), 9,
            "void MrouteLib::OifSet::handleInitialized()"
                << " " << portVlanSet_);
  KIV_ASSERT(!initialized());
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
  if (!mrouteTable_) return;
  // The assertion's text is what operators grep for: keep its spelling.
  // clang-format off
  KIV_ASSERT(!mrouteTable_->oifSetHas( portVlanSet() ));
  // clang-format on
  mrouteTable_->oifSetIs(portVlanSet_, OifSetPtr(this));
}

void OifSet::handleDel() {
  KIV_TRACE(th(), 9,
            "void MrouteLib::OifSet::handleDel()"
                << " " << portVlanSet_);
  if (!mrouteTable_ || mrouteTable_->oifSetMap().empty()) return;
  // Only its own entry: a set that never got registered must not take a
  // live set's entry with it.
  if (mrouteTable_->oifSet(portVlanSet_).ptr() != this) return;
  mrouteTable_->oifSetDel(portVlanSet_);
}

OifSetPtr OifSetPtr::fromStrep(std::string_view text) {
  if (text.find("Value(") == std::string_view::npos) return OifSetPtr(Kiv::valueFromStrep<OifSet*>(text));
  Kiv::ValueReader r(text, "MrouteLib::OifSetPtr");
  OifSetPtr p(r.isNone("ptr") ? nullptr : r.get<OifSet*>("ptr"));
  r.done();
  return p;
}

// ---- Mroute ----

namespace {

// Under AddressSanitizer routes come from the global allocator, so that
// use after free is still caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

// Never destroyed: routes may be released by static destructors of other
// translation units.
SlotPool& routePool() {
  static SlotPool* pool = new SlotPool(sizeof(Mroute));
  return *pool;
}

}  // namespace

void* Mroute::operator new(std::size_t bytes) {
  if (!kPooled || bytes != sizeof(Mroute)) return ::operator new(bytes);
  return routePool().allocate();
}

void Mroute::operator delete(void* p, std::size_t bytes) {
  if (!kPooled || bytes != sizeof(Mroute)) {
    ::operator delete(p);
    return;
  }
  routePool().deallocate(p);
}

Mroute::~Mroute() { handleDel(); }

U16 Mroute::rpfFailureCount(VlanId v) const {
  U16 const* c = rpfFailureCount_.find(v);
  return c ? *c : 0;
}

void Mroute::rpfFailureCountIs(VlanId v, U16 count) {
  if (!rpfFailureCount_.set(v, count)) return;
  notify(&NotifieeConst::onRpfFailureCountkivImmediate, v);
  notify(&NotifieeConst::onRpfFailureCount, v);
}

void Mroute::rpfFailureCountDel(VlanId v) {
  if (!rpfFailureCount_.erase(v)) return;
  notify(&NotifieeConst::onRpfFailureCountkivImmediate, v);
  notify(&NotifieeConst::onRpfFailureCount, v);
}

void Mroute::rpfFailureCountDelAll() {
  for (VlanId v : Kiv::keysOf(rpfFailureCount_)) rpfFailureCountDel(v);
}

Kiv::Ptr<OifSet> Mroute::fastdrop(VlanId v) const {
  Kiv::Ptr<OifSet> const* p = fastdrop_.find(v);
  return p ? *p : Kiv::Ptr<OifSet>();
}

void Mroute::fastdropIs(VlanId v, Kiv::Ptr<OifSet> const& oifSet) {
  // A null set removes the entry; an unchanged one is no change.
  if (!(oifSet ? fastdrop_.set(v, oifSet) : fastdrop_.erase(v))) return;
  handleFastdrop(v);
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void Mroute::fastdropDel(VlanId v) {
  // The removed set is released only after the recount and the
  // notification, so that observers still see it alive.
  Kiv::Ptr<OifSet> old;
  if (!fastdrop_.erase(v, &old)) return;
  handleFastdrop(v);
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void Mroute::fastdropDelAll() {
  for (VlanId v : Kiv::keysOf(fastdrop_)) fastdropDel(v);
}

Wirly::IntfId Mroute::oifIndexIntfIdCache(OifIndex i) const {
  Wirly::IntfId const* id = oifIndexIntfIdCache_.find(i);
  return id ? *id : Wirly::IntfId();
}

void Mroute::oifIndexIntfIdCacheIs(OifIndex i, Wirly::IntfId id) {
  if (!oifIndexIntfIdCache_.set(i, id)) return;
  notify(&NotifieeConst::onOifIndexIntfIdCachekivImmediate, i);
  notify(&NotifieeConst::onOifIndexIntfIdCache, i);
}

void Mroute::oifIndexIntfIdCacheDel(OifIndex i) {
  if (!oifIndexIntfIdCache_.erase(i)) return;
  notify(&NotifieeConst::onOifIndexIntfIdCachekivImmediate, i);
  notify(&NotifieeConst::onOifIndexIntfIdCache, i);
}

void Mroute::oifIndexIntfIdCacheDelAll() {
  for (OifIndex i : Kiv::keysOf(oifIndexIntfIdCache_)) oifIndexIntfIdCacheDel(i);
}

void Mroute::handleFastdrop(VlanId) {
  KIV_TRACE(th(), 9, "void MrouteLib::Mroute::handleFastdrop(Bridging::VlanId)");
  handleFastdrop();
}

void Mroute::handleFastdrop() {
  KIV_TRACE(th(), 9, "void MrouteLib::Mroute::handleFastdrop()");
  if (!mrouteTable_) return;
  mrouteTable_->fastdropCountDec(fastdropCount_);
  fastdropCountIs(static_cast<U16>(fastdrop_.size()));
  mrouteTable_->fastdropCountInc(fastdropCount_);
  fastdropDirtyIs(true);
}

void Mroute::doClearFastdrop() {
  KIV_TRACE(th(), 9, "void MrouteLib::Mroute::doClearFastdrop()");
  // Dropped without per-entry notification: the one recount below tells
  // observers (fastdropCount, fastdropDirty) that the entries went.
  FastdropMap gone;
  std::swap(gone, fastdrop_);
  rpfFailureCount_.clear();
  handleFastdrop();
}

void Mroute::handleDel() {
  KIV_TRACE(th(), 9, "void MrouteLib::Mroute::handleDel()");
  doClearFastdrop();
}

void Mroute::doDetachTable(bool uncount) {
  if (!mrouteTable_) return;
  if (uncount) mrouteTable_->fastdropCountDec(fastdropCount_);
  mrouteTable_ = nullptr;
  notify(&NotifieeConst::onMrouteTable);
}

// ---- BoundaryMroute ----

BoundaryMroute::~BoundaryMroute() = default;

Kiv::Ptr<OifSet> BoundaryMroute::fastdrop(VlanId v) const {
  Kiv::Ptr<OifSet> const* p = fastdrop_.find(v);
  return p ? *p : Kiv::Ptr<OifSet>();
}

void BoundaryMroute::fastdropIs(VlanId v, Kiv::Ptr<OifSet> const& oifSet) {
  // A null set removes the entry; an unchanged one is no change.
  if (!(oifSet ? fastdrop_.set(v, oifSet) : fastdrop_.erase(v))) return;
  handleFastdrop();
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void BoundaryMroute::fastdropDel(VlanId v) {
  Kiv::Ptr<OifSet> old;
  if (!fastdrop_.erase(v, &old)) return;
  handleFastdrop();
  notify(&NotifieeConst::onFastdropkivImmediate, v);
  notify(&NotifieeConst::onFastdrop, v);
}

void BoundaryMroute::fastdropDelAll() {
  for (VlanId v : Kiv::keysOf(fastdrop_)) fastdropDel(v);
}

void BoundaryMroute::handleFastdrop() {
  KIV_TRACE(th(), 9, "void MrouteLib::BoundaryMroute::handleFastdrop()");
  if (!mrouteTable_) {
    KIV_TRACE(th(), 9, "mrt is NULL");
    return;
  }
  KIV_TRACE(th(), 9, "fastdropCount: " << fastdropCount_ << ", total fastdrops: " << fastdrop_.size());
  mrouteTable_->boundaryFastdropCountDec(fastdropCount_);
  fastdropCountIs(static_cast<U16>(fastdrop_.size()));
  mrouteTable_->boundaryFastdropCountInc(fastdropCount_);
  fastdropDirtyIs(true);
}

void BoundaryMroute::doClearFastdrop() {
  KIV_TRACE(th(), 9, "void MrouteLib::BoundaryMroute::doClearFastdrop()");
  fastdropDelAll();
  handleFastdrop();
}

void BoundaryMroute::doDetachTable(bool uncount) {
  if (!mrouteTable_) return;
  if (uncount) mrouteTable_->boundaryFastdropCountDec(fastdropCount_);
  mrouteTable_ = nullptr;
  notify(&NotifieeConst::onMrouteTable);
}

// ---- DirtyInfo ----

void DirtyInfo::dirtyGroupSetIs(Wirly::IpGenAddr const& a, bool dirty) {
  auto [it, added] = dirtyGroupSet_.try_emplace(a, dirty);
  if (!added && !Kiv::changed(it->second, dirty)) return;
  dirtyGroupSetNotify(a);
}

void DirtyInfo::dirtyGroupSetDel(Wirly::IpGenAddr const& a) {
  if (dirtyGroupSet_.erase(a)) dirtyGroupSetNotify(a);
}

void DirtyInfo::dirtyGroupSetDelAll() {
  for (auto const& a : Kiv::keysOf(dirtyGroupSet_)) dirtyGroupSetDel(a);
}

void DirtyInfo::dirtyNatSrcIs(Wirly::IpGenAddr const& a, bool dirty) {
  auto [it, added] = dirtyNatSrc_.try_emplace(a, dirty);
  if (!added && !Kiv::changed(it->second, dirty)) return;
  dirtyNatSrcNotify(a);
}

void DirtyInfo::dirtyNatSrcDel(Wirly::IpGenAddr const& a) {
  if (dirtyNatSrc_.erase(a)) dirtyNatSrcNotify(a);
}

void DirtyInfo::dirtyNatSrcDelAll() {
  for (auto const& a : Kiv::keysOf(dirtyNatSrc_)) dirtyNatSrcDel(a);
}

bool DirtyInfo::isDirty() const {
  return dirtyRoute_ || dirtyVlan_ != 0 || dirtyVlanPort_ != 0 || dirtyVlanGroup_ != 0 || dirtyLag_ != 0 ||
         !dirtyGroupSet_.empty() || !dirtyNatSrc_.empty();
}

void DirtyInfo::clear() {
  dirtyRouteIs(false);
  dirtyVlanIs(0);
  dirtyVlanPortIs(0);
  dirtyVlanGroupIs(0);
  dirtyLagIs(0);
  dirtyGroupSetDelAll();
  dirtyNatSrcDelAll();
}

void DirtyInfo::mergeWith(Kiv::PtrConst<DirtyInfo> const& other) {
  if (!other) return;
  dirtyVlanIs(dirtyVlan_ | other->dirtyVlan_);
  dirtyVlanPortIs(dirtyVlanPort_ | other->dirtyVlanPort_);
  dirtyVlanGroupIs(dirtyVlanGroup_ | other->dirtyVlanGroup_);
  dirtyLagIs(dirtyLag_ | other->dirtyLag_);
  dirtyRouteIs(dirtyRoute_ || other->dirtyRoute_);
  // An entry pending in the other means its routes must be looked at again,
  // whatever the other had decided for them.
  for (auto const& [a, v] : other->dirtyGroupSet_) dirtyGroupSetIs(a, true);
  for (auto const& [a, v] : other->dirtyNatSrc_) dirtyNatSrcIs(a, true);
}

bool DirtyInfo::boundaryDirty(Kiv::PtrConst<BoundaryMroute> const& route) const {
  BoundaryMroute const& r = *route;
  return r.dirty() || (dirtyVlan_ & r.vlanFilter()) != 0 || (dirtyVlanPort_ & r.vlanPortFilter()) != 0 ||
         (dirtyVlanGroup_ & r.vlanGroupFilter()) != 0 || (dirtyLag_ & r.lagFilter()) != 0;
}

std::string DirtyInfo::mrouteDirtyInfoStr(Kiv::PtrConst<Mroute> const& route) const {
  auto entry = [](AddrMap const& m, Wirly::IpGenAddr const& a) {
    auto it = m.find(a);
    return it != m.end() && it->second ? 1 : 0;
  };
  std::ostringstream os;
  os << std::hex << route->vlanFilter() << ' ' << route->vlanPortFilter() << ' ' << route->vlanGroupFilter() << ' '
     << route->lagFilter() << ' ' << dirtyVlan_ << ' ' << dirtyVlanPort_ << ' ' << dirtyVlanGroup_ << ' '
     << entry(dirtyNatSrc_, route->key().source().address()) << ' '
     << entry(dirtyGroupSet_, route->key().group().address()) << ' ' << dirtyLag_;
  return os.str();
}

// ---- MrouteTable ----

MrouteTable::MrouteTable(L3::VrfName const& vrfName) : Kiv::Entity(Kiv::Name(vrfName.str())), vrfName_(vrfName) {
  handleInitialized();
}

MrouteTable::~MrouteTable() {
  // Routes that outlive the table must not reach back into it.
  for (auto const& [k, r] : mroute_) r->doDetachTable(false);
  for (auto const& [k, r] : boundaryMroute_) r->doDetachTable(false);
}

void MrouteTable::handleInitialized() { KIV_ASSERT(!initialized()); }

Kiv::Ptr<Mroute> const& MrouteTable::mroute(IpGenRouteKey const& key) const {
  static Kiv::Ptr<Mroute> const none;
  auto it = mroute_.find(key);
  return it == mroute_.end() ? none : it->second;
}

void MrouteTable::doListAdd(Mroute* r) {
  r->listIndex_ = static_cast<U32>(mrouteList_.size());
  mrouteList_.push_back(r);
}

void MrouteTable::doListRemove(Mroute* r) {
  KIV_ASSERT(mrouteList_[r->listIndex_] == r);
  mrouteList_[r->listIndex_] = nullptr;
  ++mrouteListHoles_;
  while (!mrouteList_.empty() && mrouteList_.back() == nullptr) {
    mrouteList_.pop_back();
    --mrouteListHoles_;
  }
  // Closing holes touches every remaining route once; waiting until they
  // are half the list keeps that to a constant per deletion.
  if (mrouteListHoles_ < 64 || mrouteListHoles_ * 2 < mrouteList_.size()) return;
  std::size_t n = 0;
  for (Mroute* m : mrouteList_) {
    if (!m) continue;
    m->listIndex_ = static_cast<U32>(n);
    mrouteList_[n++] = m;
  }
  mrouteList_.resize(n);
  mrouteListHoles_ = 0;
}

Kiv::Ptr<Mroute> MrouteTable::mrouteIs(IpGenRouteKey const& key) {
  auto [it, added] = mroute_.try_emplace(key);
  if (!added) return it->second;
  it->second = new Mroute(key, this);
  Kiv::Ptr<Mroute> r = it->second;
  doListAdd(r.ptr());
  notify(&NotifieeConst::onMroute, key);
  return r;
}

void MrouteTable::mrouteDel(IpGenRouteKey const& key) {
  Kiv::Ptr<Mroute> r = Kiv::entryTake(mroute_, key);
  if (!r) return;
  doListRemove(r.ptr());
  notify(&NotifieeConst::onMroute, key);
  // Held elsewhere, the route would go on counting into a table that no
  // longer has it, and could outlive the table.
  if (r->references() > 1) r->doDetachTable(true);
}

void MrouteTable::mrouteDelAll() {
  for (auto const& k : Kiv::keysOf(mroute_)) mrouteDel(k);
}

Kiv::Ptr<BoundaryMroute> MrouteTable::boundaryMroute(IpGenRouteKey const& key) const {
  auto it = boundaryMroute_.find(key);
  return it == boundaryMroute_.end() ? Kiv::Ptr<BoundaryMroute>() : it->second;
}

Kiv::Ptr<BoundaryMroute> MrouteTable::boundaryMrouteIs(IpGenRouteKey const& key) {
  auto [it, added] = boundaryMroute_.try_emplace(key);
  if (!added) return it->second;
  it->second = new BoundaryMroute(key, this);
  Kiv::Ptr<BoundaryMroute> r = it->second;
  notify(&NotifieeConst::onBoundaryMroute, key);
  return r;
}

void MrouteTable::boundaryMrouteDel(IpGenRouteKey const& key) {
  Kiv::Ptr<BoundaryMroute> r = Kiv::entryTake(boundaryMroute_, key);
  if (!r) return;
  notify(&NotifieeConst::onBoundaryMroute, key);
  // A boundary route keeps its entries when it goes, so its count leaves
  // the table here, whoever else still holds it.
  r->doDetachTable(true);
}

void MrouteTable::boundaryMrouteDelAll() {
  for (auto const& k : Kiv::keysOf(boundaryMroute_)) boundaryMrouteDel(k);
}

Kiv::Ptr<DirtyInfo> MrouteTable::dirtyInfoIs() {
  if (!dirtyInfo_) {
    dirtyInfo_ = dirtyInfoFactory();
    notify(&NotifieeConst::onDirtyInfo);
  }
  return dirtyInfo_;
}

void MrouteTable::dirtyInfoDel() {
  if (!dirtyInfo_) return;
  dirtyInfo_ = nullptr;
  notify(&NotifieeConst::onDirtyInfo);
}

Kiv::Ptr<DirtyInfo> MrouteTable::boundaryDirtyInfoIs() {
  if (!boundaryDirtyInfo_) {
    boundaryDirtyInfo_ = dirtyInfoFactory();
    notify(&NotifieeConst::onBoundaryDirtyInfo);
  }
  return boundaryDirtyInfo_;
}

void MrouteTable::boundaryDirtyInfoDel() {
  if (!boundaryDirtyInfo_) return;
  boundaryDirtyInfo_ = nullptr;
  notify(&NotifieeConst::onBoundaryDirtyInfo);
}

void MrouteTable::vlanFilterCounterIs(U8 bit, U32 count) {
  if (vlanFilterCounter(bit) == count) return;
  if (bit >= vlanFilterCounter_.size()) vlanFilterCounter_.resize(bit + 1u, 0);
  vlanFilterCounter_[bit] = count;
  notify(&NotifieeConst::onVlanFilterCounter, bit);
}

U32 MrouteTable::vlanFilterCounterInc(U8 bit, U32 delta) {
  vlanFilterCounterIs(bit, vlanFilterCounter(bit) + delta);
  return vlanFilterCounter(bit);
}

U32 MrouteTable::vlanFilterCounterDec(U8 bit, U32 delta) {
  vlanFilterCounterIs(bit, vlanFilterCounter(bit) - delta);
  return vlanFilterCounter(bit);
}

std::map<U8, U32> MrouteTable::vlanFilterCounterMap() const {
  std::map<U8, U32> out;
  for (std::size_t i = 0; i < vlanFilterCounter_.size(); ++i) out.emplace(static_cast<U8>(i), vlanFilterCounter_[i]);
  return out;
}

void MrouteTable::vlanFilterCounterDelAll() {
  for (std::size_t i = 0; i < vlanFilterCounter_.size(); ++i) vlanFilterCounterIs(static_cast<U8>(i), 0);
  vlanFilterCounter_.clear();
}

void MrouteTable::doUpdateVrfVlanFilter(U32 mrtVlanFilter, U32 chgMrtVlanFilter) {
  KIV_TRACE(th(), 9,
            "void MrouteLib::MrouteTable::doUpdateVrfVlanFilter(U32, U32)"
                << " ( " << std::hex << mrtVlanFilter << ", " << chgMrtVlanFilter << " )");
  if (chgMrtVlanFilter == 0) {
    KIV_TRACE(th(), 8, "   No change");
    return;
  }
  for (U8 i = 0; i < 32; ++i) {
    U32 const bit = U32(1) << i;
    if ((chgMrtVlanFilter & bit) == 0) continue;
    if (mrtVlanFilter & bit) {
      U32 const n = vlanFilterCounterInc(i, 1);
      KIV_TRACE(th(), 8, "  Incrementing count for bit " << unsigned(i) << " now: " << n);
    } else {
      U32 const n = vlanFilterCounterDec(i, 1);
      KIV_TRACE(th(), 8, "  Decrementing count for bit " << unsigned(i) << " now: " << n);
    }
    KIV_TRACE(th(), 8, "  oldVlanFilter: " << std::hex << vlanFilter_);
    vlanFilterIs(vlanFilterCounter(i) != 0 ? vlanFilter_ | bit : vlanFilter_ & ~bit);
    KIV_TRACE(th(), 8, "  newVlanFilter: " << std::hex << vlanFilter_);
  }
}

// ---- MrouteTableColl ----

MrouteTableColl::~MrouteTableColl() {
  // Sets held by routes elsewhere must not reach back into a freed registry.
  for (auto const& [s, p] : oifSet_) {
    if (p.ptr()) p.ptr()->mrouteTable_ = nullptr;
  }
  oifSet_.clear();
}

Kiv::Ptr<MrouteTable> MrouteTableColl::vrfMrouteTable(L3::VrfName const& vrf) const {
  auto it = vrfMrouteTable_.find(vrf);
  return it == vrfMrouteTable_.end() ? Kiv::Ptr<MrouteTable>() : it->second;
}

Kiv::Ptr<MrouteTable> MrouteTableColl::vrfMrouteTableIs(L3::VrfName const& vrf) {
  auto [it, added] = vrfMrouteTable_.try_emplace(vrf);
  if (!added) return it->second;
  it->second = MrouteTable::MrouteTableIs(vrf);
  Kiv::Ptr<MrouteTable> t = it->second;
  notify(&NotifieeConst::onVrfMrouteTable, vrf);
  return t;
}

void MrouteTableColl::vrfMrouteTableDel(L3::VrfName const& vrf) {
  if (Kiv::entryTake(vrfMrouteTable_, vrf)) notify(&NotifieeConst::onVrfMrouteTable, vrf);
}

void MrouteTableColl::vrfMrouteTableDelAll() {
  for (auto const& v : Kiv::keysOf(vrfMrouteTable_)) vrfMrouteTableDel(v);
}

Kiv::Ptr<MrouteTable> MrouteTableColl::l2FloodsetTableIs(L3::VrfName const& vrf) {
  if (l2FloodsetTable_ && l2FloodsetTable_->vrfName() == vrf) return l2FloodsetTable_;
  l2FloodsetTable_ = MrouteTable::MrouteTableIs(vrf);
  notify(&NotifieeConst::onL2FloodsetTable);
  return l2FloodsetTable_;
}

void MrouteTableColl::l2FloodsetTableDel() {
  if (!l2FloodsetTable_) return;
  l2FloodsetTable_ = nullptr;
  notify(&NotifieeConst::onL2FloodsetTable);
}

OifSetPtr MrouteTableColl::oifSet(PortVlanSet const& s) const {
  auto it = oifSet_.find(s);
  return it == oifSet_.end() ? OifSetPtr() : it->second;
}

void MrouteTableColl::oifSetIs(PortVlanSet const& s, OifSetPtr p) {
  if (!Kiv::ptrEntryIs(oifSet_, s, p)) return;
  notify(&NotifieeConst::onOifSet, s);
}

void MrouteTableColl::oifSetDel(PortVlanSet const& s) {
  auto it = oifSet_.find(s);
  if (it == oifSet_.end()) return;
  // The key is about to go with the entry; observers get a copy.
  PortVlanSet const key = it->first;
  oifSet_.erase(it);
  notify(&NotifieeConst::onOifSet, key);
}

void MrouteTableColl::oifSetDelAll() {
  for (auto const& s : Kiv::keysOf(oifSet_)) oifSetDel(s);
}

Kiv::Ptr<OifSet> MrouteTableColl::oifSetFor(PortVlanSet set) {
  set.saveHash();
  auto it = oifSet_.find(set);
  if (it != oifSet_.end()) return it->second.ptr();
  return OifSet::OifSetIs(this, set);
}

// ---- ReviewInfo ----

namespace {

U32 reviewOf(ReviewInfo::ReviewMap const& m, L3::VrfName const& vrf) {
  auto it = m.find(vrf);
  return it == m.end() ? 0 : it->second;
}

bool reviewEntryIs(ReviewInfo::ReviewMap& m, L3::VrfName const& vrf, U32 n) {
  auto [it, added] = m.try_emplace(vrf, n);
  return added || Kiv::changed(it->second, n);
}

}  // namespace

U32 ReviewInfo::review(L3::VrfName const& vrf) const { return reviewOf(review_, vrf); }

void ReviewInfo::reviewIs(L3::VrfName const& vrf, U32 n) {
  if (reviewEntryIs(review_, vrf, n)) notify(&NotifieeConst::onReview, vrf);
}

void ReviewInfo::reviewDel(L3::VrfName const& vrf) {
  if (review_.erase(vrf)) notify(&NotifieeConst::onReview, vrf);
}

void ReviewInfo::reviewDelAll() {
  for (auto const& v : Kiv::keysOf(review_)) reviewDel(v);
}

U32 ReviewInfo::review6(L3::VrfName const& vrf) const { return reviewOf(review6_, vrf); }

void ReviewInfo::review6Is(L3::VrfName const& vrf, U32 n) {
  if (reviewEntryIs(review6_, vrf, n)) notify(&NotifieeConst::onReview6, vrf);
}

void ReviewInfo::review6Del(L3::VrfName const& vrf) {
  if (review6_.erase(vrf)) notify(&NotifieeConst::onReview6, vrf);
}

void ReviewInfo::review6DelAll() {
  for (auto const& v : Kiv::keysOf(review6_)) review6Del(v);
}

// ---- StaticNatIpInfo, StaticNatInfo ----

bool StaticNatIpInfo::vlan(VlanId v) const {
  auto it = vlan_.find(v);
  return it != vlan_.end() && it->second;
}

std::string StaticNatIpInfo::valueToStrep() const {
  return Kiv::ValueWriter("MrouteLib::StaticNatIpInfo").fieldNone("vlan").str();
}

StaticNatIpInfo StaticNatIpInfo::fromStrep(std::string_view) {
  KIV_ASSERT(!"No String constructor for StaticNatIpInfo - has collection");
  __builtin_unreachable();
}

StaticNatIpInfo StaticNatInfo::ipInfo(Wirly::IpGenAddr const& a) const {
  auto it = ipInfo_.find(a);
  return it == ipInfo_.end() ? StaticNatIpInfo() : it->second;
}

void StaticNatInfo::ipInfoIs(Wirly::IpGenAddr const& a, StaticNatIpInfo const& info) {
  auto [it, added] = ipInfo_.try_emplace(a, info);
  if (!added && !Kiv::changed(it->second, info)) return;
  ipInfoNotify(a);
}

void StaticNatInfo::ipInfoDel(Wirly::IpGenAddr const& a) {
  if (ipInfo_.erase(a)) ipInfoNotify(a);
}

void StaticNatInfo::ipInfoDelAll() {
  for (auto const& a : Kiv::keysOf(ipInfo_)) ipInfoDel(a);
}

void StaticNatInfo::ipInfoNotify(Wirly::IpGenAddr const& a) {
  notify(&NotifieeConst::onIpInfokivImmediate, a);
  notify(&NotifieeConst::onIpInfo, a);
}

// ---- Factories ----

Kiv::Ptr<MrouteTableColl> mrouteTableCollFactory(Wirly::AddressFamily af) {
  return MrouteTableColl::MrouteTableCollIs(af);
}

Kiv::Ptr<MrouteTable> mrouteTableFactory(L3::VrfName const& vrfName) { return MrouteTable::MrouteTableIs(vrfName); }

Kiv::Ptr<OifSet> oifSetFactory(Kiv::Ptr<MrouteTableColl> const& coll, PortVlanSet const& portVlanSet) {
  return OifSet::OifSetIs(coll.ptr(), portVlanSet);
}

Kiv::Ptr<BoundaryMroute> boundaryMrouteFactory(IpGenRouteKey const& key, MrouteTable* table) {
  return BoundaryMroute::BoundaryMrouteIs(key, table);
}

Kiv::Ptr<DirtyInfo> dirtyInfoFactory() { return DirtyInfo::DirtyInfoIs(); }
Kiv::Ptr<DirtyChangeSet> dirtyChangeSetFactory() { return DirtyChangeSet::DirtyChangeSetIs(); }
Kiv::Ptr<ReviewInfo> reviewInfoFactory() { return ReviewInfo::ReviewInfoIs(); }
Kiv::Ptr<StaticNatInfo> staticNatInfoFactory() { return StaticNatInfo::StaticNatInfoIs(); }

}  // namespace MrouteLib
