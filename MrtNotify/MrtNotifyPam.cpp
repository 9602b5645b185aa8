#include "MrtNotify/MrtNotifyPam.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cstring>
#include <iomanip>

#include "Brisklog/Brisklog.h"
#include "Kiv/Assert.h"
#include "MrtNotify/detail/CacheReportCheck.h"
#include "Wirly/BrisklogArg.h"

namespace Routing::Multicast::Notify {

namespace {

char const* const className = "Routing::Multicast::Notify::MrtNotifyPamManager";

// The routing socket's igmpmsg, laid over the IPv4 header.
constexpr std::size_t igmpmsgBytes = 20;
constexpr std::size_t imMsgtype = 8;
constexpr std::size_t imMbz = 9;
constexpr std::size_t imVif = 10;
constexpr std::size_t imSrc = 12;
constexpr std::size_t imDst = 16;
constexpr std::size_t ipv4HeaderMin = 20;
constexpr std::size_t ipv6HeaderBytes = 40;

// Cache report attributes.
constexpr std::uint16_t attrUnspec = 0;
// The cache report wire constants, shared with the shape check.
using namespace Detail;
constexpr std::size_t attributesOffset = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtgenmsg));

Wirly::IpGenAddr addrAt(std::uint8_t const* p, std::size_t len) {
  if (len == 4) {
    in_addr a;
    std::memcpy(&a, p, 4);
    return Wirly::IpGenAddr(a);
  }
  in6_addr a;
  std::memcpy(&a, p, 16);
  return Wirly::IpGenAddr(a);
}

Wirly::IntfId vifIntf(MrtNotifyPamManager::VifStatus const& vifStatus, std::uint16_t vif) {
  return vifStatus ? vifStatus->vifIntf(vif) : Wirly::IntfId();
}

void traceInvalid() { KIV_TRACE(MrtNotifyPamManager::trace(), 1, "MrtNotify Rcv: Invalid MRT Alert"); }

