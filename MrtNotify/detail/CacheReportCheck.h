// The shape check of a netlink datagram of cache reports, run before any of
// it is parsed; see MrtNotifyNetlinkSocket.h for where it stands in the
// receive path.
//
// Wire layout (host order for netlink fields, every length checked before
// the bytes it covers are read):
//   datagram  = frame { frame }           each frame 4-aligned
//   frame     = nlmsghdr (16: len, type, flags, seq, pid) payload
//               16 <= nlmsg_len <= bytes left in the datagram
//   report    = frame of type RTM_NEWCACHEREPORT (96) whose payload is
//               rtgenmsg (1 byte family, padded to 4) then attributes;
//               nlmsg_len >= 20
//   attribute = rtattr (rta_len, rta_type) value, 4-aligned;
//               4 <= rta_len <= bytes left in the report
// Attribute values that must have exactly their size:
//   1 MSGTYPE 1 byte; 2 VIF/MIF index 4; 3 source, 4 group 4 (IPv4) or
//   16 (IPv6); 5 data packet any; 6 on IPv4: 4 bytes is the kernel's routing
//   table id, 8 bytes this system's interface id (the relay's); on IPv6
//   only the 8-byte interface id (the kernel sends no table there).
//   Other types are left to the parser, which skips them.
// Malformed: no frame or a cut frame, bytes after the last frame that are
// not a frame, a cut attribute, a value of the wrong size,
// an attribute of types 1-6 twice in the report. Only the first report of a
// datagram is checked in depth: it is the only one the parser reads.
// What the check does not judge: the family byte, whether the message type
// is known and whether the VIF/MIF resolves. Those stay the parser's, which
// holds them as invariants of what the kernel and this system's relay send;
// they are reached only by datagrams of trusted senders.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Wirly/AddressFamily.h"

namespace Routing::Multicast::Notify::Detail {

// Cache report attribute types, as the kernel and this system's relay write them.
constexpr std::uint16_t attrMsgType = 1;
constexpr std::uint16_t attrVifId = 2;
constexpr std::uint16_t attrSrcAddr = 3;
constexpr std::uint16_t attrDstAddr = 4;
constexpr std::uint16_t attrPkt = 5;
// The kernel's table id (4 bytes, IPv4) or the relay's interface id (8 bytes).
constexpr std::uint16_t attrIntfIdOrTable = 6;

// Netlink pads messages and attributes to 4 bytes.
constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t(3); }

enum class ReportVerdict : std::uint8_t { ok, malformed, otherTable };

struct ReportCheck {
  ReportVerdict verdict = ReportVerdict::malformed;
  // Why a datagram is malformed, for traces; null when it is not.
  char const* why = nullptr;
  // Whether the datagram holds a cache report at all (the receiving socket
  // drops one that does not; the parser traces what it holds instead).
  bool hasReport = false;
  // The kernel's table id when the report carries one.
  bool hasTable = false;
  std::uint32_t table = 0;
};

// Checks the datagram b[0, n) of cache reports of family af. A report that
// names a table other than mrtTable is otherTable; checkTable false leaves
// the table unjudged (the parser's own shape check).
ReportCheck checkCacheReports(std::uint8_t const* b, std::size_t n, Wirly::AddressFamily af, std::uint32_t mrtTable,
                              bool checkTable = true);

}  // namespace Routing::Multicast::Notify::Detail
