// Wirly::IpGenPrefix: an IPv4 or IPv6 prefix (address and length), or the
// empty prefix (the default: empty address, length 0). The address is always
// masked to the length, so "10.1.2.3/8" holds and prints 10.0.0.0/8. Fixed in
// size (18 bytes) and trivially copyable, for shared-memory records.
//
//   Wirly::IpGenPrefix p("10.0.0.0/8");   // "10.0.0.1" alone means /32
//   p.contains(Wirly::IpGenAddr("10.9.9.9"));
//
// Wirly::IpGenPrefixBase holds the data and the hash that route keys use;
// IpGenPrefix adds construction and the operations. Malformed text raises
// Kiv::ParseException, a length beyond the family's width
// Kiv::RangeException. Order: family, then address bytes, then length.
// Text: "<address>/<length>"; the empty prefix is the empty string.
// Text form: Value('Wirly::IpGenPrefix', ** {'prefix': '10.0.0.0/8'}).
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Wirly/IpGenAddr.h"

namespace Wirly {

class IpGenPrefixBase {
 public:
  IpGenAddr const& address() const { return addr_; }
  std::uint8_t len() const { return len_; }
  AddressFamily af() const { return addr_.af(); }

  // Covers exactly what == compares: the masked address and the length.
  std::uint64_t hash() const;
  static std::uint64_t hash(IpGenPrefixBase const& p) { return p.hash(); }

  friend bool operator==(IpGenPrefixBase const& a, IpGenPrefixBase const& b) = default;
  friend std::strong_ordering operator<=>(IpGenPrefixBase const& a, IpGenPrefixBase const& b);

 protected:
  IpGenAddr addr_;
  std::uint8_t len_ = 0;
};

class IpGenPrefix : public IpGenPrefixBase {
 public:
  constexpr IpGenPrefix() = default;
  IpGenPrefix(IpGenAddr const& addr, unsigned len);
  // The full-length prefix of one address.
  explicit IpGenPrefix(IpGenAddr const& addr);
  explicit IpGenPrefix(std::string_view text);
  explicit IpGenPrefix(char const* text) : IpGenPrefix(std::string_view(text)) {}
  explicit IpGenPrefix(std::string const& text) : IpGenPrefix(std::string_view(text)) {}

  bool isUnspecified() const { return addr_.isUnspecified(); }
  // The whole prefix lies in multicast space.
  bool isMulticast() const;
  // An address or prefix of the same family inside this one.
  bool contains(IpGenAddr const& a) const;
  bool contains(IpGenPrefix const& p) const;

  std::string str() const;

  std::string valueToStrep() const;
  static IpGenPrefix fromStrep(std::string_view text);
};

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p);

}  // namespace Wirly

template <>
struct std::hash<Wirly::IpGenPrefix> {
  std::size_t operator()(Wirly::IpGenPrefix const& p) const noexcept { return p.hash(); }
};