// The walk shared by both families once the family byte has been checked.
// Every read below lies within nlmsg_len, which the caller checked against
// the datagram.
Wirly::MrtMessage::Ptr readCacheReport(Wirly::AddressFamily af, nlmsghdr* nlh,
                                       Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                       Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                       Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                       MrtNotifyPamManager::VifStatus const& vifStatus) {
  auto& th = MrtNotifyPamManager::trace();
  std::size_t const addrLen = af == Wirly::ipv4 ? 4 : 16;
  char const* const idName = af == Wirly::ipv4 ? "VIF_ID: " : "MIF_ID: ";
  auto* const base = reinterpret_cast<std::uint8_t*>(nlh);
  std::size_t const msgLen = nlh->nlmsg_len;

  Wirly::MrtMessage::Ptr mrtMsg;
  Wirly::IpGenAddr src, grp;
  Wirly::IntfId attrIntf;
  std::int64_t vif = -1;
  std::uint8_t const* pktData = nullptr;
  std::size_t pktLen = 0;

  std::size_t at = attributesOffset;
  std::size_t remaining = msgLen > at ? msgLen - at : 0;
  while (remaining >= sizeof(rtattr)) {
    rtattr hdr;
    std::memcpy(&hdr, base + at, sizeof(hdr));
    if (hdr.rta_len < sizeof(rtattr) || hdr.rta_len > remaining) break;
    std::uint8_t const* const value = base + at + sizeof(rtattr);
    std::size_t const valueLen = hdr.rta_len - sizeof(rtattr);
    switch (hdr.rta_type) {
      case attrUnspec:
        break;
      case attrMsgType:
        if (valueLen >= 1) {
          MrtNotifyPamManager::readCreportMsgType(reinterpret_cast<rtattr*>(base + at), &mrtMsg, wrongVifMessage,
                                                  noCacheMessage, wholePktMessage);
        } else {
          KIV_TRACE(th, 3, "Empty MSGTYPE attribute skipped");
        }
        break;
      case attrVifId:
        if (valueLen >= 4) {
          std::uint32_t v;
          std::memcpy(&v, value, 4);
          vif = v;
          KIV_TRACE(th, 8, idName << v);
        } else {
          KIV_TRACE(th, 3, "Short " << idName << "attribute of " << valueLen << " bytes skipped");
        }
        break;
      case attrSrcAddr:
      case attrDstAddr:
        if (valueLen == addrLen) {
          (hdr.rta_type == attrSrcAddr ? src : grp) = addrAt(value, addrLen);
          if (hdr.rta_type == attrSrcAddr && af == Wirly::ipv4) KIV_TRACE(th, 8, "SRC_ADDR: " << src);
        } else {
          KIV_TRACE(th, 3, "Address attribute " << hdr.rta_type << " of " << valueLen << " bytes skipped");
        }
        break;
      case attrPkt:
        pktData = value;
        pktLen = valueLen;
        KIV_TRACE(th, 8, "RcvdPkt len: " << pktLen);
        break;
      case attrIntfIdOrTable:
        // The kernel sends its routing table id (4 bytes) under this
        // number; only our own relay's 8-byte interface id is one.
        if (valueLen == sizeof(std::uint64_t)) {
          std::uint64_t id;
          std::memcpy(&id, value, sizeof(id));
          attrIntf = Wirly::IntfId(id);
          KIV_TRACE(th, 8, "IntfId: " << attrIntf);
        } else {
          KIV_TRACE(th, 8, "Attribute 6 of " << valueLen << " bytes is not an interface id; skipped");
        }
        break;
      default:
        KIV_TRACE(th, 3, "Unexpected Netlink attribute type: " << hdr.rta_type);
        break;
    }
    std::size_t const step = align4(hdr.rta_len);
    if (step >= remaining) break;
    remaining -= step;
    at += step;
  }

  KIV_ASSERT(mrtMsg && "No msgtype found");
  Wirly::IntfId const intf = attrIntf   ? attrIntf
                             : vif >= 0 ? vifIntf(vifStatus, std::uint16_t(vif & 0xFFFF))
                                        : Wirly::IntfId();
  mrtMsg->intfIdIs(intf);
  if (mrtMsg->msgType() == Wirly::MrtMessageType::igmpWholePkt && pktData != nullptr) {
    auto* const whole = static_cast<WholePktMessage*>(mrtMsg.ptr());
    Kiv::Ptr<Wirly::Pkt> copy = Wirly::PktManager::global().newPkt(pktLen);
    if (copy) copy->headDataIs(pktData, pktLen);
    whole->rcvdPktIs(copy);
    // The data packet's own header names the flow; the attributes may not.
    std::size_t const need = af == Wirly::ipv4 ? ipv4HeaderMin : ipv6HeaderBytes;
    if (copy && pktLen >= need) {
      std::size_t const srcAt = af == Wirly::ipv4 ? 12 : 8;
      src = addrAt(copy->data() + srcAt, addrLen);
      grp = addrAt(copy->data() + srcAt + addrLen, addrLen);
    } else {
      KIV_TRACE(th, 2, "Whole packet of " << pktLen << " bytes has no complete IP header; flow from attributes");
    }
  } else {
    if (mrtMsg->msgType() == Wirly::MrtMessageType::igmpWholePkt) {
      static_cast<WholePktMessage*>(mrtMsg.ptr())->rcvdPktIs(nullptr);
    }
    KIV_ASSERT(mrtMsg->intfId());
  }
  mrtMsg->sourceIs(src);
  mrtMsg->groupIs(grp);
  return mrtMsg;
}

}  // namespace

void WholePktMessage::rcvdPktIs(Kiv::Ptr<Wirly::Pkt> const& p) {
  if (p == nullptr && rcvdPkt_ == nullptr) return;
  rcvdPkt_ = p;
  notify(&NotifieeConst::onRcvdPkt);
}

Kiv::Ptr<NoCacheMessage> noCacheMessageFactory(Kiv::Name name) { return new NoCacheMessage(std::move(name)); }
Kiv::Ptr<WrongVifMessage> wrongVifMessageFactory(Kiv::Name name) { return new WrongVifMessage(std::move(name)); }
Kiv::Ptr<WholePktMessage> wholePktMessageFactory(Kiv::Name name) { return new WholePktMessage(std::move(name)); }

