// MrouteAgent::UnresolvedScan: the (S, G) flows the kernel holds unresolved,
// that is, packets it queued for an entry nobody wrote. The kernel drops
// upcall reports when a reader's queue is full; the flows stay in this list
// (about 10 s) and the agent recovers them from here.
//
//   UnresolvedScan scan;
//   for (auto const& f : scan.scan(Wirly::ipv4)) engine.handleRecovered(Wirly::ipv4, f.source, f.group);
//
// Source: an rtnetlink RTM_GETROUTE dump of family RTNL_FAMILY_IPMR (128)
// or RTNL_FAMILY_IP6MR (129), which lists every entry of the multicast
// tables, resolved or not; an unresolved one carries RTNH_F_UNRESOLVED in
// rtm_flags. Wire layout read: nlmsghdr (16), rtmsg (12), then attributes;
// RTA_SRC and RTA_DST are taken only when their length is the family's
// address length. Frames whose nlmsg_len leaves the datagram end the parse.
// All calls go through Wirly::Sys; a failed dump returns what it had and
// counts in failures().
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Wirly/AddressFamily.h"
#include "Wirly/IpGenAddr.h"

namespace MrouteAgent {

class UnresolvedScan {
 public:
  struct Flow {
    Wirly::IpGenAddr source;
    Wirly::IpGenAddr group;
  };
  static constexpr std::uint8_t familyIpmr = 128;
  static constexpr std::uint8_t familyIp6mr = 129;

  UnresolvedScan() = default;
  ~UnresolvedScan();
  UnresolvedScan(UnresolvedScan const&) = delete;
  UnresolvedScan& operator=(UnresolvedScan const&) = delete;

  // One dump, read to its end (NLMSG_DONE) or an error.
  std::vector<Flow> scan(Wirly::AddressFamily af);
  std::uint64_t scans() const { return scans_; }
  std::uint64_t failures() const { return failures_; }

  // The unresolved flows of one datagram of the dump; *done when it held
  // NLMSG_DONE or NLMSG_ERROR.
  static std::vector<Flow> parse(Wirly::AddressFamily af, std::uint8_t const* buf, std::size_t len, bool* done);

 private:
  bool doOpen();
  int fd_ = -1;
  std::uint32_t seq_ = 0;
  std::uint64_t scans_ = 0;
  std::uint64_t failures_ = 0;
};

}  // namespace MrouteAgent
