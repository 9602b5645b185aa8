// Wirly::IpGenAddr: an IPv4 or IPv6 address, or the empty address (the
// default, family ipUnknown). Fixed in size (17 bytes: 16 address bytes in
// network order, unused bytes zero, then the family) and trivially copyable,
// so it may live in shared-memory records.
//
//   Wirly::IpGenAddr g("239.1.1.1");     // Kiv::ParseException if not an address
//   g.af() == Wirly::ipv4; g.isMulticast(); g.v4Addr() == 0xef010101
//
// Text: inet_pton/inet_ntop forms; the empty address reads from and prints
// as the empty string (never "0.0.0.0", which is a real IPv4 address and a
// different value). Order: family first (empty, IPv4, IPv6), then the
// address bytes as unsigned numbers. hash() covers the family and the bytes,
// exactly what == compares.
// Text form: Value('Wirly::IpGenAddr', ** {'addr': '10.0.0.1'}).
#pragma once

#include <netinet/in.h>

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Wirly/AddressFamily.h"

namespace Wirly {

class IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  explicit IpGenAddr(std::string_view text);
  explicit IpGenAddr(char const* text) : IpGenAddr(std::string_view(text)) {}
  explicit IpGenAddr(std::string const& text) : IpGenAddr(std::string_view(text)) {}
  explicit IpGenAddr(in_addr a);
  explicit IpGenAddr(in6_addr const& a);

  // An IPv4 address from a number in host order (0x0a000001 is 10.0.0.1).
  static IpGenAddr v4(std::uint32_t hostOrder);
  static IpGenAddr v6(std::array<std::uint8_t, 16> const& bytes);

  AddressFamily af() const { return af_; }
  // The empty address: no family, no address.
  bool isUnspecified() const { return af_ == ipUnknown; }
  // 224.0.0.0/4 or ff00::/8.
  bool isMulticast() const;
  // 4, 16, or 0 for the empty address.
  std::size_t byteLength() const;
  // The address bytes in network order; the first byteLength() are used.
  std::uint8_t const* bytes() const { return addr_; }

  // These assert that the family matches.
  std::uint32_t v4Addr() const;
  std::array<std::uint8_t, 16> v6Addr() const;
  in_addr inAddr() const;
  in6_addr in6Addr() const;

  // The address with every bit after the first `length` cleared;
  // Kiv::RangeException if length exceeds 8 * byteLength().
  IpGenAddr masked(unsigned length) const;

  std::string str() const;
  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static IpGenAddr fromStrep(std::string_view text);

  friend bool operator==(IpGenAddr const& a, IpGenAddr const& b) = default;
  friend std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b);

 private:
  std::uint8_t addr_[16] = {};
  AddressFamily af_ = ipUnknown;
};

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);

}  // namespace Wirly

template <>
struct std::hash<Wirly::IpGenAddr> {
  std::size_t operator()(Wirly::IpGenAddr const& a) const noexcept { return a.hash(); }
};
