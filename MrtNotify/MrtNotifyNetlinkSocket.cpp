#include "MrtNotify/MrtNotifyNetlinkSocket.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/System.h"
#include "MrtNotify/detail/CacheReportCheck.h"
#include "Wirly/NamespaceSocket.h"
#include "Wirly/Sys.h"

namespace Routing::Multicast::Notify {

namespace {

char const* const className = "Routing::Multicast::Notify::MrtNotifyNetlinkSocketPam";

// Classic BPF opcodes of the filter.
constexpr std::uint16_t bpfLdhAbs = BPF_LD | BPF_H | BPF_ABS;  // 0x28
constexpr std::uint16_t bpfLdbAbs = BPF_LD | BPF_B | BPF_ABS;  // 0x30
// BPF_W and BPF_IMM are both 0, which the checker takes for a repeated operand.
constexpr std::uint16_t bpfLdImm = BPF_LD | BPF_W | BPF_IMM;    // 0x00 NOLINT(misc-redundant-expression)
constexpr std::uint16_t bpfLdxImm = BPF_LDX | BPF_W | BPF_IMM;  // 0x01 NOLINT(misc-redundant-expression)
constexpr std::uint16_t bpfLdAbs = BPF_LD | BPF_W | BPF_ABS;    // 0x20
constexpr std::uint16_t bpfTax = BPF_MISC | BPF_TAX;            // 0x07
constexpr std::uint16_t bpfLdbInd = BPF_LD | BPF_B | BPF_IND;   // 0x50
constexpr std::uint16_t bpfJeqK = BPF_JMP | BPF_JEQ | BPF_K;    // 0x15
constexpr std::uint16_t bpfRetK = BPF_RET | BPF_K;              // 0x06
constexpr std::uint32_t bpfAccept = 0xFFFFFFFF;
constexpr std::uint32_t bpfDrop = 0;
// The kernel loads packet half-words big-endian; nlmsg_type is host
// (little-endian) order, so 96 reads as 0x6000.
constexpr std::uint32_t nlmsgTypeAsLoaded = std::uint32_t(rtmNewCacheReport) << 8;
constexpr std::uint32_t rtgenFamilyOffset = 16;
constexpr std::uint32_t attributesOffset = 20;
constexpr std::uint32_t creportMsgType = 1;

// The cache report wire constants, shared with the shape check.
using namespace Detail;

int setIntOption(int sd, int level, int name, int value) {
  return Wirly::Sys::sys().setsockopt(sd, level, name, &value, sizeof(value));
}

// Appends one attribute at `at` and returns the offset after its padding.
std::size_t putAttr(std::uint8_t* buf, std::size_t at, std::uint16_t type, void const* value, std::size_t len) {
  std::uint16_t const rtaLen = std::uint16_t(4 + len);
  std::memcpy(buf + at, &rtaLen, 2);
  std::memcpy(buf + at + 2, &type, 2);
  if (len) std::memcpy(buf + at + 4, value, len);
  std::size_t const end = align4(at + 4 + len);
  std::memset(buf + at + 4 + len, 0, end - (at + 4 + len));
  return end;
}

}  // namespace

Kiv::Ptr<MrtNotifyNetlinkSocketPam> mrtNotifyNetlinkSocketPamFactory(Kiv::Name name,
                                                                     Wirly::NamespaceName const& netNs) {
  Kiv::Ptr<MrtNotifyNetlinkSocketPam> p = new MrtNotifyNetlinkSocketPam(std::move(name));
  p->netNsIs(netNs);
  return p;
}

MrtNotifyNetlinkSocketPam::MrtNotifyNetlinkSocketPam(Kiv::Name name) : MrtNotifySocketPam(std::move(name)) {
  trustedUid_[0] = true;
  trustedUid_[::getuid()] = true;
}

void MrtNotifyNetlinkSocketPam::trustedUidIs(std::uint32_t uid, bool trusted) {
  bool const changed = trusted ? trustedUid_.emplace(uid, true).second : trustedUid_.erase(uid) != 0;
  if (changed) notifyAs(&NotifieeConst::onTrustedUid, uid);
}

void MrtNotifyNetlinkSocketPam::trustedUidDelAll() {
  while (!trustedUid_.empty()) trustedUidDel(trustedUid_.begin()->first);
}

MrtNotifyNetlinkSocketPam::~MrtNotifyNetlinkSocketPam() {
  if (txFileDesc_) Wirly::Sys::sys().close(txFileDesc_->fd());
}

bool MrtNotifyNetlinkSocketPam::kernelPublishesIpv4Reports(Wirly::NamespaceName const& netNs) {
  int const sd = Wirly::namespaceSocket(netNs, AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
  if (sd < 0) throw Kiv::ErrnoException("socket", errno);
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  int err = 0;
  if (Wirly::Sys::sys().bind(sd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) {
    err = errno;
  } else if (setIntOption(sd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, rtnlGroupIpv4MrouteR) < 0) {
    err = errno;
  }
  Wirly::Sys::sys().close(sd);
  // A kernel refuses to join a group number beyond its own groups.
  if (err == EINVAL) return false;
  if (err) throw Kiv::ErrnoException("setsocketopt(NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV4_MROUTE_R)", err);
  return true;
}

void MrtNotifyNetlinkSocketPam::doNetNsReopen() {
  if (!enableTx_) return;
  enableTxIs(false);
  enableTxIs(true);
}

bool MrtNotifyNetlinkSocketPam::native() const {
  if (af() == Wirly::ipv4) return ipv4NativeReports_;
  return af() == Wirly::ipv6 && !Wirly::Sys::sys().getenv("MCAST_NO_NETLINK");
}

int MrtNotifyNetlinkSocketPam::group() const {
  if (af() == Wirly::ipv4) return rtnlGroupIpv4MrouteR;
  if (af() == Wirly::ipv6) return rtnlGroupIpv6MrouteR;
  KIV_ASSERT(0 && "Address family unknown");
}

void MrtNotifyNetlinkSocketPam::ipv4NativeReportsIs(bool v) {
  if (!Kiv::changed(ipv4NativeReports_, v)) return;
  if (enabled() && af() == Wirly::ipv4) {
    enabledIs(false);
    enabledIs(true);
  }
  notifyAs(&NotifieeConst::onIpv4NativeReports);
}

void MrtNotifyNetlinkSocketPam::doSockInit() {
  KIV_TRACE(trace(), 9, "void " << className << "::doSockInit()" << nsText());
  int const grp = group();
  int sd;
  if (!native()) {
    KIV_TRACE(trace(), 5, "This Kernel does not support Netlink sockets for multicast events");
    isRtnlIpv6MrouteRSupportedIs(false);
    rxFromKernel_ = false;
    sd = Wirly::namespaceSocket(netNs(), AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);
  } else {
    KIV_TRACE(trace(), 5, "Running on Kernel supporting Netlink sockets for multicast events");
    isRtnlIpv6MrouteRSupportedIs(true);
    rxFromKernel_ = true;
    sd = Wirly::namespaceSocket(netNs(), AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
  }
  if (sd == -1) {
    int const err = errno;
    KIV_TRACE(trace(), 2, "socket open error");
    throw Kiv::ErrnoException("socket", err);
  }
  sdIs(sd);
  ownsSd_ = true;
  doGenerateAndApplyFilter();

  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  if (Wirly::Sys::sys().bind(sd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0)
    doAbort("MrtNotifyNetlinkSocketPam::doSockInit: bind", errno);
  // Before joining: no relayed datagram may arrive without its sender.
  if (!rxFromKernel_ && setIntOption(sd, SOL_SOCKET, SO_PASSCRED, 1) < 0) doAbort("setsockopt(SO_PASSCRED)", errno);
  // Deliberately small: a burst overflows it and the next read says so
  // (ENOBUFS) instead of the agent falling ever further behind.
  if (setIntOption(sd, SOL_SOCKET, SO_RCVBUFFORCE, int(maxRxPktData())) < 0)
    doAbort("setsocketopt(SO_RCVBUFFORCE)", errno);
  // Joining must follow bind: a bind after joining resets the groups.
  if (setIntOption(sd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, grp) < 0)
    doAbort("setsocketopt(NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)", errno);
}

void MrtNotifyNetlinkSocketPam::enabledIs(bool e) {
  KIV_TRACE(trace(), 9,
            "virtual void " << className << "::enabledIs(bool)"
                            << "(" << e << ")" << nsText());
  if (e == enabled()) return;
  if (e) {
    if (sd() == -1) doSockInit();
    doRegisterSd();
    KIV_TRACE(trace(), 5, "Mrt pam is enabled");
  } else {
    if (setIntOption(sd(), SOL_NETLINK, NETLINK_DROP_MEMBERSHIP, group()) < 0)
      doAbort("setsocketopt(NETLINK_DROP_MEMBERSHIP, RTNLGRP_IPV6_MROUTE_R)", errno);
    KIV_ASSERT(fileDesc());
    doUnregisterSd(true);
    KIV_TRACE(trace(), 5, "Mrt pam is disabled");
  }
  enabledFlagIs(e);
}

void MrtNotifyNetlinkSocketPam::optionsIs(std::uint32_t options) {
  KIV_TRACE(trace(), 9,
            "virtual void " << className << "::optionsIs(U32)"
                            << "(" << options << ")" << nsText());
  // The base class's optionsIs would talk to the kernel; here the options
  // only shape the filter.
  optionsStore(options);
  if (!enabled()) return;
  KIV_TRACE(trace(), 5, "Options set to 0x" << std::hex << options);
  doDetachBpfFilter();
  doGenerateAndApplyFilter();
}

Wirly::IpFilter MrtNotifyNetlinkSocketPam::rxFilter(std::uint8_t i) const {
  auto it = rxFilter_.find(i);
  return it == rxFilter_.end() ? Wirly::IpFilter() : it->second;
}

void MrtNotifyNetlinkSocketPam::rxFilterIs(std::uint8_t i, Wirly::IpFilter const& f) {
  auto [it, added] = rxFilter_.try_emplace(i, f);
  if (!added && !Kiv::changed(it->second, f)) return;
  notifyAs(&NotifieeConst::onRxFilter, i);
}

void MrtNotifyNetlinkSocketPam::rxFilterDel(std::uint8_t i) {
  if (rxFilter_.erase(i)) notifyAs(&NotifieeConst::onRxFilter, i);
}

void MrtNotifyNetlinkSocketPam::rxFilterDelAll() {
  while (!rxFilter_.empty()) rxFilterDel(rxFilter_.begin()->first);
}

void MrtNotifyNetlinkSocketPam::doAddFilterStmt(std::uint16_t code, std::uint32_t k) {
  KIV_TRACE(
      trace(), 9,
      "void " << className << "::doAddFilterStmt(U16, U32)" << std::hex << "( code=" << code << ", k=" << k << " )");
  rxFilterIs(bpfLen_, Wirly::IpFilter{code, 0, 0, k});
  bpfLenInc(1);
}

void MrtNotifyNetlinkSocketPam::doAddFilterJmp(std::uint16_t code, std::uint32_t k, std::uint8_t jt, std::uint8_t jf) {
  KIV_TRACE(trace(), 9,
            "void " << className << "::doAddFilterJmp(U16, U32, U8, U8)" << std::hex << "( code=" << code << ", jump "
                    << unsigned(jt) << " statements if true else jump " << unsigned(jf) << " statements"
                    << ", k=" << k << " )");
  rxFilterIs(bpfLen_, Wirly::IpFilter{code, jt, jf, k});
  bpfLenInc(1);
}

void MrtNotifyNetlinkSocketPam::doGenerateAndApplyFilter() {
  std::uint32_t family = 0;
  if (af() == Wirly::ipv4) {
    family = rtnlFamilyIpmr;
  } else if (af() == Wirly::ipv6) {
    family = rtnlFamilyIp6mr;
  } else {
    KIV_ASSERT(0 && "Address family unknown");
  }
  rxFilterDelAll();
  bpfLenIs(0);

  doAddFilterStmt(bpfLdhAbs, offsetof(nlmsghdr, nlmsg_type));
  doAddFilterJmp(bpfJeqK, nlmsgTypeAsLoaded, 1, 0);
  doAddFilterStmt(bpfRetK, bpfDrop);
  doAddFilterStmt(bpfLdbAbs, rtgenFamilyOffset);
  doAddFilterJmp(bpfJeqK, family, 1, 0);
  doAddFilterStmt(bpfRetK, bpfDrop);
  doAddFilterStmt(bpfLdImm, attributesOffset);
  doAddFilterStmt(bpfLdxImm, creportMsgType);
  doAddFilterStmt(bpfLdAbs, std::uint32_t(SKF_AD_OFF + SKF_AD_NLATTR));
  doAddFilterStmt(bpfTax, 0);
  doAddFilterStmt(bpfLdbInd, 4);

  struct Kind {
    std::uint32_t bit;
    std::uint32_t type;
    char const* trace;
  };
  static constexpr Kind kinds[] = {
      {nocache, 1, "Filtering No Cache"}, {wrongvif, 2, "Filtering WrongVif"}, {wholepkt, 3, "Filtering WholePkt"}};
  for (auto const& kind : kinds) {
    if (!(options() & kind.bit)) continue;
    KIV_TRACE(trace(), 5, kind.trace);
    doAddFilterJmp(bpfJeqK, kind.type, 0, 1);
    doAddFilterStmt(bpfRetK, bpfAccept);
  }
  doAddFilterStmt(bpfRetK, bpfDrop);
  doAttachBpfFilter();
}

void MrtNotifyNetlinkSocketPam::doAttachBpfFilter() {
  if (rxFilter_.empty() || bpfLen_ == 0)
    throw Kiv::RangeException("SO_ATTACH_FILTER option must be supplied with a valid filter");
  std::vector<sock_filter> program;
  program.reserve(rxFilter_.size());
  KIV_TRACE(trace(), 8, "Filter is:");
  for (auto const& [i, f] : rxFilter_) {
    KIV_TRACE(trace(), 8, "Filter[" << unsigned(i) << "] " << f);
    program.push_back(sock_filter{f.code, f.jt, f.jf, f.k});
  }
  KIV_ASSERT(program.size() == bpfLen_);
  sock_fprog fprog{std::uint16_t(program.size()), program.data()};
  if (Wirly::Sys::sys().setsockopt(sd(), SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof(fprog)) < 0)
    doAbort("setsockopt(SO_ATTACH_FILTER)", errno);
}

void MrtNotifyNetlinkSocketPam::doDetachBpfFilter() {
  int const unused = 0;
  if (Wirly::Sys::sys().setsockopt(sd(), SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof(unused)) < 0)
    doAbort("setsockopt(SO_DETACH_FILTER)", errno);
  rxFilterDelAll();
  bpfLenIs(0);
}

void MrtNotifyNetlinkSocketPam::doGetRxPkt() {
  if (!enabled()) {
    KIV_TRACE(trace(), 3, "MrtNotifyNetlinkSocketPam not enabled. Aborting action");
    return;
  }
  KIV_TRACE(trace(), 9, "virtual void " << className << "::doGetRxPkt()" << nsText());
  Kiv::Ptr<Wirly::Pkt> pkt = Wirly::PktManager::global().newPkt(maxRxPktData());
  if (!pkt) {
    KIV_TRACE(trace(), 2, "Failed to obtain new packet object");
    return;
  }
  std::size_t const maxSize = pkt->capacity();
  KIV_ASSERT(maxSize >= maxRxPktData());
  pkt->headDataIs(maxRxPktData());

  // recvmsg rather than recv: the sender's address and credentials are
  // what tell the kernel or a relay from an impostor.
  sockaddr_nl from{};
  alignas(cmsghdr) std::uint8_t control[CMSG_SPACE(sizeof(ucred))];
  iovec iov{pkt->data(), pkt->len()};
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof(from);
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof(control);
  ssize_t const n = Wirly::Sys::sys().recvmsg(sd(), &msg, int(rxFlags()));
  if (n < 0) {
    int const err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK) return;
    KIV_TRACE(trace(), 2, "recvmsg failed with " << err << " (" << ::strerror(err) << ") ");
    rxErrorsInc(1);
    return;
  }
  KIV_TRACE(trace(), 9, "Received packet of size " << n);
  rxPktCountInc(1);
  if (n == 0) {
    KIV_TRACE(trace(), 9, "Discarding empty packet");
    return;
  }
  if ((msg.msg_flags & MSG_TRUNC) || std::size_t(n) > pkt->len()) {
    KIV_TRACE(trace(), 2, "Discarding truncated packet of size " << n << " (maxRxPktData " << maxRxPktData() << ")");
    rxErrorsInc(1);
    return;
  }
  if (!doCheckSender(msg)) return;
  Detail::ReportCheck const check = Detail::checkCacheReports(pkt->data(), std::size_t(n), af(), mrtTable_);
  if (check.verdict == Detail::ReportVerdict::malformed || !check.hasReport) {
    doDrop(DropReason::malformed, check.why ? check.why : "no cache report");
    return;
  }
  if (check.verdict == Detail::ReportVerdict::otherTable) {
    KIV_TRACE(trace(), 6, "Report for table " << check.table << ", not " << mrtTable_);
    doDrop(DropReason::otherTable, "report for another table");
    return;
  }
  pkt->trim(std::size_t(n));
  doRxPktEnqueue(pkt);
}

bool MrtNotifyNetlinkSocketPam::doCheckSender(msghdr const& msg) {
  std::uint32_t port = 0;
  bool const named =
      msg.msg_namelen >= sizeof(sockaddr_nl) && static_cast<sockaddr_nl const*>(msg.msg_name)->nl_family == AF_NETLINK;
  if (named) port = static_cast<sockaddr_nl const*>(msg.msg_name)->nl_pid;
  std::uint32_t uid = noUid;
  if (!(msg.msg_flags & MSG_CTRUNC)) {
    for (cmsghdr const* c = CMSG_FIRSTHDR(&msg); c;
         c = CMSG_NXTHDR(const_cast<msghdr*>(&msg), const_cast<cmsghdr*>(c))) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_CREDENTIALS || c->cmsg_len < CMSG_LEN(sizeof(ucred)))
        continue;
      ucred cred;
      std::memcpy(&cred, CMSG_DATA(c), sizeof(cred));
      uid = cred.uid;
    }
  }
  if (Kiv::changed(rxSenderPortId_, port)) notifyAs(&NotifieeConst::onRxSenderPortId);
  if (Kiv::changed(rxSenderUid_, uid)) notifyAs(&NotifieeConst::onRxSenderUid);
  if (!named) {
    doDrop(DropReason::untrusted, "no sender address");
    return false;
  }
  if (rxFromKernel_) {
    if (port == 0) return true;
    KIV_TRACE(trace(), 6, "Report from port id " << port << " on the kernel's group");
    doDrop(DropReason::untrusted, "not from the kernel");
    return false;
  }
  if (uid == noUid) {
    doDrop(DropReason::untrusted, "no credentials");
    return false;
  }
  if (!trustedUid(uid)) {
    KIV_TRACE(trace(), 6, "Report from uid " << uid << " port id " << port);
    doDrop(DropReason::untrusted, "uid not trusted");
    return false;
  }
  if (!acceptedSenders_.empty() && !acceptedSenders_.count(port)) {
    KIV_TRACE(trace(), 6, "Report from port id " << port << ", not an accepted sender");
    doDrop(DropReason::untrusted, "port id not accepted");
    return false;
  }
  return true;
}

void MrtNotifyNetlinkSocketPam::doDrop(DropReason reason, char const* detail) {
  static char const* const names[] = {"untrusted sender", "malformed", "other table"};
  switch (reason) {
    case DropReason::untrusted:
      rxUntrustedDropsInc(1);
      break;
    case DropReason::malformed:
      rxMalformedDropsInc(1);
      break;
    case DropReason::otherTable:
      rxOtherTableDropsInc(1);
      break;
  }
  auto const i = std::size_t(reason);
  KIV_TRACE(trace(), 6, "Dropping datagram (" << names[i] << "): " << detail);
  DropSummary& s = dropSummary_[i];
  ++s.since;
  double const now = Kiv::System::currentTime();
  if (now - s.lastAt < 1.0) return;
  KIV_TRACE(trace(), 2,
            "Dropped " << s.since << " datagram(s) (" << names[i] << ") since the last such line; last: " << detail
                       << nsText());
  s.lastAt = now;
  s.since = 0;
}

void MrtNotifyNetlinkSocketPam::enableTxIs(bool e) {
  KIV_TRACE(trace(), 9,
            "void " << className << "::enableTxIs(bool)"
                    << "(" << e << ")" << nsText());
  if (af() == Wirly::ipv6 && !Wirly::Sys::sys().getenv("MCAST_NO_NETLINK")) {
    KIV_TRACE(trace(), 3,
              "void " << className << "::enableTxIs(bool)"
                      << " Environment supports native netlink notifications. Ignoring");
    return;
  }
  if (!ipv4NativeReports_) isRtnlIpv6MrouteRSupportedIs(false);
  if (e == enableTx_) return;
  if (e) {
    int const sd = Wirly::namespaceSocket(netNs(), AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);
    if (sd < 0) {
      int const err = errno;
      KIV_TRACE(trace(), 2, "socket open error");
      throw Kiv::ErrnoException("socket", err);
    }
    // An explicit bind gives the socket its port id now, so receivers can
    // be told which sender to accept before the first report goes out.
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    if (Wirly::Sys::sys().bind(sd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) {
      int const err = errno;
      Wirly::Sys::sys().close(sd);
      throw Kiv::ErrnoException("MrtNotifyNetlinkSocketPam::enableTxIs: bind", err);
    }
    sockaddr_nl bound{};
    socklen_t len = sizeof(bound);
    if (::getsockname(sd, reinterpret_cast<sockaddr*>(&bound), &len) == 0 && bound.nl_family == AF_NETLINK)
      txPortId_ = bound.nl_pid;
    txFileDesc_ = Wirly::FileDescriptor::fileDescriptorIs(name().str() + ".txFileDesc", sd);
    KIV_TRACE(trace(), 5, "Mrt netlink Tx pam is enabled");
  } else {
    doCloseTx();
    KIV_TRACE(trace(), 5, "Mrt netlink Tx pam is disabled");
  }
  enableTx_ = e;
  notifyAs(&NotifieeConst::onEnableTx);
}

void MrtNotifyNetlinkSocketPam::doCloseTx() {
  auto fileDesc = [this] { return txFileDesc_; };
  KIV_ASSERT(fileDesc());
  Wirly::Sys::sys().close(txFileDesc_->fd());
  txFileDesc_->fdIs(-1);
  txFileDesc_ = nullptr;
  txPortId_ = 0;
}

void MrtNotifyNetlinkSocketPam::txMrtNotification(Kiv::Ptr<Wirly::MrtMessage> const& mrtMsg, std::uint16_t mifId) {
  KIV_TRACE(trace(), 8, "void " << className << "::txMrtNotification(MrtMessage, U16)(" << mifId << ")");
  doTxMrtNotification(mrtMsg, attrVifId, mifId);
}

void MrtNotifyNetlinkSocketPam::txMrtNotificationWithIntfId(Kiv::Ptr<Wirly::MrtMessage> const& mrtMsg,
                                                            std::uint64_t const& intfId) {
  KIV_TRACE(trace(), 8,
            "void " << className << "::txMrtNotificationWithIntfId(MrtMessage, U64)(" << Wirly::IntfId(intfId) << ")");
  doTxMrtNotification(mrtMsg, attrIntfIdOrTable, intfId);
}

void MrtNotifyNetlinkSocketPam::doTxMrtNotification(Kiv::Ptr<Wirly::MrtMessage> const& mrtMsg, std::uint16_t idType,
                                                    std::uint64_t id) {
  KIV_ASSERT(mrtMsg);
  std::uint8_t family = 0;
  std::size_t addrLen = 0;
  if (af() == Wirly::ipv4) {
    family = rtnlFamilyIpmr;
    addrLen = 4;
  } else if (af() == Wirly::ipv6) {
    family = rtnlFamilyIp6mr;
    addrLen = 16;
  } else {
    KIV_ASSERT(0 && "Address family unknown");
  }
  Kiv::Ptr<Wirly::Pkt> data = mrtMsg->msgType() == Wirly::MrtMessageType::igmpWholePkt ? mrtMsg->rcvdPkt() : nullptr;
  std::size_t const dataLen = data ? data->len() : 0;
  std::size_t const need = NLMSG_HDRLEN + 4 + 8 + 2 * align4(4 + addrLen) + 12 + align4(4 + dataLen);
  if (4 + dataLen > 0xFFFF) {
    KIV_TRACE(trace(), 2, "Not sending a whole packet of " << dataLen << " bytes: too long for one attribute");
    txErrorsInc(1);
    return;
  }
  Kiv::Ptr<Wirly::Pkt> pkt =
      Wirly::PktManager::global().newPkt(need > maxRxPktData() ? need : std::size_t(maxRxPktData()));
  if (!pkt) {
    KIV_TRACE(trace(), 2, "Failed to obtain new packet object");
    txErrorsInc(1);
    return;
  }
  pkt->headDataIs(pkt->capacity());
  std::uint8_t* buf = pkt->data();
  std::memset(buf, 0, NLMSG_HDRLEN + 4);
  buf[NLMSG_HDRLEN] = family;
  std::size_t at = NLMSG_HDRLEN + 4;

  // An address of the other family, or none, goes out as zeros.
  auto addr = [&](Wirly::IpGenAddr const& a) {
    static std::uint8_t const zeros[16] = {};
    return a.af() == af() ? a.bytes() : zeros;
  };
  std::uint8_t const type = std::uint8_t(mrtMsg->msgType());
  at = putAttr(buf, at, attrMsgType, &type, 1);
  at = putAttr(buf, at, attrSrcAddr, addr(mrtMsg->source()), addrLen);
  at = putAttr(buf, at, attrDstAddr, addr(mrtMsg->group()), addrLen);
  if (idType == attrVifId) {
    std::uint32_t const vif = std::uint32_t(id);
    at = putAttr(buf, at, attrVifId, &vif, sizeof(vif));
  } else {
    at = putAttr(buf, at, attrIntfIdOrTable, &id, sizeof(id));
  }
  if (data) at = putAttr(buf, at, attrPkt, data->data(), dataLen);

  nlmsghdr hdr{};
  hdr.nlmsg_len = std::uint32_t(at);
  hdr.nlmsg_type = rtmNewCacheReport;
  std::memcpy(buf, &hdr, sizeof(hdr));
  pkt->trim(at);
  txPktIs(pkt);
}

void MrtNotifyNetlinkSocketPam::txPktIs(Kiv::Ptr<Wirly::Pkt> const& pkt) {
  KIV_TRACE(trace(), 8, "void " << className << "::txPktIs(Pkt)" << nsText());
  if (!pkt) return;
  if (!txFileDesc_) {
    KIV_TRACE(trace(), 2, "sendmsg failed: the send side is not enabled");
    txErrorsInc(1);
    return;
  }
  sockaddr_nl to{};
  to.nl_family = AF_NETLINK;
  to.nl_pid = 0;
  to.nl_groups = 1u << (group() - 1);
  iovec iov{pkt->data(), pkt->len()};
  msghdr msg{};
  msg.msg_name = &to;
  msg.msg_namelen = sizeof(to);
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  if (Wirly::Sys::sys().sendmsg(txFileDesc_->fd(), &msg, 0) < 0) {
    int const err = errno;
    // Addressed to the kernel's port as well as the group, a send always
    // reports that the kernel does not listen; the group members got it.
    if (err == ECONNREFUSED) return;
    KIV_TRACE(trace(), 2, "sendmsg failed: " << ::strerror(err));
    txErrorsInc(1);
  }
}

}  // namespace Routing::Multicast::Notify
