// The small values of the multicast route model.
//
// PortVlanSet: everything that decides one hardware replication list of a
// route: the outgoing (interface, VLAN or logical interface) pairs, CPU
// copies, the accepting VLAN, NAT VLANs, a fast-reroute backup set and a few
// flags. Routes whose sets are equal share one OifSet (OifSet.h), so ==,
// < and hash() below decide which routes share hardware.
//
//   PortVlanSet s;
//   s.portVlanIs(PortVlan(Wirly::IntfId("Ethernet1"), Bridging::VlanId(10)), true);
//   s.acceptingVlanIdIs(Bridging::VlanId(20));
//   s.saveHash();                    // before comparing it or using it as a key
//
// Hash: a 32-bit one-at-a-time hash of the port-VLAN pairs, the NAT VLANs,
// the accepting VLAN, the current incoming interface and the backup pairs.
// The flags of the collections, toCpuPurpose, featureFlag, type, fastdrop and
// ignoreType stay out of it; equality tells such sets apart. hash() believes
// a saved hash (cachedHash != 0): a set edited after saveHash() must be saved
// again before it is compared or used as a key, and a set whose true hash is
// 0 is never cached.
//
// Equality compares the hashes first, then ignoreType, then type (unless
// both ignore it), then the collections and fields. Ordering compares type
// even when ignoreType is set, so two sets can be equal and yet one orders
// before the other; ordered containers and the registry must not be mixed
// up on that point.
//
// A value holding a collection has no constructor from text: asking for one
// is an assertion failure.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Kiv/ValueText.h"
#include "MrouteLib/FlatMap.h"
#include "Schema/Mfib/RouteKeyType.h"
#include "Schema/PortVlan.h"
#include "Schema/VlanId.h"
#include "Wirly/IntfId.h"

namespace MrouteLib {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

// Why copies of a route's packets go to the CPU. Only bits 0 and 1 exist;
// a value above 3 raises Kiv::RangeException("ToCpuPurpose::value > 0x3 not allowed").
class ToCpuPurpose {
 public:
  static constexpr U32 toCpuMcastMask = 0x1;
  static constexpr U32 toCpuVxlanMask = 0x2;

  constexpr ToCpuPurpose() = default;
  explicit ToCpuPurpose(U32 value) { valueIs(value); }

  U32 value() const { return value_; }
  void valueIs(U32 value);
  bool toCpuMcast() const { return value_ & toCpuMcastMask; }
  void toCpuMcastIs(bool on) { value_ = on ? value_ | toCpuMcastMask : value_ & ~toCpuMcastMask; }
  bool toCpuVxlan() const { return value_ & toCpuVxlanMask; }
  void toCpuVxlanIs(bool on) { value_ = on ? value_ | toCpuVxlanMask : value_ & ~toCpuVxlanMask; }

  std::string valueToStrep() const;
  static ToCpuPurpose fromStrep(std::string_view text);

  friend bool operator==(ToCpuPurpose a, ToCpuPurpose b) { return a.value_ == b.value_; }

 private:
  U32 value_ = 0;
};

// How a LAG member of an OIF set is programmed.
enum LagOperation : U8 { passLag = 0, expandLag = 1, chooseLagMember = 2 };
std::string lagOperationName(LagOperation op);
// Kiv::ParseException for any other name.
LagOperation lagOperationFromName(std::string_view name);
std::ostream& operator<<(std::ostream& os, LagOperation op);

class PortVlanSet {
 public:
  // Refused, not asserted, when read from text by name.
  static constexpr bool kivNoTextConstructor = true;
  // Ordered maps, ascending, as sorted vectors: sets are small.
  using PortVlanMap = FlatMap<PortVlan, bool>;
  using NatVlanMap = FlatMap<Bridging::VlanId, bool>;
  using RouteKeyType = Routing::Multicast::Fib::RouteKeyType;

  // The collections. Is() inserts or updates the flag, never removes; none
  // of these edits touches cachedHash.
  PortVlanMap const& portVlan() const { return portVlan_; }
  void portVlanIs(PortVlan const& pv, bool flag) { portVlan_[pv] = flag; }
  bool portVlanDel(PortVlan const& pv) { return portVlan_.erase(pv) != 0; }
  PortVlanMap::iterator portVlanDel(PortVlanMap::const_iterator it) { return portVlan_.erase(it); }
  void portVlanDelAll() { portVlan_.clear(); }

