// MfcEvent: what the kernel says about its multicast forwarding caches,
// decoded from the rtnetlink notifications it sends to RTNLGRP_IPV4_MROUTE
// and RTNLGRP_IPV6_MROUTE and from /proc/net/ip_mr_cache and ip6_mr_cache. The bench watches these to see when each
// flow got its entry, whoever wrote it (smcroute or the agent), without
// asking either of them.
//
//   decodeMfcEvents(buf, n, [&](MfcEvent const& e) { if (e.kind == MfcEvent::resolvedAdded) ... });
//
// The kernel sends RTM_NEWROUTE when an unresolved entry is queued (first
// packet of a flow without an entry; rtm_flags carries RTNH_F_UNRESOLVED)
// and when a routing socket adds or replaces an entry, and RTM_DELROUTE when
// an entry is deleted or an unresolved one expires. On RTNLGRP_IPV4_MROUTE_R
// it sends RTM_NEWCACHEREPORT for every upcall it raises, before it tries
// to queue the upcall on the routing socket: a report whose upcall found the
// socket's queue full has no unresolved entry after it (the kernel throws
// the entry away), and with one packet per flow that flow is never asked
// about again. Only family RTNL_FAMILY_IPMR is decoded; every header and attribute length is checked
// before it is read, and anything short or foreign is skipped, not trusted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>

namespace FlowBurst {

struct MfcEvent {
  enum Kind { noCacheReported, unresolvedAdded, resolvedAdded, unresolvedExpired, resolvedRemoved };
  Kind kind;
  std::uint32_t source;  // host byte order; IPv6: the low 32 bits
  std::uint32_t group;   // host byte order; IPv6: the low 32 bits
  int iifIndex;          // the incoming interface's ifindex; 0 when the kernel gave none or for a report
  bool v6 = false;
  std::array<std::uint8_t, 16> source6{};  // IPv6: the whole addresses, network byte order
  std::array<std::uint8_t, 16> group6{};
};

// Calls `fn` for each MFC notification in one netlink datagram; returns how
// many it decoded. Messages of other types and families are passed over.
std::size_t decodeMfcEvents(void const* buf, std::size_t len, std::function<void(MfcEvent const&)> const& fn);

// One line of /proc/net/ip_mr_cache, decoded. `resolved` is false for an
// entry still waiting for a routing daemon (the kernel prints its incoming
// VIF as -1).
struct MfcCacheLine {
  std::uint32_t group;   // host byte order
  std::uint32_t source;  // host byte order
  bool resolved;
  std::array<std::uint8_t, 16> group6{};  // readMfc6Cache: network byte order
  std::array<std::uint8_t, 16> source6{};
};

// Reads /proc/net/ip_mr_cache's text and calls `fn` per entry line; the
// header and malformed lines are skipped. Returns the number of entries.
std::size_t readMfcCache(std::istream& in, std::function<void(MfcCacheLine const&)> const& fn);
// The same for /proc/net/ip6_mr_cache (addresses in full colon form; group
// and source also give their low 32 bits).
std::size_t readMfc6Cache(std::istream& in, std::function<void(MfcCacheLine const&)> const& fn);

}  // namespace FlowBurst
