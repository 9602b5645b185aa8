// Routing::Multicast::Fib::IpGenRouteKey: the key of a multicast route, a
// source prefix and a group prefix (IPv4 or IPv6). Fixed in size and
// trivially copyable: it is stored in shared-memory route tables.
//
// Order: source first, then group; it is the order in which route tables and
// ordered route collections are walked. hash() covers exactly what ==
// compares. invalidRouteKey() (both prefixes empty) stands for no key.
//
//   IpGenRouteKey k(Wirly::IpGenPrefix("10.0.0.1"), Wirly::IpGenPrefix("239.1.1.1"));
//   std::cout << k;   // (s: 10.0.0.1/32 g: 239.1.1.1/32)
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "Wirly/IpGenPrefix.h"

namespace Routing::Multicast::Fib {

class IpGenRouteKey {
 public:
  constexpr IpGenRouteKey() = default;
  IpGenRouteKey(Wirly::IpGenPrefix const& source, Wirly::IpGenPrefix const& group) : source_(source), group_(group) {}
  // Full-length prefixes of two addresses, from text: ("10.0.0.1", "239.1.1.1").
  IpGenRouteKey(std::string_view source, std::string_view group);

  Wirly::IpGenPrefix const& source() const { return source_; }
  Wirly::IpGenPrefix const& group() const { return group_; }

  std::uint64_t hash() const;

  std::string valueToStrep() const;
  static IpGenRouteKey fromStrep(std::string_view text);

  friend bool operator==(IpGenRouteKey const&, IpGenRouteKey const&) = default;
  friend std::strong_ordering operator<=>(IpGenRouteKey const& a, IpGenRouteKey const& b) {
    if (auto c = static_cast<Wirly::IpGenPrefixBase const&>(a.source_) <=> b.source_; c != 0) return c;
    return static_cast<Wirly::IpGenPrefixBase const&>(a.group_) <=> b.group_;
  }

 private:
  Wirly::IpGenPrefix source_;
  Wirly::IpGenPrefix group_;
};

std::ostream& operator<<(std::ostream& os, IpGenRouteKey const& k);

inline IpGenRouteKey invalidRouteKey() { return IpGenRouteKey(); }

}  // namespace Routing::Multicast::Fib

template <>
struct std::hash<Routing::Multicast::Fib::IpGenRouteKey> {
  std::size_t operator()(Routing::Multicast::Fib::IpGenRouteKey const& k) const noexcept { return k.hash(); }
};
