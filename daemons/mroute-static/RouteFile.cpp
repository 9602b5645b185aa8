#include "RouteFile.h"

#include <algorithm>
#include <sstream>

#include "Kiv/Exception.h"

namespace MrouteStatic {

namespace {

using Wirly::IpGenAddr;
using Wirly::IpGenPrefix;

IpGenAddr address(std::string const& text, char const* role) {
  try {
    return IpGenAddr(text);
  } catch (Kiv::Exception const&) {
    throw Kiv::ParseException("'" + text + "' is not an " + role + " address");
  }
}

Wirly::IntfId interface(std::string const& name) {
  try {
    // The empty name is the empty id, which names no interface.
    if (!name.empty()) return Wirly::IntfId(name);
  } catch (Kiv::Exception const&) {
  }
  throw Kiv::ParseException("'" + name + "' is not an interface name (Ethernet1, Vlan100, ...)");
}

std::vector<Wirly::IntfId> interfaces(std::string const& list) {
  std::vector<Wirly::IntfId> out;
  if (list == "-") return out;
  std::size_t pos = 0;
  while (pos <= list.size()) {
    std::size_t const comma = std::min(list.find(',', pos), list.size());
    out.push_back(interface(list.substr(pos, comma - pos)));
    pos = comma + 1;
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::uint8_t priority(std::string const& text) {
  if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) < 1 || std::stoul(text) > 255)
    throw Kiv::ParseException("priority '" + text + "' is not a number from 1 to 255");
  return static_cast<std::uint8_t>(std::stoul(text));
}

}  // namespace

IpGenRouteKey routeKey(std::string const& source, std::string const& group) {
  IpGenAddr const g = address(group, "IP group");
  if (!g.isMulticast()) throw Kiv::ParseException("group " + group + " is not a multicast address");
  if (source == "*")
    return IpGenRouteKey(IpGenPrefix(IpGenAddr(g.af() == Wirly::ipv4 ? "0.0.0.0" : "::"), 0), IpGenPrefix(g));
  IpGenAddr const s = address(source, "IP source");
  if (s.af() != g.af())
    throw Kiv::ParseException("source " + source + " and group " + group + " are of different families");
  if (s.isMulticast()) throw Kiv::ParseException("source " + source + " is a multicast address");
  return IpGenRouteKey(IpGenPrefix(s), IpGenPrefix(g));
}

std::string sourceText(IpGenRouteKey const& key) {
  return key.source().len() == 0 ? "*" : key.source().address().str();
}

ParsedFile parseRoutes(std::istream& in, std::string const& fileName) {
  ParsedFile out;
  std::map<RouteId, unsigned> lineOf;
  std::string line;
  for (unsigned number = 1; std::getline(in, line); ++number) {
    if (std::size_t const hash = line.find('#'); hash != std::string::npos) line.erase(hash);
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string s; words >> s;) w.push_back(s);
    if (w.empty()) continue;
    try {
      if (w.size() < 5 || w.size() > 6)
        throw Kiv::ParseException("expected 'vrf source|* group iif oif[,oif...]|- [priority]', found " +
                                  std::to_string(w.size()) + " fields");
      L3::VrfName vrf;
      try {
        vrf = L3::VrfName(w[0]);
      } catch (Kiv::Exception const&) {
        throw Kiv::ParseException("VRF name longer than " + std::to_string(L3::VrfName::maxLength) + " bytes");
      }
      IpGenRouteKey const key = routeKey(w[1], w[2]);
      StaticRoute r;
      r.iif = interface(w[3]);
      r.oifs = interfaces(w[4]);
      if (w.size() == 6) r.priority = priority(w[5]);
      if (std::binary_search(r.oifs.begin(), r.oifs.end(), r.iif))
        throw Kiv::ParseException("incoming interface " + w[3] + " is also an outgoing interface");
      RouteId id(vrf, key);
      if (auto it = lineOf.find(id); it != lineOf.end())
        throw Kiv::ParseException("route (" + w[1] + ", " + w[2] + ") in VRF " + w[0] + " already given on line " +
                                  std::to_string(it->second));
      lineOf.emplace(id, number);
      out.routes.emplace(id, r);
    } catch (Kiv::Exception const& bad) {
      out.errors.push_back(fileName + ":" + std::to_string(number) + ": " + bad.what() + "; line skipped");
    }
  }
  return out;
}

}  // namespace MrouteStatic
