#include "MiniDaemon.h"

#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
// The kernel's multicast routing header after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace FlowBurst::MiniDaemon {

namespace {

constexpr int kIifVif = 0;
constexpr int kOifVif = 1;
constexpr unsigned kBatch = 1024;

int failed(char const* what) {
  std::fprintf(stderr, "flow-burst daemon: %s: %s\n", what, std::strerror(errno));
  return 1;
}

bool addVif(int sd, int vif, char const* name) {
  vifctl v{};
  v.vifc_vifi = vifi_t(vif);
  v.vifc_flags = VIFF_USE_IFINDEX;
  v.vifc_threshold = 1;
  v.vifc_lcl_ifindex = int(::if_nametoindex(name));
  return v.vifc_lcl_ifindex > 0 && ::setsockopt(sd, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof(v)) == 0;
}

bool addMif(int sd, int mif, char const* name) {
  mif6ctl m{};
  m.mif6c_mifi = mifi_t(mif);
  m.vifc_threshold = 1;
  m.mif6c_pifi = std::uint16_t(::if_nametoindex(name));
  return m.mif6c_pifi > 0 && ::setsockopt(sd, IPPROTO_IPV6, MRT6_ADD_MIF, &m, sizeof(m)) == 0;
}

// The same daemon for IPv6: mrt6msg upcalls, MRT6_ADD_MFC.
int run6(Options const& o, volatile std::sig_atomic_t const& stop) {
  int const sd = ::socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
  if (sd < 0) return failed("routing socket");
  int const one = 1, queue = 64 << 20;
  if (::setsockopt(sd, IPPROTO_IPV6, MRT6_INIT, &one, sizeof(one)) < 0) return failed("MRT6_INIT");
  if (::setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &queue, sizeof(queue)) < 0) return failed("SO_RCVBUFFORCE");
  if (!addMif(sd, kIifVif, o.iif.c_str())) return failed(o.iif.c_str());
  if (!addMif(sd, kOifVif, o.oif.c_str())) return failed(o.oif.c_str());
  std::printf("ready\n");
  std::fflush(stdout);

  std::vector<mrt6msg> got(kBatch);
  std::vector<std::array<char, 128>> bufs(kBatch);
  std::vector<iovec> iov(kBatch);
  std::vector<mmsghdr> msgs(kBatch);
  for (unsigned i = 0; i < kBatch; ++i) {
    iov[i] = {bufs[i].data(), bufs[i].size()};
    msgs[i].msg_hdr = msghdr{};
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  unsigned long installed = 0, failures = 0;
  while (!stop) {
    pollfd p{sd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    int const n = ::recvmmsg(sd, msgs.data(), kBatch, MSG_DONTWAIT, nullptr);
    if (n <= 0) continue;
    std::size_t upcalls = 0;
    for (int i = 0; i < n; ++i) {
      mrt6msg m;
      if (msgs[i].msg_len < sizeof(m)) continue;
      std::memcpy(&m, bufs[i].data(), sizeof(m));
      // An upcall opens with a zero byte where an ICMPv6 message has its type.
      if (m.im6_mbz != 0 || m.im6_msgtype != MRT6MSG_NOCACHE || m.im6_mif != kIifVif) continue;
      got[upcalls++] = m;
    }
    for (std::size_t k = 0; k < upcalls; ++k) {
      mrt6msg const& m = got[o.order == newestFirst ? upcalls - 1 - k : k];
      mf6cctl c{};
      c.mf6cc_origin.sin6_family = AF_INET6;
      c.mf6cc_origin.sin6_addr = m.im6_src;
      c.mf6cc_mcastgrp.sin6_family = AF_INET6;
      c.mf6cc_mcastgrp.sin6_addr = m.im6_dst;
      c.mf6cc_parent = kIifVif;
      IF_SET(kOifVif, &c.mf6cc_ifset);
      if (::setsockopt(sd, IPPROTO_IPV6, MRT6_ADD_MFC, &c, sizeof(c)) == 0) {
        ++installed;
      } else {
        ++failures;
      }
    }
  }
  std::printf("installed %lu, failed %lu\n", installed, failures);
  ::close(sd);
  return 0;
}

}  // namespace

int run(Options const& o, volatile std::sig_atomic_t const& stop) {
  if (o.v6) return run6(o, stop);
  int const sd = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP);
  if (sd < 0) return failed("routing socket");
  int const one = 1, queue = 64 << 20;
  if (::setsockopt(sd, IPPROTO_IP, MRT_INIT, &one, sizeof(one)) < 0) return failed("MRT_INIT");
  if (::setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &queue, sizeof(queue)) < 0) return failed("SO_RCVBUFFORCE");
  if (!addVif(sd, kIifVif, o.iif.c_str())) return failed(o.iif.c_str());
  if (!addVif(sd, kOifVif, o.oif.c_str())) return failed(o.oif.c_str());
  std::printf("ready\n");
  std::fflush(stdout);

  std::vector<igmpmsg> got(kBatch);
  std::vector<std::array<char, 64>> bufs(kBatch);
  std::vector<iovec> iov(kBatch);
  std::vector<mmsghdr> msgs(kBatch);
  for (unsigned i = 0; i < kBatch; ++i) {
    iov[i] = {bufs[i].data(), bufs[i].size()};
    msgs[i].msg_hdr = msghdr{};
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  unsigned long installed = 0, failures = 0;
  while (!stop) {
    pollfd p{sd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    int const n = ::recvmmsg(sd, msgs.data(), kBatch, MSG_DONTWAIT, nullptr);
    if (n <= 0) continue;
    std::size_t upcalls = 0;
    for (int i = 0; i < n; ++i) {
      igmpmsg m;
      if (msgs[i].msg_len < sizeof(m)) continue;
      std::memcpy(&m, bufs[i].data(), sizeof(m));
      // Upcalls have a zero protocol byte where an IP header would have its own.
      if (m.im_mbz != 0 || m.im_msgtype != IGMPMSG_NOCACHE || m.im_vif != kIifVif) continue;
      got[upcalls++] = m;
    }
    for (std::size_t k = 0; k < upcalls; ++k) {
      igmpmsg const& m = got[o.order == newestFirst ? upcalls - 1 - k : k];
      mfcctl c{};
      c.mfcc_origin = m.im_src;
      c.mfcc_mcastgrp = m.im_dst;
      c.mfcc_parent = kIifVif;
      c.mfcc_ttls[kOifVif] = 1;
      if (::setsockopt(sd, IPPROTO_IP, MRT_ADD_MFC, &c, sizeof(c)) == 0) {
        ++installed;
      } else {
        ++failures;
      }
    }
  }
  std::printf("installed %lu, failed %lu\n", installed, failures);
  ::close(sd);
  return 0;
}

}  // namespace FlowBurst::MiniDaemon