  PortVlanMap const& portVlanFrr() const { return portVlanFrr_; }
  void portVlanFrrIs(PortVlan const& pv, bool flag) { portVlanFrr_[pv] = flag; }
  bool portVlanFrrDel(PortVlan const& pv) { return portVlanFrr_.erase(pv) != 0; }
  PortVlanMap::iterator portVlanFrrDel(PortVlanMap::const_iterator it) { return portVlanFrr_.erase(it); }
  void portVlanFrrDelAll() { portVlanFrr_.clear(); }

  NatVlanMap const& natVlan() const { return natVlan_; }
  bool natVlan(Bridging::VlanId v) const;
  bool natVlanHas(Bridging::VlanId v) const { return natVlan_.count(v) != 0; }
  void natVlanIs(Bridging::VlanId v, bool flag = true) { natVlan_[v] = flag; }
  bool natVlanDel(Bridging::VlanId v) { return natVlan_.erase(v) != 0; }
  void natVlanDelAll() { natVlan_.clear(); }

  ToCpuPurpose toCpuPurpose() const { return toCpuPurpose_; }
  void toCpuPurposeIs(ToCpuPurpose p) { toCpuPurpose_ = p; }
  // Either CPU purpose. toCpuIs() sets or clears the multicast purpose only.
  bool toCpu() const { return toCpuPurpose_.value() != 0; }
  void toCpuIs(bool on) { toCpuPurpose_.toCpuMcastIs(on); }

  U32 featureFlag() const { return featureFlag_; }
  void featureFlagIs(U32 f) { featureFlag_ = f; }
  U32 cachedHash() const { return cachedHash_; }
  void cachedHashIs(U32 h) { cachedHash_ = h; }
  RouteKeyType type() const { return type_; }
  void typeIs(RouteKeyType t) { type_ = t; }
  Bridging::VlanId acceptingVlanId() const { return acceptingVlanId_; }
  void acceptingVlanIdIs(Bridging::VlanId v) { acceptingVlanId_ = v; }
  bool fastdrop() const { return fastdrop_; }
  void fastdropIs(bool f) { fastdrop_ = f; }
  Wirly::IntfId currentIif() const { return currentIif_; }
  void currentIifIs(Wirly::IntfId i) { currentIif_ = i; }
  bool ignoreType() const { return ignoreType_; }
  void ignoreTypeIs(bool i) { ignoreType_ = i; }

  // The hash computed afresh; saveHash() also stores it; hash() is the
  // stored one when non-zero, else computed without storing.
  U32 computeHash() const;
  U32 saveHash() { return cachedHash_ = computeHash(); }
  U32 hash() const { return cachedHash_ != 0 ? cachedHash_ : computeHash(); }

  // "<n> PVs - (Cpu 0x<flags>) acceptingVlanId: <v> hash: <h> vlan <t>:<intf> ..."
  std::string pretty() const;

  std::string valueToStrep() const;
  // Always fails: a set holds collections.
  [[noreturn]] static PortVlanSet fromStrep(std::string_view text);

  bool operator==(PortVlanSet const& o) const;
  bool operator<(PortVlanSet const& o) const;

 private:
  PortVlanMap portVlan_;
  ToCpuPurpose toCpuPurpose_;
  U32 featureFlag_ = 0;
  U32 cachedHash_ = 0;
  RouteKeyType type_ = Routing::Multicast::Fib::unknownKey;
  Bridging::VlanId acceptingVlanId_;
  NatVlanMap natVlan_;
  bool fastdrop_ = false;
  Wirly::IntfId currentIif_;
  PortVlanMap portVlanFrr_;
  bool ignoreType_ = false;
};
// Prints pretty().
std::ostream& operator<<(std::ostream& os, PortVlanSet const& s);

// Hashes a set for hashed containers through PortVlanSet::hash().
struct PortVlanSetHash {
  std::size_t operator()(PortVlanSet const& s) const noexcept { return s.hash(); }
};

// Why programming a route failed, as hardware reported it: three byte-wide
// groups (OIF set, route, MAC table) and four status flags in one word.
class MrouteFailureReason {
 public:
  static constexpr U32 oifSetFailureHwFullMask = 0x1;
  static constexpr U32 oifSetFailureNotMappedMask = 0x2;
  static constexpr U32 oifSetFailureNoFeCardMask = 0x4;
  static constexpr U32 oifSetFailureMcastIdFullMask = 0x8;
  static constexpr U32 routeFailureHwFullMask = 0x100;
  static constexpr U32 routeFailureNoRouteInfoMask = 0x200;
  static constexpr U32 routeFailureBadAddrMask = 0x400;
  static constexpr U32 routeFailureRpaHwFullMask = 0x800;
  static constexpr U32 routeFailureVrfStatusNotInitedMask = 0x1000;
  static constexpr U32 macTableFailureHwFullMask = 0x10000;
  static constexpr U32 macTableFailureNoRouteInfoMask = 0x20000;
  static constexpr U32 blockedMask = 0x1000000;
  static constexpr U32 timeoutMask = 0x2000000;
  static constexpr U32 notInitedMask = 0x4000000;
  static constexpr U32 inProgressMask = 0x8000000;
  // The resource-exhaustion reasons; every other bit is configuration or timing.
  static constexpr U32 hwFailureMask =
      oifSetFailureHwFullMask | oifSetFailureMcastIdFullMask | routeFailureHwFullMask | macTableFailureHwFullMask;

