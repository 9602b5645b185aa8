// The churn modes of flow-burst: how fast a routing daemon brings N (S, G)
// entries of the kernel's forwarding cache to a wanted state (all of them
// installed, or every one's outgoing interfaces changed), watched from
// outside the daemon.
//
//   ip netns exec R flow-burst mfc-wait --source 10.0.1.2 --groups 225.0.0.0 --routes 100000
//       --iif Ethernet1 --oifs Ethernet3 --since-file t0 --out round1.txt
//   ip netns exec R flow-burst mfc-floor --source 10.0.1.2 --groups 225.0.0.0 --routes 100000
//       --iif Ethernet1 --oifs Ethernet2 --oifs2 Ethernet3 --out floor.txt
//
// mfc-wait reads the kernel's whole table once (a netlink dump), prints
// "watching", then follows the kernel's notification of every entry written
// (RTNLGRP_IPV4_MROUTE) until each of the N entries has the wanted incoming
// and outgoing interfaces; a lost notification (the queue overran) costs a
// fresh dump, not a wrong count. The time is taken from the moment written to
// --since-file (bash's $EPOCHREALTIME, seconds) by whoever starts the change,
// so the watcher is listening before the change begins. A last dump checks
// the count exactly.
//
// mfc-floor is the least any daemon can do: one MRT_ADD_MFC per entry and
// nothing else, all N installed, then all N changed to --oifs2.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace FlowBurst {

// One IPv4 entry of the kernel's forwarding cache, as a notification or a
// dump message gives it.
struct MfcRoute {
  bool removed = false;                 // RTM_DELROUTE
  bool unresolved = false;              // waiting for a daemon: no interfaces yet
  std::uint32_t source = 0, group = 0;  // host byte order
  int iif = 0;                          // ifindex, 0 when not given
  std::vector<int> oifs;                // ifindexes, in the kernel's order
};

// Calls fn per RTM_NEWROUTE/RTM_DELROUTE message of family RTNL_FAMILY_IPMR
// in one datagram; sets *done on NLMSG_DONE and *error on NLMSG_ERROR (the
// error code, negative) when given. Every length is checked before it is
// read; a short or foreign message is passed over. Returns how many it decoded.
std::size_t decodeMfcRoutes(void const* buf, std::size_t len, std::function<void(MfcRoute const&)> const& fn,
                            bool* done = nullptr, int* error = nullptr);

int mfcWait(int argc, char** argv);
int mfcFloor(int argc, char** argv);

}  // namespace FlowBurst
