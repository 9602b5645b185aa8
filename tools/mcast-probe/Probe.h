// Multicast test traffic between network namespaces: a sender that sends
// UDP datagrams to a list of groups and a receiver that joins them on one
// interface and counts what arrives per group. Both print one line that a
// script can parse:
//
//   sent 239.1.1.1=5 ff3e::1:1=5 total=10
//   recv Ethernet2 239.1.1.1=5 ff3e::1:1=0 total=5
//
// With --summary only the totals: "recv Ethernet2 groups=2 total=5".
//
// Groups are IPv4 or IPv6 multicast addresses, comma-separated; "A+N" stands
// for N consecutive groups starting at A (239.2.0.0+10000), so a burst to
// many groups fits on a command line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Wirly/IpGenAddr.h"

namespace McastProbe {

// Groups in the order given; Kiv::ParseException (with the offending item)
// for anything that is not a multicast group, or a range that leaves the
// family's multicast space.
std::vector<Wirly::IpGenAddr> parseGroups(std::string_view list);

struct Counts {
  std::vector<Wirly::IpGenAddr> groups;
  std::vector<std::uint64_t> count;  // per group, same order
  std::uint64_t total() const;
  // "<word> [intf] g=n ... total=n", or the summary form.
  std::string line(std::string const& word, std::string const& intf, bool summary) const;
};

struct SendOptions {
  std::vector<Wirly::IpGenAddr> groups;
  unsigned count = 1;
  unsigned intervalMs = 100;
  unsigned ttl = 8;    // IPv4 TTL and IPv6 hop limit: the router needs > 1
  std::string intf;    // outgoing interface; empty: the routing table's choice
  std::string source;  // source address to bind; empty: the kernel's choice
  std::uint16_t port = 5001;
};

struct RecvOptions {
  std::vector<Wirly::IpGenAddr> groups;
  std::string intf;  // required: groups are joined and counted on it alone
  double seconds = 5;
  std::uint16_t port = 5001;
};

// Each returns the counts; errors (no such interface, a failed socket call)
// throw Kiv::ErrnoException or Kiv::RangeException with what failed.
// The receiver stops early on SIGINT or SIGTERM, once it has joined.
Counts send(SendOptions const& o);
Counts receive(RecvOptions const& o, void (*onListening)() = nullptr);

}  // namespace McastProbe
