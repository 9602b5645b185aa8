// The story the demonstration's publishers act out: which application
// writes which route, in which VRF and in which round. The publishers write
// it; the agent only paces the rounds and prints their titles, and learns
// everything else from the shared tables.
#pragma once

#include <cstdint>
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
};

inline constexpr App apps[] = {{"pim", 2, 0}, {"static", 1, 200}};
inline constexpr char const* vrfs[] = {"default", "red"};
// Ethernet1..ethernets are in every application's oifIndexIntf table.
inline constexpr unsigned ethernets = 8;
// Round 1 is written before the agent mounts the tables; the agent asks
// for every later round.
inline constexpr unsigned rounds = 4;

struct Step {
  unsigned round;
  char const* app;
  char const* vrf;
  char const* source;
  char const* group;
  bool withdraw;
  unsigned priority;          // 0: the application's own
  char const* incoming;       // special interface 1
  std::vector<unsigned> oifs; // Ethernet numbers
};

std::vector<Step> const& steps();
// What happens in a round, one line.
char const* roundTitle(unsigned round);

App const* appNamed(std::string const& name);
std::string tableUrl(char const* vrf, char const* app);

// The route a step publishes, with the application's own OifIndex values.
Vorn::Multicast::Fib::Route routeOf(Step const& step, App const& app);
Vorn::Multicast::Fib::IpGenRouteKey keyOf(Step const& step);

}  // namespace MfibDemo
