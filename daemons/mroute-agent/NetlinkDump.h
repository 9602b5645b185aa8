// MrouteAgent::sendDumpRequest: asks the kernel over an rtnetlink socket for
// a dump (RTM_GETLINK, RTM_GETROUTE, ...) whose request body is payload,
// through the system-call seam. Returns sendmsg's result, errno set on failure.
#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstdint>

#include "Wirly/Sys.h"

namespace MrouteAgent {

template <class Payload>
ssize_t sendDumpRequest(int fd, std::uint16_t type, Payload const& payload, std::uint32_t seq) {
  struct {
    nlmsghdr h;
    Payload body;
  } req{};
  req.h.nlmsg_len = sizeof req;
  req.h.nlmsg_type = type;
  req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  req.h.nlmsg_seq = seq;
  req.body = payload;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  iovec iov{&req, sizeof req};
  msghdr msg{};
  msg.msg_name = &kernel;
  msg.msg_namelen = sizeof kernel;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  return Wirly::Sys::sys().sendmsg(fd, &msg, 0);
}

}  // namespace MrouteAgent
