// The story the demonstration's publishers act out: which application
// announces which VRF and writes which route in which round, and when an
// application starts and stops. The publishers write it; the agent only
// paces the rounds and prints their titles, and learns everything else from
// the MFIB directory and the shared tables.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Schema/Mfib/Route.h"

namespace MfibDemo {

struct App {
  char const* name;
  unsigned priority;  // of its routes unless a step says otherwise
  // Each application numbers its outgoing interfaces its own way: index
  // oifBase + n stands for Ethernet n in its oifIndexIntf table. The agent
  // must resolve an index through the table of the route that owns it.
  std::uint16_t oifBase;
  // Numbers them with bit indices from its own bit mapper table instead.
  bool bitMapper;
};

inline constexpr App apps[] = {{"pim", 2, 0, false}, {"static", 1, 200, false}, {"igmp", 1, 0, true}};
inline constexpr char const* vrfs[] = {"default", "red"};
// Ethernet1..ethernets are in every application's interface numbering.
inline constexpr unsigned ethernets = 8;
// Round 1 is written before the agent starts; the agent asks for every
// later round.
inline constexpr unsigned rounds = 5;

// What an application does to the directory in a round, before its routes
// (addVrf, start) or after them (delVrf, stop). An application starts with
// its first addVrf; stop withdraws every VRF and its directory entry, and
// its process ends.
struct DirStep {
  enum What { addVrf, delVrf, stop };
  unsigned round;
  char const* app;
  What what;
  char const* vrf;  // addVrf, delVrf
};
std::vector<DirStep> const& dirSteps();

struct Step {
  unsigned round;
  char const* app;
  char const* vrf;
  char const* source;
  char const* group;
  bool withdraw;
  unsigned priority;           // 0: the application's own
  char const* incoming;        // special interface 1
  std::vector<unsigned> oifs;  // Ethernet numbers
};

std::vector<Step> const& steps();
// What happens in a round, one line.
char const* roundTitle(unsigned round);

App const* appNamed(std::string const& name);
std::string tableUrl(char const* vrf, char const* app);
std::string bitMapperUrl(char const* vrf, char const* app);

// The route a step publishes, with the application's own OifIndex values
// (oifBase + n, or what `oifOf` says for Ethernet n).
Vorn::Multicast::Fib::Route routeOf(Step const& step, App const& app);
Vorn::Multicast::Fib::Route routeOf(Step const& step, App const& app,
                                    std::function<Vorn::Multicast::Fib::OifIndex(unsigned)> const& oifOf);
Vorn::Multicast::Fib::IpGenRouteKey keyOf(Step const& step);

}  // namespace MfibDemo
