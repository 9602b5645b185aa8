// The records of an MFIB table: Vorn::Multicast::Fib::Route (one multicast
// route of one application) and OifIndexIntf (what an outgoing-interface
// index stands for), with their small value types. All fixed in size and
// trivially copyable: they live in shared memory.
//
// A default-constructed Route is the absent value: a lookup that misses
// returns one, and readers test absence by comparing with Route().
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "Schema/Mfib/IpGenRouteKey.h"
#include "Wirly/IntfId.h"

namespace Vorn::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

// An index into the outgoing-interface space 0..511; 512 means no index and
// ends a set.
class OifIndex {
 public:
  static constexpr std::uint16_t endValue = 512;

  constexpr OifIndex() = default;
  constexpr explicit OifIndex(std::uint16_t v) : value_(v) {}
  static constexpr OifIndex end() { return OifIndex(endValue); }

  constexpr std::uint16_t value() const { return value_; }
  constexpr bool isEnd() const { return value_ >= endValue; }
  std::uint64_t hash() const { return value_; }

  friend constexpr bool operator==(OifIndex, OifIndex) = default;
  friend constexpr auto operator<=>(OifIndex, OifIndex) = default;
  friend std::ostream& operator<<(std::ostream& os, OifIndex i) { return os << i.value_; }
  // The number; 512 is the end.
  std::string valueToStrep() const { return std::to_string(value_); }
  static OifIndex fromStrep(std::string_view text);

 private:
  std::uint16_t value_ = endValue;
};

// A route's priority across applications: greater is better; 0, the
// default, is never selected.
class RoutePriority {
 public:
  constexpr RoutePriority() = default;
  constexpr explicit RoutePriority(std::uint8_t v) : value_(v) {}
  constexpr std::uint8_t value() const { return value_; }
  friend constexpr bool operator==(RoutePriority, RoutePriority) = default;
  friend constexpr auto operator<=>(RoutePriority, RoutePriority) = default;
  friend std::ostream& operator<<(std::ostream& os, RoutePriority p) { return os << unsigned(p.value_); }

 private:
  std::uint8_t value_ = 0;
};

// The index of a rendezvous-point address.
class RpaIndex {
 public:
  constexpr RpaIndex() = default;
  constexpr explicit RpaIndex(std::uint32_t v) : value_(v) {}
  constexpr std::uint32_t value() const { return value_; }
  friend constexpr bool operator==(RpaIndex, RpaIndex) = default;
  friend std::ostream& operator<<(std::ostream& os, RpaIndex r) { return os << r.value_; }
  std::string valueToStrep() const { return std::to_string(value_); }
  static RpaIndex fromStrep(std::string_view text);

 private:
  std::uint32_t value_ = 0;
};

// What one outgoing-interface index stands for. The default entry (index
// 512, empty interface) means no mapping.
class OifIndexIntf {
 public:
  OifIndexIntf() = default;
  OifIndexIntf(OifIndex index, Wirly::IntfId intfId) : oifIndex_(index), intfId_(intfId) {}
  OifIndex oifIndex() const { return oifIndex_; }
  Wirly::IntfId intfId() const { return intfId_; }
  friend bool operator==(OifIndexIntf const&, OifIndexIntf const&) = default;
  std::string valueToStrep() const;

 private:
  OifIndex oifIndex_;
  std::uint16_t pad_[3] = {};
  Wirly::IntfId intfId_;
};
std::ostream& operator<<(std::ostream& os, OifIndexIntf const& e);

// One multicast route. The four special interfaces are walked before the
// outgoing interfaces, in the order 1, 3, 4, 2 (see RouteIntfIteratorConst);
// the outgoing interfaces are a set of OifIndex resolved through the table's
// oifIndexIntf table or a bit mapper table.
class Route {
 public:
  static constexpr std::uint32_t flagSpecialIntf1Alt = 1;  // role 10 instead of 2

  Route() = default;
  explicit Route(IpGenRouteKey const& key) : key_(key) {}

  IpGenRouteKey const& key() const { return key_; }
  void keyIs(IpGenRouteKey const& k) { key_ = k; }
  Wirly::IntfId specialIntf1() const { return specialIntf1_; }
  void specialIntf1Is(Wirly::IntfId i) { specialIntf1_ = i; }
  Wirly::IntfId specialIntf2() const { return specialIntf2_; }
  void specialIntf2Is(Wirly::IntfId i) { specialIntf2_ = i; }
  Wirly::IntfId specialIntf3() const { return specialIntf3_; }
  void specialIntf3Is(Wirly::IntfId i) { specialIntf3_ = i; }
  Wirly::IntfId specialIntf4() const { return specialIntf4_; }
  void specialIntf4Is(Wirly::IntfId i) { specialIntf4_ = i; }
  std::uint32_t flags() const { return flags_; }
  void flagsIs(std::uint32_t f) { flags_ = f; }
  RoutePriority priority() const { return priority_; }
  void priorityIs(RoutePriority p) { priority_ = p; }
  std::uint32_t version() const { return version_; }
  void versionIs(std::uint32_t v) { version_ = v; }
  RpaIndex rpaIndex() const { return rpaIndex_; }
  void rpaIndexIs(RpaIndex r) { rpaIndex_ = r; }

  // The outgoing-interface set.
  bool oif(OifIndex i) const { return !i.isEnd() && (oifs_[i.value() / 64] >> (i.value() % 64)) & 1u; }
  // Kiv::RangeException for an index outside 0..511.
  void oifIs(OifIndex i, bool member);
  void oifDelAll();
  std::uint32_t oifs() const;
  // The least member, or OifIndex::end().
  OifIndex firstOif() const { return nextMember(0); }
  // The least member after i, or OifIndex::end() when there is none.
  OifIndex nextOif(OifIndex i) const {
    return i.value() >= OifIndex::endValue - 1 ? OifIndex::end() : nextMember(i.value() + 1u);
  }
  // The greatest member, or OifIndex::end() for an empty set.
  OifIndex lastOif() const { return lastOif_; }

  std::string valueToStrep() const;

  friend bool operator==(Route const&, Route const&) = default;

 private:
  OifIndex nextMember(unsigned from) const;

  IpGenRouteKey key_;
  std::uint8_t pad_[4] = {};
  Wirly::IntfId specialIntf1_;
  Wirly::IntfId specialIntf2_;
  Wirly::IntfId specialIntf3_;
  Wirly::IntfId specialIntf4_;
  std::uint32_t flags_ = 0;
  RoutePriority priority_;
  std::uint8_t pad2_ = 0;
  OifIndex lastOif_;
  std::uint32_t version_ = 0;
  RpaIndex rpaIndex_;
  std::uint64_t oifs_[8] = {};
};
std::ostream& operator<<(std::ostream& os, Route const& r);
// As operator<<, with each outgoing-interface index printed by printOif (a
// tool resolves them to interface names).
std::ostream& printRoute(std::ostream& os, Route const& r,
                         std::function<void(std::ostream&, OifIndex)> const& printOif);

}  // namespace Vorn::Multicast::Fib