  constexpr MrouteFailureReason() = default;
  constexpr explicit MrouteFailureReason(U32 v) : value_(v) {}
  U32 value() const { return value_; }
  void valueIs(U32 v) { value_ = v; }

  U8 oifSetFailureMask() const { return byte(0); }
  void oifSetFailureMaskIs(U8 m) { byteIs(0, m); }
  U8 routeFailureMask() const { return byte(1); }
  void routeFailureMaskIs(U8 m) { byteIs(1, m); }
  U8 macTableFailureMask() const { return byte(2); }
  void macTableFailureMaskIs(U8 m) { byteIs(2, m); }

#define MROUTELIB_FAILURE_BIT(name)                        \
  bool name() const { return (value_ & name##Mask) != 0; } \
  void name##Is(bool on) { value_ = on ? value_ | name##Mask : value_ & ~name##Mask; }
  MROUTELIB_FAILURE_BIT(oifSetFailureHwFull)
  MROUTELIB_FAILURE_BIT(oifSetFailureNotMapped)
  MROUTELIB_FAILURE_BIT(oifSetFailureNoFeCard)
  MROUTELIB_FAILURE_BIT(oifSetFailureMcastIdFull)
  MROUTELIB_FAILURE_BIT(routeFailureHwFull)
  MROUTELIB_FAILURE_BIT(routeFailureNoRouteInfo)
  MROUTELIB_FAILURE_BIT(routeFailureBadAddr)
  MROUTELIB_FAILURE_BIT(routeFailureRpaHwFull)
  MROUTELIB_FAILURE_BIT(routeFailureVrfStatusNotInited)
  MROUTELIB_FAILURE_BIT(macTableFailureHwFull)
  MROUTELIB_FAILURE_BIT(macTableFailureNoRouteInfo)
  MROUTELIB_FAILURE_BIT(blocked)
  MROUTELIB_FAILURE_BIT(timeout)
  MROUTELIB_FAILURE_BIT(notInited)
  MROUTELIB_FAILURE_BIT(inProgress)
#undef MROUTELIB_FAILURE_BIT

  bool hwFailure() const { return (value_ & hwFailureMask) != 0; }
  // A suffix for a log line naming the exhausted resource, or "".
  std::string logExplain() const;
  // The short texts of the set bits, each with a leading blank, in a fixed order.
  std::string pretty() const;

  // Text form: the bare number. Reading also takes Value(..., ** {'value': n}).
  std::string valueToStrep() const { return std::to_string(value_); }
  static MrouteFailureReason fromStrep(std::string_view text);

  friend bool operator==(MrouteFailureReason a, MrouteFailureReason b) { return a.value_ == b.value_; }

 private:
  U8 byte(int i) const { return static_cast<U8>(value_ >> (8 * i)); }
  void byteIs(int i, U8 m) { value_ = (value_ & ~(U32(0xFF) << (8 * i))) | (U32(m) << (8 * i)); }

  U32 value_ = 0;
};

}  // namespace MrouteLib

template <>
struct Kiv::ValueText<MrouteLib::LagOperation> {
  static std::string toStrep(MrouteLib::LagOperation op) {
    return ValueTextDetail::quote(MrouteLib::lagOperationName(op));
  }
  static MrouteLib::LagOperation fromStrep(std::string_view text) {
    return MrouteLib::lagOperationFromName(valueFromStrep<std::string>(text));
  }
};
