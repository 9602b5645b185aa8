// Wirly::IntfId: an interface identifier, a 64-bit number computed from the
// interface name by a fixed encoding. Every process, every build, computes
// the same number for the same name, so ids may be stored in shared memory
// and sent between processes; there is no registry.
//
//   Wirly::IntfId e(std::string_view("Ethernet3/1"));
//   e.name();             // "Ethernet3/1"
//   Wirly::IntfId() == Wirly::IntfId("");   // the empty id, value 0
//
// Names are a known kind followed by up to three numbers separated by '/'
// (Ethernet1, Ethernet3/1/2, Vlan100, Port-Channel10, Loopback0, Tunnel5,
// Register0, Management1/1, Cpu, Null0, Vxlan1, Recirc-Channel1). Numbers
// are 0..65535 without leading zeros (a VLAN interface 1..4094). Any other
// name raises Kiv::RangeException.
//
// Encoding: bits 63-56 the kind code, bits 49-48 how many numbers follow,
// bits 47-32, 31-16, 15-0 the first, second and third number; other bits
// zero. Kind codes are part of the stored format and are never renumbered.
// Ids are ordered by that number: by kind, then by how many numbers the name
// has, then numerically position by position (Ethernet2 < Ethernet10).
//
// A raw value that does not decode (read from outside) is kept as it is and
// named "IntfId(0x<hex>)"; that name parses back to the same raw value.
// Text form: Value('Wirly::IntfId', ** {'intfId': 'Ethernet3/1'}).
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Wirly {

class IntfId {
 public:
  constexpr IntfId() = default;
  explicit IntfId(std::string_view name);
  explicit IntfId(char const* name) : IntfId(std::string_view(name)) {}
  explicit IntfId(std::string const& name) : IntfId(std::string_view(name)) {}
  // From a raw value as stored or received; never throws.
  template <std::integral I>
  explicit constexpr IntfId(I raw) : value_(static_cast<std::uint64_t>(raw)) {}

  constexpr std::uint64_t value() const { return value_; }
  constexpr bool empty() const { return value_ == 0; }
  // True for any id but the empty one.
  explicit constexpr operator bool() const { return value_ != 0; }
  // True when the raw value is the empty id or decodes to a name of a known kind.
  bool valid() const;
  std::string name() const;

  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static IntfId fromStrep(std::string_view text);

  friend constexpr bool operator==(IntfId a, IntfId b) = default;
  friend constexpr auto operator<=>(IntfId a, IntfId b) = default;

 private:
  std::uint64_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, IntfId id);

}  // namespace Wirly

template <>
struct std::hash<Wirly::IntfId> {
  std::size_t operator()(Wirly::IntfId id) const noexcept { return id.hash(); }
};