Kiv::Ptr<MrtNotifyPamManager> mrtNotifyPamManagerFactory(Wirly::AddressFamily af, Wirly::NamespaceName const& netNs) {
  return new MrtNotifyPamManager(af, netNs);
}

Kiv::TraceHandle& MrtNotifyPamManager::trace() {
  static Kiv::TraceHandle th("Mroute::MrtNotifyPam");
  return th;
}

MrtNotifyPamManager::MrtNotifyPamManager(Wirly::AddressFamily af, Wirly::NamespaceName const& netNs)
    : Kiv::Entity("MrtNotifyPamManager"), af_(af), netNs_(netNs) {
  trustedUid_[0] = true;
  trustedUid_[::getuid()] = true;
  handlePamInit();
}

MrtNotifyPamManager::~MrtNotifyPamManager() = default;

void MrtNotifyPamManager::useNetlinkIs(bool v) {
  if (v == useNetlink_) return;
  useNetlink_ = v;
  handlePamInit();
  notify(&NotifieeConst::onUseNetlink);
}

void MrtNotifyPamManager::optionsIs(std::uint32_t options) {
  options_ = options;
  if (pam_) pam_->optionsIs(options);
}

void MrtNotifyPamManager::ipv4NativeReportsIs(bool v) { ipv4NativeReports_ = v; }

void MrtNotifyPamManager::trustedUidIs(std::uint32_t uid, bool trusted) {
  if (trusted)
    trustedUid_[uid] = true;
  else
    trustedUid_.erase(uid);
  if (auto nl = Kiv::ptrCast<MrtNotifyNetlinkSocketPam>(pam_)) nl->trustedUidIs(uid, trusted);
}

void MrtNotifyPamManager::trustedUidDelAll() {
  while (!trustedUid_.empty()) trustedUidDel(trustedUid_.begin()->first);
}

void MrtNotifyPamManager::mrtTableIs(std::uint32_t t) {
  mrtTable_ = t;
  if (auto nl = Kiv::ptrCast<MrtNotifyNetlinkSocketPam>(pam_)) nl->mrtTableIs(t);
}

void MrtNotifyPamManager::handlePamInit() {
  KIV_TRACE(trace(), 9, "void " << className << "::handlePamInit()");
  if (!pam_) {
    if (!wrongVifMessage_) wrongVifMessageIs(wrongVifMessageFactory("wrongVifMessage"));
    if (!noCacheMessage_) noCacheMessageIs(noCacheMessageFactory("noCacheMessage"));
    if (!wholePktMessage_) wholePktMessageIs(wholePktMessageFactory("wholePktMessage"));
  }
  Kiv::Ptr<MrtNotifySocketPam> next;
  if (af_ == Wirly::ipv4) {
    if (pam_ && pam_->enabled()) {
      KIV_TRACE(trace(), 8, "Uninitializing MRT notify Pam for IPv4");
      pam_->enabledIs(false);
      pamIs(nullptr);
    }
    if (useNetlink_) {
      KIV_TRACE(trace(), 8, "Initializing MRT Notify Netlink Pam for IPv4");
      auto nl = mrtNotifyNetlinkSocketPamFactory("MrtNotify", netNs_);
      nl->ipv4NativeReportsIs(ipv4NativeReports_);
      next = nl;
    } else {
      KIV_TRACE(trace(), 8, "Initializing MRT Notify Pam for IPv4");
      next = mrtNotifySocketPamFactory("MrtNotify");
      next->netNsIs(netNs_);
    }
  } else if (af_ == Wirly::ipv6) {
    KIV_TRACE(trace(), 8, "Initializing Pam for IPv6( Netlink )");
    if (pam_ && pam_->enabled()) pam_->enabledIs(false);
    next = mrtNotifyNetlinkSocketPamFactory("MrtNotify", netNs_);
    next->afIs(Wirly::ipv6);
  } else {
    KIV_ASSERT(0 && "Unsupported address family.");
  }
  next->optionsIs(options_);
  if (auto nl = Kiv::ptrCast<MrtNotifyNetlinkSocketPam>(next)) {
    nl->trustedUidDelAll();
    for (auto const& [uid, trusted] : trustedUid_) nl->trustedUidIs(uid, trusted);
    nl->mrtTableIs(mrtTable_);
  }
  pamIs(next);
}

