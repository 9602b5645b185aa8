#include "Scenario.h"

#include <cstring>

#include "Wirly/IntfId.h"

namespace MfibDemo {

using namespace Vorn::Multicast::Fib;

std::vector<Step> const& steps() {
  // Keys held by both applications, by one only, and tied at the top
  // priority; a VRF that appears, one that goes, a third application that
  // arrives late and outbids the others, and one that leaves.
  static std::vector<Step> const list = {
      // Round 1: before the agent.
      {1, "pim", "default", "10.0.0.1", "239.1.1.1", false, 0, "Vlan10", {1, 2}},
      {1, "static", "default", "10.0.0.1", "239.1.1.1", false, 0, "Vlan10", {3}},
      {1, "static", "default", "10.0.0.2", "239.1.1.2", false, 0, "Vlan20", {4}},
      {1, "pim", "default", "10.0.0.3", "239.1.1.3", false, 0, "Vlan10", {5}},
      {1, "pim", "default", "10.0.0.4", "239.1.1.4", false, 2, "Vlan30", {6}},
      {1, "static", "default", "10.0.0.4", "239.1.1.4", false, 2, "Vlan30", {7}},
      {1, "pim", "red", "10.1.0.1", "239.2.2.1", false, 0, "Vlan40", {1}},
      {1, "static", "red", "10.1.0.1", "239.2.2.1", false, 0, "Vlan40", {2, 3}},
      {1, "pim", "red", "10.1.0.2", "239.2.2.2", false, 2, "Vlan50", {4}},
      {1, "static", "red", "10.1.0.2", "239.2.2.2", false, 2, "Vlan50", {5}},
      // Round 2.
      {2, "pim", "default", "10.0.0.1", "239.1.1.1", false, 0, "Vlan10", {1, 2, 8}},
      {2, "pim", "default", "10.0.0.3", "239.1.1.3", true, 0, nullptr, {}},
      {2, "static", "default", "10.0.0.5", "239.1.1.5", false, 0, "Vlan20", {2}},
      {2, "static", "red", "10.1.0.1", "239.2.2.1", false, 3, "Vlan40", {2, 3}},
      {2, "static", "blue", "10.2.0.1", "239.3.3.1", false, 0, "Vlan70", {1, 2}},
      // Round 3.
      {3, "pim", "default", "10.0.0.1", "239.1.1.1", true, 0, nullptr, {}},
      {3, "pim", "default", "10.0.0.5", "239.1.1.5", false, 0, "Vlan20", {6}},
      {3, "static", "default", "10.0.0.2", "239.1.1.2", false, 0, "Vlan20", {4, 5}},
      // Round 4.
      {4, "igmp", "default", "10.0.0.6", "239.1.1.6", false, 0, "Vlan80", {3, 4}},
      {4, "igmp", "default", "10.0.0.5", "239.1.1.5", false, 2, "Vlan20", {7}},
      {4, "igmp", "blue", "10.2.0.1", "239.3.3.1", false, 3, "Vlan70", {7}},
      {4, "pim", "default", "10.0.0.4", "239.1.1.4", false, 2, "Vlan30", {6, 8}},
      // Round 5: static leaves; nothing else changes.
  };
  return list;
}

std::vector<DirStep> const& dirSteps() {
  static std::vector<DirStep> const list = {
      {1, "pim", DirStep::addVrf, "default"},    {1, "pim", DirStep::addVrf, "red"},
      {1, "static", DirStep::addVrf, "default"}, {1, "static", DirStep::addVrf, "red"},
      {2, "static", DirStep::addVrf, "blue"},    {3, "pim", DirStep::delVrf, "red"},
      {4, "igmp", DirStep::addVrf, "default"},   {4, "igmp", DirStep::addVrf, "blue"},
      {5, "static", DirStep::stop, nullptr},
  };
  return list;
}

char const* roundTitle(unsigned round) {
  switch (round) {
    case 1:
      return "pim (priority 2) and static (priority 1) announce default and red and publish routes";
    case 2:
      return "pim adds an interface and withdraws a route; static raises one to 3 and announces blue";
    case 3:
      return "pim withdraws a route static also holds, outbids static on another, and withdraws red";
    case 4:
      return "igmp starts (bit indices, priority 1) and outbids static in blue; pim rewrites a tie";
    case 5:
      return "static stops";
  }
  return "";
}

App const* appNamed(std::string const& name) {
  for (App const& a : apps)
    if (name == a.name) return &a;
  return nullptr;
}

std::string tableUrl(char const* vrf, char const* app) { return std::string("mfib/") + vrf + "/" + app; }
std::string bitMapperUrl(char const* vrf, char const* app) { return std::string("bitmapper/") + vrf + "/" + app; }

IpGenRouteKey keyOf(Step const& step) { return IpGenRouteKey(step.source, step.group); }

Route routeOf(Step const& step, App const& app) {
  return routeOf(step, app, [&app](unsigned n) { return OifIndex(static_cast<std::uint16_t>(app.oifBase + n)); });
}

Route routeOf(Step const& step, App const& app, std::function<OifIndex(unsigned)> const& oifOf) {
  Route r(keyOf(step));
  r.priorityIs(RoutePriority(static_cast<std::uint8_t>(step.priority != 0 ? step.priority : app.priority)));
  if (step.incoming != nullptr) r.specialIntf1Is(Wirly::IntfId(step.incoming));
  for (unsigned n : step.oifs) r.oifIs(oifOf(n), true);
  return r;
}

}  // namespace MfibDemo
