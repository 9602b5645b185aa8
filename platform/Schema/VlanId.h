// Bridging::VlanId: a VLAN number held in 16 bits. Any value 0..4095 may be
// held; 1..4094 are usable VLANs (isValid()), 0 (the default) means "no
// VLAN" and 4095 is reserved. A value outside 0..4095 raises
// Kiv::RangeException ("VlanId::value > 4095 not allowed",
// "VlanId::value < 0 not allowed").
//
// Bridging::VlanIdOrNone: a VlanId or none (the default). Stored in 16 bits
// as the VLAN number plus one, so an all-zero record reads as none; none
// orders before every VlanId.
//
// Both print and have the text form of a plain scalar: the decimal number,
// or None for none (printed "none").
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace Bridging {

class VlanId {
 public:
  static constexpr std::uint16_t maxValue = 4095;

  constexpr VlanId() = default;
  template <std::integral I>
  explicit VlanId(I value) : value_(checked(static_cast<long long>(value), std::cmp_less(value, 0))) {}

  constexpr std::uint16_t value() const { return value_; }
  constexpr bool isValid() const { return value_ >= 1 && value_ <= 4094; }

  std::uint64_t hash() const;

  std::string valueToStrep() const { return std::to_string(value_); }
  static VlanId fromStrep(std::string_view text);

  friend constexpr bool operator==(VlanId a, VlanId b) = default;
  friend constexpr auto operator<=>(VlanId a, VlanId b) = default;

 private:
  static std::uint16_t checked(long long value, bool negative);
  std::uint16_t value_ = 0;
};

class VlanIdOrNone {
 public:
  constexpr VlanIdOrNone() = default;
  constexpr VlanIdOrNone(VlanId v) : raw_(static_cast<std::uint16_t>(v.value() + 1)) {}
  static constexpr VlanIdOrNone none() { return VlanIdOrNone(); }

  constexpr bool isNone() const { return raw_ == 0; }
  constexpr bool hasValue() const { return raw_ != 0; }
  // Asserts hasValue().
  VlanId vlanId() const;

  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static VlanIdOrNone fromStrep(std::string_view text);

  friend constexpr bool operator==(VlanIdOrNone a, VlanIdOrNone b) = default;
  friend constexpr auto operator<=>(VlanIdOrNone a, VlanIdOrNone b) = default;

 private:
  std::uint16_t raw_ = 0;
};

std::ostream& operator<<(std::ostream& os, VlanId v);
std::ostream& operator<<(std::ostream& os, VlanIdOrNone v);

}  // namespace Bridging

template <>
struct std::hash<Bridging::VlanId> {
  std::size_t operator()(Bridging::VlanId v) const noexcept { return v.hash(); }
};

template <>
struct std::hash<Bridging::VlanIdOrNone> {
  std::size_t operator()(Bridging::VlanIdOrNone v) const noexcept { return v.hash(); }
};
