// Helpers shared by the route model's tests.
#pragma once

#include <string>
#include <string_view>

#include "MrouteLib/MrouteLib.h"

namespace MrouteLibTest {

// An assertion message as a death-test pattern: every character literal.
inline std::string literal(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

inline std::string assertion(std::string_view expr) { return "Assertion failed: " + literal(expr) + " \\("; }

inline MrouteLib::PortVlan pv(char const* intf, unsigned vlan) {
  return MrouteLib::PortVlan(Wirly::IntfId(intf), Bridging::VlanId(vlan));
}

inline Routing::Multicast::Fib::IpGenRouteKey key(char const* s, char const* g) {
  return Routing::Multicast::Fib::IpGenRouteKey(s, g);
}

}  // namespace MrouteLibTest
