#include "MrtNotify/detail/CacheReportCheck.h"

#include <cstring>

namespace Routing::Multicast::Notify::Detail {

namespace {

constexpr std::size_t nlmsgHdrLen = 16;
constexpr std::size_t attributesOffset = 20;
constexpr std::size_t rtattrLen = 4;
constexpr std::uint16_t rtmNewCacheReport = 96;

constexpr std::size_t tableIdLen = 4;
constexpr std::size_t intfIdLen = 8;

ReportCheck malformed(char const* why) {
  ReportCheck c;
  c.verdict = ReportVerdict::malformed;
  c.why = why;
  return c;
}

ReportCheck checkReport(std::uint8_t const* p, std::size_t len, Wirly::AddressFamily af, std::uint32_t mrtTable,
                        bool checkTable) {
  if (len < attributesOffset) return malformed("cache report too short for its family");
  std::size_t const addrLen = af == Wirly::ipv4 ? 4 : 16;
  ReportCheck c;
  unsigned seen = 0;
  for (std::size_t at = attributesOffset; at < len;) {
    if (len - at < rtattrLen) return malformed("attribute header cut off");
    std::uint16_t rtaLen, rtaType;
    std::memcpy(&rtaLen, p + at, 2);
    std::memcpy(&rtaType, p + at + 2, 2);
    if (rtaLen < rtattrLen || rtaLen > len - at) return malformed("attribute cut off by the report's length");
    std::size_t const valueLen = rtaLen - rtattrLen;
    bool sized = true;
    switch (rtaType) {
      case attrMsgType:
        sized = valueLen == 1;
        break;
      case attrVifId:
        sized = valueLen == 4;
        break;
      case attrSrcAddr:
      case attrDstAddr:
        sized = valueLen == addrLen;
        break;
      case attrPkt:
        break;
      case attrIntfIdOrTable:
        if (af == Wirly::ipv4 && valueLen == tableIdLen) {
          c.hasTable = true;
          std::memcpy(&c.table, p + at + rtattrLen, tableIdLen);
        } else {
          sized = valueLen == intfIdLen;
        }
        break;
      default:
        break;
    }
    if (!sized) return malformed("attribute value of the wrong size");
    if (rtaType >= attrMsgType && rtaType <= attrIntfIdOrTable) {
      unsigned const bit = 1u << rtaType;
      if (seen & bit) return malformed("attribute given twice");
      seen |= bit;
    }
    std::size_t const step = align4(rtaLen);
    if (step >= len - at) break;
    at += step;
  }
  c.verdict = checkTable && c.hasTable && c.table != mrtTable ? ReportVerdict::otherTable : ReportVerdict::ok;
  return c;
}

}  // namespace

ReportCheck checkCacheReports(std::uint8_t const* b, std::size_t n, Wirly::AddressFamily af, std::uint32_t mrtTable,
                              bool checkTable) {
  if (n < nlmsgHdrLen) return malformed("shorter than a netlink header");
  ReportCheck first;
  first.verdict = ReportVerdict::ok;
  bool reportSeen = false;
  for (std::size_t at = 0; at < n;) {
    if (n - at < nlmsgHdrLen) return malformed("bytes after the last netlink message");
    std::uint32_t len;
    std::uint16_t type;
    std::memcpy(&len, b + at, 4);
    std::memcpy(&type, b + at + 4, 2);
    if (len < nlmsgHdrLen || len > n - at) return malformed("netlink message cut off by the datagram");
    if (type == rtmNewCacheReport && !reportSeen) {
      reportSeen = true;
      first = checkReport(b + at, len, af, mrtTable, checkTable);
      first.hasReport = true;
      if (first.verdict == ReportVerdict::malformed) return first;
    }
    std::size_t const step = align4(len);
    if (step >= n - at) break;
    at += step;
  }
  return first;
}

}  // namespace Routing::Multicast::Notify::Detail