Wirly::MrtMessageType MrtNotifyPamManager::readMrtMessage(Kiv::Ptr<Wirly::Pkt> const& pkt, VifStatus const& vifStatus) {
  KIV_TRACE(trace(), 9,
            "Wirly::MrtMessageType " << className
                                     << "::readMrtMessage(Kiv::Ptr<Wirly::Pkt>, "
                                        "Kiv::PtrConst<Routing::KernelMfib::Status>)");
  if (af_ != Wirly::ipv4 && af_ != Wirly::ipv6) KIV_ASSERT(0 && "Unknown address family not supported");
  if (!pkt) {
    traceInvalid();
    return Wirly::MrtMessageType::none;
  }
  // Mailboxes a user deleted come back: an upcall always has one to land in.
  if (!wrongVifMessage_) wrongVifMessageIs(wrongVifMessageFactory("wrongVifMessage"));
  if (!noCacheMessage_) noCacheMessageIs(noCacheMessageFactory("noCacheMessage"));
  if (!wholePktMessage_) wholePktMessageIs(wholePktMessageFactory("wholePktMessage"));
  if (af_ == Wirly::ipv4 && !useNetlink_) return doReadSocketForm(pkt, vifStatus);
  return doReadNetlinkForm(pkt, vifStatus);
}

Wirly::MrtMessageType MrtNotifyPamManager::doReadSocketForm(Kiv::Ptr<Wirly::Pkt> const& pkt,
                                                            VifStatus const& vifStatus) {
  std::uint8_t const* const b = pkt->data();
  std::size_t const n = pkt->len();
  if (n < igmpmsgBytes) {
    KIV_TRACE(trace(), 2, "Dropping upcall of " << n << " bytes: shorter than igmpmsg");
    traceInvalid();
    return Wirly::MrtMessageType::none;
  }
  std::uint8_t const type = b[imMsgtype];
  std::uint16_t const vif = std::uint16_t(b[imVif] | (b[imVif + 1] << 8));
  Wirly::IpGenAddr src = addrAt(b + imSrc, 4);
  Wirly::IpGenAddr grp = addrAt(b + imDst, 4);
  Wirly::IntfId const intf = vifIntf(vifStatus, vif);
  std::size_t const headerBytes = pkt->ipv4HeaderBytes();
  KIV_TRACE(trace(), 9, "ipproto: " << unsigned(b[imMbz]));
  KIV_TRACE(trace(), 9, "igmpmsg type: " << char(type));
  KIV_TRACE(trace(), 9, "Headerbytes: " << headerBytes);
  KIV_TRACE(trace(), 9, "sAddr: " << src << " gAddr: " << grp << " vif " << vif);

  switch (Wirly::MrtMessageType(type)) {
    case Wirly::MrtMessageType::igmpWrongVif:
      wrongVifMessage_->sourceIs(src);
      wrongVifMessage_->groupIs(grp);
      wrongVifMessage_->intfIdIs(intf);
      doPublish(*wrongVifMessage_);
      wrongVifCounterInc(1);
      return Wirly::MrtMessageType::igmpWrongVif;
    case Wirly::MrtMessageType::igmpNoCache:
      noCacheMessage_->sourceIs(src);
      noCacheMessage_->groupIs(grp);
      noCacheMessage_->intfIdIs(intf);
      doPublish(*noCacheMessage_);
      noCacheCounterInc(1);
      return Wirly::MrtMessageType::igmpNoCache;
    case Wirly::MrtMessageType::igmpWholePkt: {
      if (headerBytes < ipv4HeaderMin || n < headerBytes + ipv4HeaderMin) {
        KIV_TRACE(trace(), 2, "Dropping whole-packet upcall of " << n << " bytes: no complete inner header");
        traceInvalid();
        return Wirly::MrtMessageType::none;
      }
      src = addrAt(b + headerBytes + 12, 4);
      grp = addrAt(b + headerBytes + 16, 4);
      KIV_TRACE(trace(), 9, "src: " << src << "dst: " << grp);
      pkt->removeHead(headerBytes);
      wholePktMessage_->rcvdPktIs(pkt);
      wholePktMessage_->sourceIs(src);
      wholePktMessage_->groupIs(grp);
      wholePktMessage_->intfIdIs(intf);
      KIV_TRACE(trace(), 9, "src: " << src << "dst: " << grp << " iif: " << intf);
      doPublish(*wholePktMessage_);
      wholePktCounterInc(1);
      return Wirly::MrtMessageType::igmpWholePkt;
    }
    default:
      traceInvalid();
      return Wirly::MrtMessageType::none;
  }
}

