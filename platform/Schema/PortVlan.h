// MrouteLib::PortVlan: one replication target of a multicast route, an
// outgoing interface and either a VLAN or an outgoing logical interface
// (OutLif) on it. MrouteLib::OutLif is the 32-bit target word.
//
//   PortVlan a(Wirly::IntfId("Ethernet3"), Bridging::VlanId(10));   // VLAN 10 on Ethernet3
//   PortVlan b(Wirly::IntfId("Ethernet3"), OutLif(0x4001));         // logical interface 0x4001
//   a.isOutLif();   // false
//   b.isOutLif();   // true
//
// Fixed in size (16 bytes, padding zero) and trivially copyable. Order:
// intfId, then the target word, then the kind; == compares the same three
// fields and hash() covers exactly them.
// Text form: Value('MrouteLib::PortVlan', ** {'intfId': ..., 'outLif': n, 'kind': 'vlan'}).
// Prints as "<target>:<interface>" (the target word through OutLif's <<).
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Schema/VlanId.h"
#include "Wirly/IntfId.h"

namespace MrouteLib {

// The replication target word: a VLAN number or a logical-interface number.
// Prints as its decimal number.
class OutLif {
 public:
  constexpr OutLif() = default;
  constexpr explicit OutLif(std::uint32_t v) : value_(v) {}
  constexpr std::uint32_t value() const { return value_; }

  std::string valueToStrep() const { return std::to_string(value_); }
  static OutLif fromStrep(std::string_view text);

  friend constexpr bool operator==(OutLif, OutLif) = default;
  friend constexpr auto operator<=>(OutLif, OutLif) = default;

 private:
  std::uint32_t value_ = 0;
};
std::ostream& operator<<(std::ostream& os, OutLif l);

class PortVlan {
 public:
  // What the target word holds. Stored values: never renumber.
  enum Kind : std::uint8_t { vlan = 0, outLif = 1 };

  constexpr PortVlan() = default;
  PortVlan(Wirly::IntfId intfId, Bridging::VlanId vlanId) : intfId_(intfId), target_(vlanId.value()), kind_(vlan) {}
  PortVlan(Wirly::IntfId intfId, OutLif lif) : intfId_(intfId), target_(lif), kind_(outLif) {}

  Wirly::IntfId intfId() const { return intfId_; }
  // The target word, whatever it holds.
  OutLif target() const { return target_; }
  Kind kind() const { return kind_; }
  bool isOutLif() const { return kind_ == outLif; }
  // The VLAN when !isOutLif(); Kiv::RangeException for a word above 4095.
  Bridging::VlanId vlanId() const { return Bridging::VlanId(target_.value()); }

  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static PortVlan fromStrep(std::string_view text);

  friend bool operator==(PortVlan const& a, PortVlan const& b) {
    return a.intfId_ == b.intfId_ && a.target_ == b.target_ && a.kind_ == b.kind_;
  }
  friend std::strong_ordering operator<=>(PortVlan const& a, PortVlan const& b) {
    if (auto c = a.intfId_ <=> b.intfId_; c != 0) return c;
    if (auto c = a.target_ <=> b.target_; c != 0) return c;
    return a.kind_ <=> b.kind_;
  }

 private:
  Wirly::IntfId intfId_;
  OutLif target_;
  Kind kind_ = vlan;
  std::uint8_t pad_[3] = {};
};
std::ostream& operator<<(std::ostream& os, PortVlan const& pv);

}  // namespace MrouteLib

template <>
struct std::hash<MrouteLib::PortVlan> {
  std::size_t operator()(MrouteLib::PortVlan const& pv) const noexcept { return pv.hash(); }
};
