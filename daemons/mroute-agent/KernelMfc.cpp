#include "KernelMfc.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
// The kernel's multicast routing headers after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <cstring>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Wirly/Sys.h"

namespace MrouteAgent {

static_assert(sizeof(mfcctl) == 60 && sizeof(mf6cctl) == 92 && sizeof(vifctl) == 16 && sizeof(mif6ctl) == 12);
static_assert(KernelMfc::maxVifs == MAXVIFS);
static_assert(KernelMfc::maxVifs == MAXMIFS);

namespace {

int level(Wirly::AddressFamily af) { return af == Wirly::ipv4 ? IPPROTO_IP : IPPROTO_IPV6; }

sockaddr_in6 sockaddr6(Wirly::IpGenAddr const& a) {
  sockaddr_in6 s{};
  s.sin6_family = AF_INET6;
  s.sin6_addr = a.in6Addr();
  return s;
}

}  // namespace

KernelMfc::~KernelMfc() { doClose(); }

void KernelMfc::doClose() {
  if (fd_ >= 0) Wirly::Sys::sys().close(fd_);
  fd_ = -1;
}

void KernelMfc::open() {
  KIV_ASSERT(fd_ < 0);
  Wirly::Sys& sys = Wirly::Sys::sys();
  bool const v4 = af_ == Wirly::ipv4;
  fd_ = v4 ? sys.socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_IGMP)
           : sys.socket(AF_INET6, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_ICMPV6);
  if (fd_ < 0) throw Kiv::ErrnoException("socket", errno);
  auto option = [&](int name, char const* call, int value) {
    if (sys.setsockopt(fd_, level(af_), name, &value, sizeof value) == 0) return;
    int const err = errno;
    doClose();
    throw Kiv::ErrnoException(call, err);
  };
  option(v4 ? MRT_INIT : MRT6_INIT, v4 ? "setsockopt(MRT_INIT)" : "setsockopt(MRT6_INIT)", 1);
  option(v4 ? MRT_ASSERT : MRT6_ASSERT, v4 ? "setsockopt(MRT_ASSERT)" : "setsockopt(MRT6_ASSERT)", 1);
  // Upcalls also queue on this socket; a burst must not be lost here when
  // it is the agent's source of them. SO_RCVBUFFORCE needs CAP_NET_ADMIN in
  // the initial user namespace; elsewhere SO_RCVBUF up to rmem_max.
  int bytes = rcvBufBytes;
  if (sys.setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    sys.setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  socklen_t len = sizeof rcvBuf_;
  if (sys.getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvBuf_, &len) != 0) rcvBuf_ = 0;
}

void KernelMfc::vifIs(std::uint16_t vif, int ifIndex) {
  KIV_ASSERT(fd_ >= 0);
  KIV_ASSERT(vif < maxVifs);
  Wirly::Sys& sys = Wirly::Sys::sys();
  int rc;
  char const* call;
  if (af_ == Wirly::ipv4) {
    vifctl v{};
    v.vifc_vifi = vif;
    v.vifc_flags = VIFF_USE_IFINDEX;
    v.vifc_threshold = forwardTtl;
    v.vifc_lcl_ifindex = ifIndex;
    rc = sys.setsockopt(fd_, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof v);
    call = "setsockopt(MRT_ADD_VIF)";
  } else {
    mif6ctl m{};
    m.mif6c_mifi = vif;
    m.vifc_threshold = forwardTtl;
    m.mif6c_pifi = static_cast<std::uint16_t>(ifIndex);
    rc = sys.setsockopt(fd_, IPPROTO_IPV6, MRT6_ADD_MIF, &m, sizeof m);
    call = "setsockopt(MRT6_ADD_MIF)";
  }
  if (rc != 0) throw Kiv::ErrnoException(call, errno);
}

