#include "UnresolvedScan.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>

#include "AgentTrace.h"
#include "NetlinkDump.h"
#include "Wirly/Sys.h"

namespace MrouteAgent {

namespace {

Kiv::TraceHandle& th() { return agentTrace(); }

}  // namespace

UnresolvedScan::~UnresolvedScan() {
  if (fd_ >= 0) Wirly::Sys::sys().close(fd_);
}

bool UnresolvedScan::doOpen() {
  if (fd_ >= 0) return true;
  Wirly::Sys& sys = Wirly::Sys::sys();
  fd_ = sys.socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd_ < 0) return false;
  // A dump is answered at once; the timeout only guards a kernel that never ends one.
  timeval tv{1, 0};
  sys.setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  if (sys.bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    sys.close(fd_);
    fd_ = -1;
    return false;
  }
  return true;
}

std::vector<UnresolvedScan::Flow> UnresolvedScan::parse(Wirly::AddressFamily af, std::uint8_t const* buf,
                                                        std::size_t len, bool* done) {
  std::vector<Flow> out;
  std::size_t const addrLen = af == Wirly::ipv4 ? 4 : 16;
  std::uint8_t const family = af == Wirly::ipv4 ? familyIpmr : familyIp6mr;
  std::size_t at = 0;
  while (len - at >= sizeof(nlmsghdr)) {
    nlmsghdr h;
    std::memcpy(&h, buf + at, sizeof h);
    if (h.nlmsg_len < sizeof h || h.nlmsg_len > len - at) break;
    if (h.nlmsg_type == NLMSG_DONE || h.nlmsg_type == NLMSG_ERROR) {
      if (done) *done = true;
      break;
    }
    if (h.nlmsg_type == RTM_NEWROUTE && h.nlmsg_len >= NLMSG_LENGTH(sizeof(rtmsg))) {
      rtmsg rt;
      std::memcpy(&rt, buf + at + NLMSG_HDRLEN, sizeof rt);
      if (rt.rtm_family == family && (rt.rtm_flags & RTNH_F_UNRESOLVED)) {
        Flow f;
        std::size_t a = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg));
        while (a + sizeof(rtattr) <= h.nlmsg_len) {
          rtattr ra;
          std::memcpy(&ra, buf + at + a, sizeof ra);
          if (ra.rta_len < sizeof ra || a + ra.rta_len > h.nlmsg_len) break;
          std::uint8_t const* v = buf + at + a + RTA_LENGTH(0);
          std::size_t const vlen = ra.rta_len - RTA_LENGTH(0);
          if ((ra.rta_type == RTA_SRC || ra.rta_type == RTA_DST) && vlen == addrLen) {
            Wirly::IpGenAddr addr;
            if (af == Wirly::ipv4) {
              in_addr x;
              std::memcpy(&x, v, 4);
              addr = Wirly::IpGenAddr(x);
            } else {
              in6_addr x;
              std::memcpy(&x, v, 16);
              addr = Wirly::IpGenAddr(x);
            }
            (ra.rta_type == RTA_SRC ? f.source : f.group) = addr;
          }
          a += RTA_ALIGN(ra.rta_len);
        }
        if (!f.source.isUnspecified() && !f.group.isUnspecified()) out.push_back(f);
      }
    }
    at += NLMSG_ALIGN(h.nlmsg_len);
    if (at > len) break;
  }
  return out;
}

std::vector<UnresolvedScan::Flow> UnresolvedScan::scan(Wirly::AddressFamily af) {
  std::vector<Flow> out;
  ++scans_;
  if (!doOpen()) {
    ++failures_;
    return out;
  }
  Wirly::Sys& sys = Wirly::Sys::sys();
  rtmsg table{};
  table.rtm_family = af == Wirly::ipv4 ? familyIpmr : familyIp6mr;
  if (sendDumpRequest(fd_, RTM_GETROUTE, table, ++seq_) < 0) {
    ++failures_;
    KIV_TRACE(th(), 2, "unresolved scan: sendmsg: " << std::strerror(errno));
    return out;
  }
  alignas(nlmsghdr) static std::uint8_t buf[1 << 16];
  bool done = false;
  while (!done) {
    ssize_t const n = sys.recv(fd_, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ++failures_;
      KIV_TRACE(th(), 2, "unresolved scan: recv: " << std::strerror(errno));
      // What is left of this dump would confuse the next: start afresh.
      sys.close(fd_);
      fd_ = -1;
      break;
    }
    std::vector<Flow> got = parse(af, buf, static_cast<std::size_t>(n), &done);
    out.insert(out.end(), got.begin(), got.end());
  }
  return out;
}

}  // namespace MrouteAgent
