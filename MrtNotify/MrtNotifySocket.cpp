#include "MrtNotify/MrtNotifySocket.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <cstring>
#include <sstream>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Wirly/NamespaceSocket.h"
#include "Wirly/Sys.h"

namespace Routing::Multicast::Notify {

namespace {

char const* const className = "Routing::Multicast::Notify::MrtNotifySocketPam";

// The upcall kinds in the order they are subscribed and unsubscribed, with
// the kernel's message type for each and the texts of their failures.
struct OptionStep {
  std::uint32_t bit;
  int kernelType;
  char const* traceName;
  char const* enableCall;
  char const* changeCall;
};
constexpr OptionStep optionSteps[] = {
    {wrongvif, 2, "wrongvif", "setsocketopt(MRT_NOTIFY_ADD), WRONGVIF", "setsockopt(IGMP_WRONGVIF)"},
    {nocache, 1, "nocache", "setsocketopt(MRT_NOTIFY_ADD), NOCACHE", "setsockopt(IGMP_NOCACHE)"},
    {wholepkt, 3, "wholepkt", "setsocketopt(MRT_NOTIFY_ADD), WHOLEPKT", "setsockopt(IGMP_WHOLEPKT)"},
};

int setIntOption(int sd, int level, int name, int value) {
  return Wirly::Sys::sys().setsockopt(sd, level, name, &value, sizeof(value));
}

// Room for the packet-information, original-destination, TOS and TTL
// messages of one datagram, with slack for anything else the kernel adds.
constexpr std::size_t controlBytes = 512;

}  // namespace

Kiv::TraceHandle& MrtNotifySocketPam::trace() {
  static Kiv::TraceHandle th("Mroute::MrtNotifySocket");
  return th;
}

Kiv::Ptr<MrtNotifySocketPam> mrtNotifySocketPamFactory(Kiv::Name name) {
  return new MrtNotifySocketPam(std::move(name));
}

MrtNotifySocketPam::MrtNotifySocketPam(Kiv::Name name) : Wirly::Pam(std::move(name)) {}

MrtNotifySocketPam::~MrtNotifySocketPam() { handleCleanup(); }

std::string MrtNotifySocketPam::nsText() const { return " NS:" + netNs_.str(); }

void MrtNotifySocketPam::netNsIs(Wirly::NamespaceName const& ns) {
  if (ns == netNs_) return;
  netNs_ = ns;
  handleNetNs();
  notifyAs(&NotifieeConst::onNetNs);
}

void MrtNotifySocketPam::handleNetNs() {
  KIV_TRACE(trace(), 8, "void " << className << "::handleNetNs()" << nsText());
  if (enabled_) {
    // Virtual, so a netlink socket re-opens its own kind of socket.
    enabledIs(false);
    enabledIs(true);
  }
  doNetNsReopen();
}

void MrtNotifySocketPam::handleCleanup() {
  KIV_TRACE(trace(), 8, "void " << className << "::handleCleanup()" << nsText());
  if (!enabled_) return;
  KIV_ASSERT(fileDesc());
  fdSm_ = nullptr;
  // The IPv6 routing socket belongs to the agent that handed it over.
  if (ownsSd_) Wirly::Sys::sys().close(fileDesc_->fd());
}

Kiv::Ptr<Wirly::FileDescriptor> MrtNotifySocketPam::fileDescNew(int fd) {
  if (fileDesc_) throw Kiv::NameInUseException("fileDesc");
  fileDesc_ = Wirly::FileDescriptor::fileDescriptorIs(name().str() + ".fileDesc", fd);
  notifyAs(&NotifieeConst::onFileDesc);
  return fileDesc_;
}

void MrtNotifySocketPam::fileDescDel() {
  if (!fileDesc_) return;
  fileDesc_ = nullptr;
  notifyAs(&NotifieeConst::onFileDesc);
}

void MrtNotifySocketPam::doRegisterSd() {
  auto fd = fileDescNew(sd_);
  try {
    fd->nonBlockingIs(true);
  } catch (Kiv::ErrnoException const& e) {
    doAbort("fcntl", e.error());
  }
  fdSm_ = new Wirly::PamFdSm(this, sd_);
}

void MrtNotifySocketPam::doUnregisterSd(bool closeSd) {
  // The reactor leaves the loop before the descriptor can be reused.
  fdSm_ = nullptr;
  if (closeSd && sd_ >= 0) {
    Wirly::Sys::sys().close(sd_);
    if (fileDesc_) fileDesc_->fdIs(-1);
  }
  fileDescDel();
  if (closeSd) sdIs(-1);
}

void MrtNotifySocketPam::doAbort(char const* call, int error) {
  doUnregisterSd(true);
  enabledFlagIs(false);
  throw Kiv::ErrnoException(call, error);
}

void MrtNotifySocketPam::enabledIs(bool e) {
  KIV_TRACE(trace(), 9,
            "virtual void " << className << "::enabledIs(bool)"
                            << "(" << e << ")" << nsText());
  if (e == enabled_) return;
  if (af_ != Wirly::ipv4 && af_ != Wirly::ipv6) KIV_ASSERT(0 && "Unsupported Address Family");
  if (e) {
    if (af_ == Wirly::ipv4) {
      doEnableIpv4();
    } else if (!doEnableIpv6()) {
      return;
    }
    doRegisterSd();
    KIV_TRACE(trace(), 9, "Mrt pam is enabled");
  } else {
    if (ownsSd_) {
      KIV_ASSERT(fileDesc());
      doUnregisterSd(true);
    } else {
      doUnregisterSd(false);
    }
    KIV_TRACE(trace(), 9, "Mrt pam is disabled");
  }
  enabledFlagIs(e);
}

void MrtNotifySocketPam::doEnableIpv4() {
  int const sd = Wirly::namespaceSocket(netNs_, AF_INET, SOCK_RAW, IPPROTO_RAW);
  if (sd < 0) {
    int const err = errno;
    KIV_TRACE(trace(), 9, "socket open error");
    throw Kiv::ErrnoException("socket", err);
  }
  sdIs(sd);
  ownsSd_ = true;
  if (setIntOption(sd, IPPROTO_IP, mrtNotifyInit, 1) < 0) doAbort("setsocketopt(MRT_NOTIFY_INIT)", errno);
  for (auto const& step : optionSteps) {
    if (!(options_ & step.bit)) continue;
    KIV_TRACE(trace(), 9, "Set socket option: " << step.traceName);
    if (setIntOption(sd, IPPROTO_IP, mrtNotifyAdd, step.kernelType) < 0) doAbort(step.enableCall, errno);
  }
}

bool MrtNotifySocketPam::doEnableIpv6() {
  if (!Wirly::Sys::sys().getenv("MCAST_NO_NETLINK")) {
    KIV_TRACE(trace(), 3,
              "virtual void " << className << "::enabledIs(bool)"
                              << " Environment supports native netlink notifications. Ignoring");
    sdIs(-1);
    return false;
  }
  {
    // -1 is as absent as 0: the agent never handed a descriptor over.
    bool const sd_ = this->sd_ > 0;
    KIV_ASSERT(sd_ &&
               "MrtNotifyPam for IPV6 currently "
               "supports setup only with file descriptors set");
  }
  ownsSd_ = false;
  return true;
}

void MrtNotifySocketPam::optionsIs(std::uint32_t options) {
  KIV_TRACE(trace(), 9,
            "virtual void " << className << "::optionsIs(U32)"
                            << "(" << options << ")" << nsText());
  if (!enabled_) {
    attrIs(options_, options, &NotifieeConst::onOptions);
    return;
  }
  std::uint32_t const changedOptions = options_ ^ options;
  KIV_TRACE(
      trace(), 9,
      std::hex << "oldOptions=0x" << options_ << " newOptions=0x" << options << " changedOptions=0x" << changedOptions);
  if (changedOptions == 0) return;
  if (af_ == Wirly::ipv4) {
    for (auto const& step : optionSteps) {
      if (!(changedOptions & step.bit)) continue;
      int const option = (options_ & step.bit) ? mrtNotifyDel : mrtNotifyAdd;
      // A refused change leaves the socket as it was, so it is raised
      // without closing anything.
      if (setIntOption(sd_, IPPROTO_IP, option, step.kernelType) < 0) throw Kiv::ErrnoException(step.changeCall, errno);
    }
  }
  attrIs(options_, options, &NotifieeConst::onOptions);
}

void MrtNotifySocketPam::doGetRxPkt() {
  if (!enabled_) return;
  KIV_TRACE(trace(), 9, "virtual void " << className << "::doGetRxPkt()" << nsText());
  Kiv::Ptr<Wirly::Pkt> pkt = Wirly::PktManager::global().newPkt(maxRxPktData_);
  if (!pkt) {
    KIV_TRACE(trace(), 2, "Failed to obtain new packet object");
    return;
  }
  std::size_t const maxSize = pkt->capacity();
  KIV_TRACE(trace(), 4, "maxSize=" << maxSize << ", maxRxPktData=" << maxRxPktData_);
  KIV_ASSERT(maxSize >= maxRxPktData());
  pkt->headDataIs(maxRxPktData_);

  sockaddr_storage from{};
  alignas(cmsghdr) unsigned char control[controlBytes];
  iovec iov{pkt->data(), pkt->len()};
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = af_ == Wirly::ipv4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof(control);
  ssize_t const n = Wirly::Sys::sys().recvmsg(sd_, &msg, int(rxFlags_));
  if (n < 0) {
    int const err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK) return;
    KIV_TRACE(trace(), 2, "recvmsg failed with " << err << " " << ::strerror(err));
    return;
  }
  KIV_TRACE(trace(), 9, "Received packet of size " << n);

