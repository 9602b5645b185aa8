#include "MfcEvent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
// The kernel's multicast routing header after the C library's.
#include <linux/mroute.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace FlowBurst {

namespace {

std::uint32_t readAddr(rtattr const* a) {
  std::uint32_t be;
  std::memcpy(&be, RTA_DATA(a), sizeof(be));
  return ntohl(be);
}

// An address attribute of the family's length into e (source or group).
bool readAddr(rtattr const* a, bool v6, std::uint32_t* low, std::array<std::uint8_t, 16>* whole) {
  std::size_t const payload = RTA_PAYLOAD(a);
  if (payload != (v6 ? 16u : 4u)) return false;
  if (!v6) {
    *low = readAddr(a);
    return true;
  }
  std::memcpy(whole->data(), RTA_DATA(a), 16);
  std::uint32_t be;
  std::memcpy(&be, whole->data() + 12, sizeof(be));
  *low = ntohl(be);
  return true;
}

// A no-cache upcall report: rtgenmsg, then u8 message type, u32 VIF, the
// source and group, the table and the packet.
bool decodeReport(nlmsghdr const* h, MfcEvent* out) {
  if (h->nlmsg_len < NLMSG_LENGTH(sizeof(rtgenmsg))) return false;
  auto const* gen = static_cast<rtgenmsg const*>(NLMSG_DATA(h));
  if (gen->rtgen_family != RTNL_FAMILY_IPMR && gen->rtgen_family != RTNL_FAMILY_IP6MR) return false;
  bool haveType = false, haveSrc = false, haveGrp = false;
  MfcEvent e{};
  e.kind = MfcEvent::noCacheReported;
  e.v6 = gen->rtgen_family == RTNL_FAMILY_IP6MR;
  int left = int(h->nlmsg_len - NLMSG_LENGTH(NLMSG_ALIGN(sizeof(rtgenmsg))));
  auto const* a =
      reinterpret_cast<rtattr const*>(static_cast<char const*>(NLMSG_DATA(h)) + NLMSG_ALIGN(sizeof(rtgenmsg)));
  for (; RTA_OK(a, left); a = RTA_NEXT(a, left)) {
    std::size_t const payload = RTA_PAYLOAD(a);
    if (a->rta_type == IPMRA_CREPORT_MSGTYPE && payload == 1) {
      haveType = *static_cast<unsigned char const*>(RTA_DATA(a)) == IGMPMSG_NOCACHE;
    } else if (a->rta_type == IPMRA_CREPORT_SRC_ADDR) {
      haveSrc = readAddr(a, e.v6, &e.source, &e.source6);
    } else if (a->rta_type == IPMRA_CREPORT_DST_ADDR) {
      haveGrp = readAddr(a, e.v6, &e.group, &e.group6);
    }
  }
  if (!haveType || !haveSrc || !haveGrp) return false;
  *out = e;
  return true;
}

// One RTM_NEWROUTE/RTM_DELROUTE message whose header fits in `h`.
bool decodeOne(nlmsghdr const* h, MfcEvent* out) {
  if (h->nlmsg_type == RTM_NEWCACHEREPORT) return decodeReport(h, out);
  if (h->nlmsg_type != RTM_NEWROUTE && h->nlmsg_type != RTM_DELROUTE) return false;
  if (h->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return false;
  auto const* rtm = static_cast<rtmsg const*>(NLMSG_DATA(h));
  if (rtm->rtm_family != RTNL_FAMILY_IPMR && rtm->rtm_family != RTNL_FAMILY_IP6MR) return false;
  bool const unresolved = (rtm->rtm_flags & RTNH_F_UNRESOLVED) != 0;
  bool haveSrc = false, haveGrp = false;
  MfcEvent e{};
  e.v6 = rtm->rtm_family == RTNL_FAMILY_IP6MR;
  int left = int(h->nlmsg_len - NLMSG_LENGTH(sizeof(rtmsg)));
  for (auto const* a = RTM_RTA(rtm); RTA_OK(a, left); a = RTA_NEXT(a, left)) {
    std::size_t const payload = RTA_PAYLOAD(a);
    if (a->rta_type == RTA_SRC) {
      haveSrc = readAddr(a, e.v6, &e.source, &e.source6);
    } else if (a->rta_type == RTA_DST) {
      haveGrp = readAddr(a, e.v6, &e.group, &e.group6);
    } else if (a->rta_type == RTA_IIF && payload == 4) {
      std::uint32_t v;
      std::memcpy(&v, RTA_DATA(a), sizeof(v));
      e.iifIndex = int(v);
    }
  }
  if (!haveSrc || !haveGrp) return false;
  if (h->nlmsg_type == RTM_NEWROUTE) {
    e.kind = unresolved ? MfcEvent::unresolvedAdded : MfcEvent::resolvedAdded;
  } else {
    e.kind = unresolved ? MfcEvent::unresolvedExpired : MfcEvent::resolvedRemoved;
  }
  *out = e;
  return true;
}

}  // namespace

std::size_t decodeMfcEvents(void const* buf, std::size_t len, std::function<void(MfcEvent const&)> const& fn) {
  std::size_t n = 0;
  auto const* p = static_cast<char const*>(buf);
  // Each message must hold its header and fit, by its stated length, in what is left.
  for (std::size_t off = 0; off < len && len - off >= sizeof(nlmsghdr);) {
    auto const* h = reinterpret_cast<nlmsghdr const*>(p + off);
    if (h->nlmsg_len < sizeof(nlmsghdr) || h->nlmsg_len > len - off) break;
    MfcEvent e;
    if (decodeOne(h, &e)) {
      fn(e);
      ++n;
    }
    off += NLMSG_ALIGN(h->nlmsg_len);
  }
  return n;
}

std::size_t readMfcCache(std::istream& in, std::function<void(MfcCacheLine const&)> const& fn) {
  std::size_t n = 0;
  std::string line;
  while (std::getline(in, line)) {
    // "%08X %08X %-3hd ...": group and origin as the kernel holds them (network
    // byte order printed as a native integer), then the incoming VIF.
    unsigned int grp, src;
    int iif;
    char tail;
    if (std::sscanf(line.c_str(), "%8X %8X %d%c", &grp, &src, &iif, &tail) < 3) continue;
    fn(MfcCacheLine{ntohl(grp), ntohl(src), iif >= 0});
    ++n;
  }
  return n;
}

std::size_t readMfc6Cache(std::istream& in, std::function<void(MfcCacheLine const&)> const& fn) {
  std::size_t n = 0;
  std::string line;
  while (std::getline(in, line)) {
    // "%pI6 %pI6 %-3hd ...": group, origin, then the incoming MIF (-1: unresolved).
    char grp[64], src[64];
    int iif;
    if (std::sscanf(line.c_str(), "%63s %63s %d", grp, src, &iif) != 3) continue;
    MfcCacheLine l{};
    if (::inet_pton(AF_INET6, grp, l.group6.data()) != 1 || ::inet_pton(AF_INET6, src, l.source6.data()) != 1) continue;
    std::uint32_t be;
    std::memcpy(&be, l.group6.data() + 12, sizeof(be));
    l.group = ntohl(be);
    std::memcpy(&be, l.source6.data() + 12, sizeof(be));
    l.source = ntohl(be);
    l.resolved = iif >= 0;
    fn(l);
    ++n;
  }
  return n;
}

}  // namespace FlowBurst
