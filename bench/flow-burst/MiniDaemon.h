// MiniDaemon: the least a routing daemon can do for a burst of new flows,
// as the bench's floor: read the kernel's no-cache upcalls from its own
// routing socket (queue 64 MiB, so none is dropped) and install one entry
// per upcall, iif -> oif, nothing else. No routes, no model, no output per
// flow. Whatever it cannot reach, no daemon on this kernel and machine can.
//
//   MiniDaemon::Options o{"Ethernet1", "Ethernet2", MiniDaemon::newestFirst};
//   return MiniDaemon::run(o, stopFlag);   // prints "ready" once its VIFs are added
//
// The kernel keeps unresolved entries on one list, newest at the head, and
// searches it from the head when an entry is added; installing each batch
// of upcalls newest first finds them at once, oldest first walks the list.
// Both orders are offered so the bench can show the difference.
#pragma once

#include <csignal>
#include <string>

namespace FlowBurst::MiniDaemon {

enum Order { oldestFirst, newestFirst };

struct Options {
  std::string iif;
  std::string oif;
  Order order = newestFirst;
  bool v6 = false;  // the IPv6 table (MRT6_*, mrt6msg upcalls)
};

// Runs in the current network namespace until `stop` is set; 0 on a clean
// end, 1 when the routing socket or its VIFs cannot be set up (said on stderr).
int run(Options const& o, volatile std::sig_atomic_t const& stop);

}  // namespace FlowBurst::MiniDaemon