  if (af_ == Wirly::ipv4 && msg.msg_namelen >= sizeof(sockaddr_in) && from.ss_family == AF_INET) {
    rxSrcIpAddrIs(Wirly::IpGenAddr(reinterpret_cast<sockaddr_in const&>(from).sin_addr));
  } else if (af_ == Wirly::ipv6 && msg.msg_namelen >= sizeof(sockaddr_in6) && from.ss_family == AF_INET6) {
    rxSrcIpAddrIs(Wirly::IpGenAddr(reinterpret_cast<sockaddr_in6 const&>(from).sin6_addr));
  }
  KIV_TRACE(trace(), 9, "Source IP address is " << rxSrcIpAddr_);
  doRxControl(msg);

  rxPktCountInc(1);
  if (n == 0) {
    KIV_TRACE(trace(), 9, "Discarding empty packet");
    return;
  }
  // With MSG_TRUNC in rxFlags, n is the datagram's real length.
  if ((msg.msg_flags & MSG_TRUNC) || std::size_t(n) > pkt->len()) {
    KIV_TRACE(trace(), 2, "Discarding truncated packet of size " << n << " (maxRxPktData " << maxRxPktData_ << ")");
    return;
  }
  if (af_ == Wirly::ipv6) {
    if (pkt->data()[0] != 0) {
      KIV_TRACE(trace(), 9, "Discarding non-mrt6msg packet");
      return;
    }
    rxMrt6msgCountInc(1);
  }
  pkt->trim(std::size_t(n));
  doRxPktEnqueue(pkt);
}