Wirly::MrtMessageType MrtNotifyPamManager::doReadNetlinkForm(Kiv::Ptr<Wirly::Pkt> const& pkt,
                                                             VifStatus const& vifStatus) {
  std::uint8_t* const b = pkt->data();
  std::size_t remaining = pkt->len();
  // The receiving socket has checked this already; a datagram handed in
  // any other way gets the same check here.
  Detail::ReportCheck const check = Detail::checkCacheReports(b, remaining, af_, mrtTable_, false);
  if (check.verdict == Detail::ReportVerdict::malformed) {
    KIV_TRACE(trace(), 3, "Dropping malformed datagram of " << remaining << " bytes: " << check.why);
    traceInvalid();
    return Wirly::MrtMessageType::none;
  }
  Wirly::MrtMessage::Ptr taken;
  for (std::size_t at = 0; remaining >= NLMSG_HDRLEN;) {
    // The receive buffer starts 4-aligned and netlink frames keep that.
    auto* const nlh = reinterpret_cast<nlmsghdr*>(b + at);
    std::uint32_t const len = nlh->nlmsg_len;
    if (len < NLMSG_HDRLEN || len > remaining) break;
    KIV_TRACE(trace(), 9,
              "Netlink message: " << std::hex << " len: 0x" << len << " type: 0x" << nlh->nlmsg_type << " flags: 0x"
                                  << nlh->nlmsg_flags);
    switch (nlh->nlmsg_type) {
      case NLMSG_NOOP:
      case NLMSG_DONE:
        break;
      case NLMSG_ERROR:
        if (len >= NLMSG_HDRLEN + sizeof(std::int32_t)) {
          std::int32_t err;
          std::memcpy(&err, b + at + NLMSG_HDRLEN, sizeof(err));
          KIV_TRACE(trace(), 2, "NLMSG_ERROR: " << err);
        } else {
          KIV_TRACE(trace(), 2,
                    "NLMSG_ERROR: "
                        << "(no error code)");
        }
        break;
      case NLMSG_OVERRUN:
        KIV_TRACE(trace(), 2, "NLMSG_OVERRUN");
        break;
      case rtmNewCacheReport:
        if (taken) {
          KIV_TRACE(trace(), 2,
                    "WARN: More than one message in one pkt. "
                        << "Returning first one, discarding others.");
        } else if (len < attributesOffset) {
          KIV_TRACE(trace(), 2, "Dropping cache report of " << len << " bytes: no room for its family");
        } else {
          taken = readNetlinkMrtMessage(af_, nlh, wrongVifMessage_, noCacheMessage_, wholePktMessage_, vifStatus);
        }
        break;
      default:
        KIV_TRACE(trace(), 2, "Unexpected Netlink message type: " << nlh->nlmsg_type);
        break;
    }
    std::size_t const step = NLMSG_ALIGN(len);
    if (step >= remaining) break;
    remaining -= step;
    at += step;
  }
  if (!taken) {
    traceInvalid();
    return Wirly::MrtMessageType::none;
  }
  doPublish(*taken);
  switch (taken->msgType()) {
    case Wirly::MrtMessageType::igmpWrongVif:
      wrongVifCounterInc(1);
      break;
    case Wirly::MrtMessageType::igmpNoCache:
      noCacheCounterInc(1);
      break;
    case Wirly::MrtMessageType::igmpWholePkt:
      wholePktCounterInc(1);
      break;
    case Wirly::MrtMessageType::none:
      break;
  }
  return taken->msgType();
}

