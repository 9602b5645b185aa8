// MrouteAgent::Agent: the running agent for one network namespace. One
// Kiv::EventLoop drives everything: the MFIB directory and its tables, the
// route engine, the kernel's routing sockets, upcalls, link events, the
// recovery of lost upcalls and the show socket.
//
//   Agent::Options o;
//   o.intfs = {"Ethernet1", "Ethernet2"};
//   Agent agent(o);
//   if (int rc = agent.start()) return rc;      // prints why on stderr
//   agent.run([] { return stopRequested; });    // until the predicate is true
//
// start() fails (non-zero) on anything that leaves the agent unable to
// program the kernel or to be inspected: no privilege, another agent owning
// the kernel's multicast table, an unknown interface, a table root or socket
// directory that another user owns, another running agent of the same name
// (the message names its pid; that agent keeps its sockets). Events go to stdout, one line
// each, flushed at the end of every turn of the event loop; "ready" follows
// a successful start.
//
// Reports of flows that no route covers are bounded by Options::budget
// (UpcallBudget): past it they are only counted, and once a second that
// anything was refused the agent prints one line of how many:
//   upcall budget: refused <n> reports of flows without a route (interface <a>, total <b>, drop entries at maximum <c>)
//
// The flow log (Options::flowLog): one line per kernel entry that an upcall
// (or the recovery of a lost one) asked for, written when it is installed:
//   <ipv4|ipv6> <source> <group> <learnedNs> <installedNs> <upcall|recovered>
// both times CLOCK_MONOTONIC nanoseconds (the clock every namespace shares):
// learned is when the agent took the upcall up (reports are parsed as they
// are read and taken up in batches, newest first, at the end of a read) or
// found the flow in the kernel's unresolved list, installed when MRT_ADD_MFC
// returned. The
// same two times are in `show --json`, per entry (learnedNs, installedNs).
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "UpcallBudget.h"

namespace MrouteAgent {

class AgentImpl;

class Agent {
 public:
  struct Options {
    std::vector<std::string> intfs;  // "Ethernet1" or "Ethernet1=eth0" (IntfId=Linux name)
    std::string name = "mroute-agent";
    bool ipv4 = true;
    bool ipv6 = true;
    std::string flowLog;  // file, empty: none
    // Work given to reports of flows without a route, and the drop entries held.
    UpcallBudget::Settings budget;
  };

  explicit Agent(Options const& o);
  ~Agent();
  int start();
  void run(std::function<bool()> const& stop);

 private:
  std::unique_ptr<AgentImpl> impl_;
};

// The show socket's path for an agent name: $MROUTE_AGENT_DIR/<name>.sock,
// else /run/mroute-agent/<name>.sock for root and
// $XDG_RUNTIME_DIR/mroute-agent/<name>.sock for other users. The server
// makes the directory (0700) and refuses one that belongs to another user or
// that others may write (Kiv/PathTrust.h). Throws Kiv::Exception for a user
// other than root without MROUTE_AGENT_DIR or XDG_RUNTIME_DIR.
std::string showSocketPath(std::string const& name);

}  // namespace MrouteAgent