std::vector<std::uint8_t> KernelMfc::mfcBytes(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                                              std::uint16_t iif, std::vector<std::uint16_t> const& oifs) const {
  std::vector<std::uint8_t> out;
  if (af_ == Wirly::ipv4) {
    mfcctl m{};
    m.mfcc_origin = source.inAddr();
    m.mfcc_mcastgrp = group.inAddr();
    m.mfcc_parent = iif;
    for (std::uint16_t o : oifs)
      if (o < maxVifs && o != iif) m.mfcc_ttls[o] = forwardTtl;
    out.assign(reinterpret_cast<std::uint8_t const*>(&m), reinterpret_cast<std::uint8_t const*>(&m) + sizeof m);
  } else {
    mf6cctl m{};
    m.mf6cc_origin = sockaddr6(source);
    m.mf6cc_mcastgrp = sockaddr6(group);
    m.mf6cc_parent = iif;
    for (std::uint16_t o : oifs)
      if (o < maxVifs && o != iif) IF_SET(o, &m.mf6cc_ifset);
    out.assign(reinterpret_cast<std::uint8_t const*>(&m), reinterpret_cast<std::uint8_t const*>(&m) + sizeof m);
  }
  return out;
}

int KernelMfc::mfcIs(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif,
                     std::vector<std::uint16_t> const& oifs) {
  std::uint32_t mask = 0;
  for (std::uint16_t o : oifs)
    if (o < maxVifs) mask |= std::uint32_t(1) << o;
  return mfcIs(source, group, iif, mask);
}

int KernelMfc::mfcIs(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif,
                     std::uint32_t oifMask) {
  if (fd_ < 0) return EBADF;
  // The request on the stack: nothing is allocated per entry.
  int rc;
  if (af_ == Wirly::ipv4) {
    mfcctl m{};
    m.mfcc_origin = source.inAddr();
    m.mfcc_mcastgrp = group.inAddr();
    m.mfcc_parent = iif;
    for (std::uint16_t o = 0; o < maxVifs; ++o)
      if ((oifMask >> o & 1) && o != iif) m.mfcc_ttls[o] = forwardTtl;
    rc = Wirly::Sys::sys().setsockopt(fd_, IPPROTO_IP, MRT_ADD_MFC, &m, sizeof m);
  } else {
    mf6cctl m{};
    m.mf6cc_origin = sockaddr6(source);
    m.mf6cc_mcastgrp = sockaddr6(group);
    m.mf6cc_parent = iif;
    for (std::uint16_t o = 0; o < maxVifs; ++o)
      if ((oifMask >> o & 1) && o != iif) IF_SET(o, &m.mf6cc_ifset);
    rc = Wirly::Sys::sys().setsockopt(fd_, IPPROTO_IPV6, MRT6_ADD_MFC, &m, sizeof m);
  }
  return rc == 0 ? 0 : errno;
}

int KernelMfc::mfcDel(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group, std::uint16_t iif) {
  if (fd_ < 0) return EBADF;
  std::vector<std::uint8_t> const bytes = mfcBytes(source, group, iif, {});
  int const name = af_ == Wirly::ipv4 ? MRT_DEL_MFC : MRT6_DEL_MFC;
  if (Wirly::Sys::sys().setsockopt(fd_, level(af_), name, bytes.data(), socklen_t(bytes.size())) == 0) return 0;
  return errno;
}

KernelMfc::Counters KernelMfc::counters(Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group) const {
  Counters c;
  if (fd_ < 0) return c;
  if (af_ == Wirly::ipv4) {
    sioc_sg_req r{};
    r.src = source.inAddr();
    r.grp = group.inAddr();
    if (Wirly::Sys::sys().ioctl(fd_, SIOCGETSGCNT, &r) != 0) return c;
    c = {true, r.pktcnt, r.bytecnt, r.wrong_if};
  } else {
    sioc_sg_req6 r{};
    r.src = sockaddr6(source);
    r.grp = sockaddr6(group);
    if (Wirly::Sys::sys().ioctl(fd_, SIOCGETSGCNT_IN6, &r) != 0) return c;
    c = {true, r.pktcnt, r.bytecnt, r.wrong_if};
  }
  return c;
}

}  // namespace MrouteAgent