void MrtNotifyPamManager::doPublish(Wirly::MrtMessage const& msg) {
  char const* kind = nullptr;
  switch (msg.msgType()) {
    case Wirly::MrtMessageType::igmpWrongVif:
      kind = "WrongVifMessage";
      break;
    case Wirly::MrtMessageType::igmpNoCache:
      kind = "NoCacheMessage";
      break;
    case Wirly::MrtMessageType::igmpWholePkt:
      kind = "WholePktMessage";
      break;
    case Wirly::MrtMessageType::none:
      return;
  }
  BRISKLOG("MrtNotifyPam", "%s on intf: %s for src: %s and grp: %s", kind, msg.intfId().name(), msg.source(),
           msg.group());
  KIV_TRACE(trace(), 5,
            kind << " on intf:" << msg.intfId() << " for src: " << msg.source() << " and grp: " << msg.group());
}

Wirly::MrtMessage::Ptr MrtNotifyPamManager::readNetlinkMrtMessage(Wirly::AddressFamily af, nlmsghdr* nlh,
                                                                  Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                                  Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                                  Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                                                  VifStatus const& vifStatus) {
  if (af == Wirly::ipv4)
    return readNetlinkMrt4Message(nlh, wrongVifMessage, noCacheMessage, wholePktMessage, vifStatus);
  if (af == Wirly::ipv6)
    return readNetlinkMrt6Message(nlh, wrongVifMessage, noCacheMessage, wholePktMessage, vifStatus);
  KIV_ASSERT(0 && "Address Family unknown");
  return nullptr;
}

Wirly::MrtMessage::Ptr MrtNotifyPamManager::readNetlinkMrt4Message(nlmsghdr* nlh,
                                                                   Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                                   Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                                   Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                                                   VifStatus const& vifStatus) {
  KIV_TRACE(trace(), 9,
            "static Wirly::MrtMessage::Ptr " << className
                                             << "::readNetlinkMrt4Message(nlmsghdr*, WrongVifMessage, "
                                                "NoCacheMessage, WholePktMessage, KernelMfib::Status)");
  auto const* rtgenmsg = reinterpret_cast<struct rtgenmsg const*>(reinterpret_cast<std::uint8_t*>(nlh) + NLMSG_HDRLEN);
  KIV_ASSERT(rtgenmsg->rtgen_family == 128);
  return readCacheReport(Wirly::ipv4, nlh, wrongVifMessage, noCacheMessage, wholePktMessage, vifStatus);
}

Wirly::MrtMessage::Ptr MrtNotifyPamManager::readNetlinkMrt6Message(nlmsghdr* nlh,
                                                                   Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                                   Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                                   Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                                                   VifStatus const& vifStatus) {
  KIV_TRACE(trace(), 9,
            "static Wirly::MrtMessage::Ptr " << className
                                             << "::readNetlinkMrt6Message(nlmsghdr*, WrongVifMessage, "
                                                "NoCacheMessage, WholePktMessage, KernelMfib::Status)");
  auto const* rtgenmsg = reinterpret_cast<struct rtgenmsg const*>(reinterpret_cast<std::uint8_t*>(nlh) + NLMSG_HDRLEN);
  KIV_ASSERT(rtgenmsg->rtgen_family == 129);
  return readCacheReport(Wirly::ipv6, nlh, wrongVifMessage, noCacheMessage, wholePktMessage, vifStatus);
}

Wirly::MrtMessageType MrtNotifyPamManager::readCreportMsgType(rtattr* rta, Wirly::MrtMessage::Ptr* mrtMsg,
                                                              Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                              Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                              Kiv::Ptr<WholePktMessage> const& wholePktMessage) {
  std::uint8_t const type = *static_cast<std::uint8_t const*>(RTA_DATA(rta));
  switch (type) {
    case 2:
      *mrtMsg = wrongVifMessage;
      KIV_TRACE(trace(), 8, "WrongVifMessage");
      break;
    case 3:
      *mrtMsg = wholePktMessage;
      KIV_TRACE(trace(), 8, "WholePktMessage");
      break;
    case 1:
      *mrtMsg = noCacheMessage;
      KIV_TRACE(trace(), 8, "NoCacheMessage");
      break;
    default:
      // The raw byte, not a number: how operators have always read it.
      KIV_TRACE(trace(), 3, "Unexpected MSGTYPE attribute: " << char(type));
      break;
  }
  return Wirly::MrtMessageType(type);
}

}  // namespace Routing::Multicast::Notify
