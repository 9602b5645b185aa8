// The static route file: one multicast route per line,
//
//   # vrf     source|*   group       iif        oif[,oif...]|-   [priority]
//   default   10.1.0.2   239.1.1.1   Ethernet1  Ethernet2,Ethernet3
//   default   *          ff3e::1:1   Ethernet1  Ethernet2        2
//
// "#" starts a comment; blank lines are ignored. Source and group are IPv4
// or IPv6 addresses of one family ("*" is any source of the group's family);
// interfaces are interface ids (Ethernet1, Vlan100, ...); the priority is
// 1..255 and 1 when left out; "-" means no outgoing interface (the route
// drops the group's traffic). A malformed line is reported with its file
// and line number and skipped; every other line still counts.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Schema/Mfib/IpGenRouteKey.h"
#include "Schema/VrfName.h"
#include "Wirly/IntfId.h"

namespace MrouteStatic {

using Routing::Multicast::Fib::IpGenRouteKey;

struct StaticRoute {
  Wirly::IntfId iif;
  std::vector<Wirly::IntfId> oifs;  // ordered, no duplicates
  std::uint8_t priority = 1;
  friend bool operator==(StaticRoute const&, StaticRoute const&) = default;
};

using RouteId = std::pair<L3::VrfName, IpGenRouteKey>;
using RouteMap = std::map<RouteId, StaticRoute>;

struct ParsedFile {
  RouteMap routes;
  // "<file>:<line>: <what is wrong>", in line order.
  std::vector<std::string> errors;
};

// The key of (source, group); "*" as source gives the any-source prefix
// of the group's family (0.0.0.0/0 or ::/0). Kiv::ParseException saying
// what is wrong for anything else than a unicast source (or "*") and a
// multicast group of one family.
IpGenRouteKey routeKey(std::string const& source, std::string const& group);
// "*" for an any-source key, else the source address.
std::string sourceText(IpGenRouteKey const& key);

ParsedFile parseRoutes(std::istream& in, std::string const& fileName);

// The words of one line, its comment left out.
std::vector<std::string> routeWords(std::string line);
// One route from a line's words (5 or 6), and the route id from the first
// three; Kiv::ParseException saying what is wrong (the text the loader puts
// after "<file>:<line>: ").
std::pair<RouteId, StaticRoute> parseRoute(std::vector<std::string> const& words);
RouteId parseRouteId(std::vector<std::string> const& words);
// "default 10.1.0.2 239.1.1.1" and the whole line the loader reads back as
// the same route ("... Ethernet1 Ethernet2,Ethernet3 [priority when not 1]").
std::string routeIdText(RouteId const& id);
std::string routeText(RouteId const& id, StaticRoute const& r);

// The route file's text with one route changed: route given, the line the
// loader takes for its id is replaced (its indentation and comment kept;
// with no whole line, the first line naming the id; with none, a line is
// added at the end); route null, every line naming the id goes. Every
// other line, comments and refused lines included, stays as it was.
std::string rewriteRoutes(std::string const& text, RouteId const& id, StaticRoute const* route);
// Replaces the file at path (or the file a symbolic link there names) by
// text at once: a temporary file beside it, written and synced, takes the
// old one's mode (and owner, for root) and is renamed over it; then the
// directory is synced. Readers see the old file or the new one, never a
// mix. Kiv::ErrnoException naming the call that failed; the old file is
// then untouched.
void writeRoutesFile(std::string const& path, std::string const& text);

}  // namespace MrouteStatic