void MrtNotifySocketPam::doRxControl(msghdr const& msg) {
  bool haveIfIndex = false;
  // Copies a control message's value only when the message is long enough.
  auto value = [](cmsghdr const* c, void* out, std::size_t len) {
    if (c->cmsg_len < CMSG_LEN(len)) return false;
    std::memcpy(out, CMSG_DATA(c), len);
    return true;
  };
  // A TOS arrives as one byte, a traffic class or hop limit as an int.
  auto smallValue = [&](cmsghdr const* c, std::uint8_t& out) {
    int i = 0;
    if (value(c, &i, sizeof(i))) {
      out = std::uint8_t(i);
      return true;
    }
    return value(c, &out, 1);
  };
  for (cmsghdr const* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(const_cast<msghdr*>(&msg), const_cast<cmsghdr*>(c))) {
    if (af_ == Wirly::ipv4 && c->cmsg_level == IPPROTO_IP) {
      switch (c->cmsg_type) {
        case IP_PKTINFO: {
          in_pktinfo info;
          if (!value(c, &info, sizeof(info))) break;
          haveIfIndex = true;
          rxIfIndexIs(std::uint32_t(info.ipi_ifindex));
          rxDstIpAddrIs(Wirly::IpGenAddr(info.ipi_addr));
          KIV_TRACE(trace(), 9,
                    "Packet arrived on interface index " << rxIfIndex_ << " with destination IP of " << rxDstIpAddr_);
          break;
        }
        case IP_ORIGDSTADDR: {
          sockaddr_in orig;
          if (!value(c, &orig, sizeof(orig))) break;
          rxOrigDstIpAddrIs(Wirly::IpGenAddr(orig.sin_addr));
          KIV_TRACE(trace(), 9, "Original destination IP is " << rxOrigDstIpAddr_);
          break;
        }
        case IP_TOS: {
          std::uint8_t tos = 0;
          if (!value(c, &tos, 1)) break;
          rxTOSIs(tos);
          KIV_TRACE(trace(), 9, "TOS of received packet is 0x" << std::hex << unsigned(tos));
          break;
        }
        case IP_TTL: {
          std::uint8_t ttl = 0;
          if (!smallValue(c, ttl)) break;
          rxTTLIs(ttl);
          KIV_TRACE(trace(), 9, "TTL of received packet is 0x" << std::hex << unsigned(ttl));
          break;
        }
        default:
          break;
      }
    } else if (af_ == Wirly::ipv6 && c->cmsg_level == IPPROTO_IPV6) {
      switch (c->cmsg_type) {
        case IPV6_PKTINFO: {
          in6_pktinfo info;
          if (!value(c, &info, sizeof(info))) break;
          haveIfIndex = true;
          rxIfIndexIs(info.ipi6_ifindex);
          rxDstIpAddrIs(Wirly::IpGenAddr(info.ipi6_addr));
          KIV_TRACE(trace(), 9,
                    "Packet arrived on interface index " << rxIfIndex_ << " with destination IP of " << rxDstIpAddr_);
          break;
        }
        case IPV6_TCLASS: {
          std::uint8_t tclass = 0;
          if (!smallValue(c, tclass)) break;
          rxTOSIs(tclass);
          KIV_TRACE(trace(), 9, "TOS of received packet is 0x" << std::hex << unsigned(tclass));
          break;
        }
        case IPV6_HOPLIMIT: {
          std::uint8_t hops = 0;
          if (!smallValue(c, hops)) break;
          rxTTLIs(hops);
          KIV_TRACE(trace(), 9, "TTL of received packet is 0x" << std::hex << unsigned(hops));
          break;
        }
        default:
          break;
      }
    }
  }
  if (!haveIfIndex) KIV_TRACE(trace(), 9, "recvmsg failed to retrieve ifindex");
}

}  // namespace Routing::Multicast::Notify
