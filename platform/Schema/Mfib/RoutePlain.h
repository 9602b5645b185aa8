// The plain forms (Kiv/ValuePlain.h) of a route key and of an MFIB route,
// for tools that show them with more than their text forms know.
//
//   routeKeyPlain(k).text();   // (10.1.0.2, 239.1.1.1), (*, 239.1.1.2)
//   routePlain(r, [&](OifIndex i) { return Kiv::Plain::string(nameOf(i)); }).json();
//
// A route key shows "*" for a source of any address, a host prefix as its
// address and any other prefix as written; in JSON it is {"source", "group"}
// with the same strings. A route is an object of key, intf1..intf4 (names,
// null when unset), flags, priority, version, rpaIndex and oifs (a list,
// each index as `oif` shows it; the registered form shows the numbers), and
// reads in text as one line:
//   (10.1.0.2, 239.1.1.1) priority 1 version 3 intf1 Ethernet1 oif {Ethernet2, Ethernet3}
#pragma once

#include <functional>

#include "Kiv/ValuePlain.h"
#include "Schema/Mfib/IpGenRouteKey.h"

namespace Vorn::Multicast::Fib {
class Route;
class OifIndex;
}  // namespace Vorn::Multicast::Fib

namespace Routing::Multicast::Fib {

Kiv::Plain routeKeyPlain(IpGenRouteKey const& k);

}  // namespace Routing::Multicast::Fib

namespace Vorn::Multicast::Fib {

Kiv::Plain routePlain(Route const& r, std::function<Kiv::Plain(OifIndex)> const& oif);

}  // namespace Vorn::Multicast::Fib
