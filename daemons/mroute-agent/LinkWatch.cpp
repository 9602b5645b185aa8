#include "LinkWatch.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

#include "Kiv/Exception.h"
#include "NetlinkDump.h"
#include "Wirly/Sys.h"

namespace MrouteAgent {

LinkWatch::~LinkWatch() {
  if (fd_ >= 0) Wirly::Sys::sys().close(fd_);
}

void LinkWatch::open() {
  Wirly::Sys& sys = Wirly::Sys::sys();
  fd_ = sys.socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd_ < 0) throw Kiv::ErrnoException("socket", errno);
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  addr.nl_groups = RTMGRP_LINK;
  if (sys.bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int const err = errno;
    sys.close(fd_);
    fd_ = -1;
    throw Kiv::ErrnoException("bind", err);
  }
  doDump();
}

void LinkWatch::doDump() {
  ifinfomsg all{};
  all.ifi_family = AF_UNSPEC;
  if (sendDumpRequest(fd_, RTM_GETLINK, all, ++seq_) < 0) throw Kiv::ErrnoException("sendmsg(RTM_GETLINK)", errno);
}

std::vector<LinkWatch::Event> LinkWatch::parse(std::uint8_t const* buf, std::size_t len, std::uint64_t* malformed) {
  std::vector<Event> out;
  std::size_t at = 0;
  while (len - at >= sizeof(nlmsghdr)) {
    nlmsghdr h;
    std::memcpy(&h, buf + at, sizeof h);
    if (h.nlmsg_len < sizeof h || h.nlmsg_len > len - at) {
      if (malformed) ++*malformed;
      break;
    }
    if (h.nlmsg_type == RTM_NEWLINK || h.nlmsg_type == RTM_DELLINK) {
      if (h.nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
        if (malformed) ++*malformed;
      } else {
        ifinfomsg i;
        std::memcpy(&i, buf + at + NLMSG_HDRLEN, sizeof i);
        bool const up = h.nlmsg_type == RTM_NEWLINK && (i.ifi_flags & IFF_UP) && (i.ifi_flags & IFF_RUNNING);
        out.push_back({i.ifi_index, up});
      }
    }
    at += NLMSG_ALIGN(h.nlmsg_len);
    if (at > len) break;
  }
  return out;
}

void LinkWatch::handleReadable() {
  alignas(nlmsghdr) std::uint8_t buf[32768];
  for (;;) {
    ssize_t const n = Wirly::Sys::sys().recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0) {
      if (errno == ENOBUFS) {
        ++overruns_;
        doDump();
        continue;
      }
      return;
    }
    if (n == 0) return;
    for (Event const& e : parse(buf, static_cast<std::size_t>(n), &malformed_)) cb_(e.ifIndex, e.up);
  }
}

}  // namespace MrouteAgent
