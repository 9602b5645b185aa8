#include "MrtNotify/MrtIcmpV6RelaySm.h"

#include <netinet/in.h>

#include <cstring>

#include "Brisklog/Brisklog.h"
#include "MrtNotify/MrtNotifySm.h"
#include "Wirly/BrisklogArg.h"

namespace Routing::Multicast::Notify {

namespace {
char const* const className = "Routing::Multicast::Notify::MrtIcmpV6RelaySm";

Kiv::TraceHandle& trace() {
  static Kiv::TraceHandle th("Mroute::MrtIcmpV6Relay");
  return th;
}

constexpr std::size_t im6Msgtype = 1;
constexpr std::size_t im6Mif = 2;
constexpr std::size_t im6Src = 8;
constexpr std::size_t im6Dst = 24;

Wirly::IpGenAddr addr6At(std::uint8_t const* p) {
  in6_addr a;
  std::memcpy(&a, p, sizeof(a));
  return Wirly::IpGenAddr(a);
}
}  // namespace

Kiv::Ptr<MrtIcmpV6RelaySm> mrtIcmpV6RelaySmFactory(std::string const& name, Wirly::NamespaceName const& netNs,
                                                   Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus) {
  return new MrtIcmpV6RelaySm(name, netNs, vifStatus);
}

MrtIcmpV6RelaySm::MrtIcmpV6RelaySm(std::string const& name, Wirly::NamespaceName const& netNs,
                                   Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus)
    : Kiv::Entity(name), netNs_(netNs), vifStatus_(vifStatus), kivIcmpV6Pam_(this) {}

MrtIcmpV6RelaySm::~MrtIcmpV6RelaySm() {
  kivIcmpV6Pam_.notifierIs(nullptr);
  if (icmpV6Pam_) icmpV6Pam_->enabledIs(false);
}

void MrtIcmpV6RelaySm::mrtSkSdIs(std::int32_t sd) {
  mrtSkSd_ = sd;
  handleMrtSocket();
}

void MrtIcmpV6RelaySm::handleMrtSocket() {
  KIV_TRACE(trace(), 9, "void " << className << "::handleMrtSocket()");
  if (icmpV6Pam_) {
    KIV_TRACE(trace(), 9, "disabling IcmpV6Pam");
    kivIcmpV6Pam_.notifierIs(nullptr);
    // Disabling leaves the agent's descriptor open.
    icmpV6Pam_->enabledIs(false);
    icmpV6Pam_ = nullptr;
    if (netlinkPam_) netlinkPam_->enableTxIs(false);
  }
  if (mrtSkSd_ <= 0) return;
  KIV_TRACE(trace(), 9, "enabling IcmpV6Pam");
  if (!wrongIfMessage_) wrongIfMessage_ = wrongVifMessageFactory("wrongIfMessage");
  if (!noCacheMessage_) noCacheMessage_ = noCacheMessageFactory("noCacheMessage");
  if (!wholePktMessage_) wholePktMessage_ = wholePktMessageFactory("wholePktMessage");
  icmpV6Pam_ = mrtNotifySocketPamFactory("MrtIcmpV6");
  icmpV6Pam_->afIs(Wirly::ipv6);
  icmpV6Pam_->netNsIs(netNs_);
  icmpV6Pam_->sdIs(mrtSkSd_);
  icmpV6Pam_->enabledIs(true);
  kivIcmpV6Pam_.notifierIs(icmpV6Pam_);
  if (!netlinkPam_) {
    netlinkPam_ = mrtNotifyNetlinkSocketPamFactory("MrtIcmpV6Relay", netNs_);
    netlinkPam_->afIs(Wirly::ipv6);
  }
  netlinkPam_->enableTxIs(true);
}

std::uint32_t MrtIcmpV6RelaySm::rxPkt() {
  KIV_TRACE(trace(), 9, "std::uint32_t " << className << "::rxPkt()");
  Kiv::Ptr<MrtNotifySocketPam> const pam = icmpV6Pam_;
  if (!pam) return 0;
  return boundedReview(*pam, loopQuantum_, trace(), [this](Kiv::Ptr<Wirly::Pkt> const& pkt) { readMrtMessage(pkt); });
}

Wirly::MrtMessageType MrtIcmpV6RelaySm::readMrtMessage(Kiv::Ptr<Wirly::Pkt> const& pkt) {
  KIV_TRACE(trace(), 9, "Wirly::MrtMessageType " << className << "::readMrtMessage(Kiv::Ptr<Wirly::Pkt>)");
  if (!pkt || pkt->len() < mrt6msgBytes) {
    KIV_TRACE(trace(), 2, "Dropping upcall of " << (pkt ? pkt->len() : 0) << " bytes: shorter than mrt6msg");
    return Wirly::MrtMessageType::none;
  }
  std::uint8_t const* const b = pkt->data();
  std::uint8_t const type = b[im6Msgtype];
  std::uint16_t mif;
  std::memcpy(&mif, b + im6Mif, sizeof(mif));
  Wirly::IntfId const intf = vifStatus_ ? vifStatus_->vifIntf(mif) : Wirly::IntfId();
  Wirly::IpGenAddr const src = addr6At(b + im6Src);
  Wirly::IpGenAddr const grp = addr6At(b + im6Dst);
  KIV_TRACE(trace(), 9, "msg type: " << char(type));
  KIV_TRACE(trace(), 9, "sAddr: " << src << " gAddr: " << grp << " mif " << mif);

  Kiv::Ptr<Wirly::MrtMessage> msg;
  switch (Wirly::MrtMessageType(type)) {
    case Wirly::MrtMessageType::igmpWrongVif:
      msg = wrongIfMessage_;
      KIV_TRACE(trace(), 9, "WrongVifMessage");
      BRISKLOG("MrtIcmpV6Relay", "WrongVifMessage on intf: %s for src: %s and grp: %s", intf.name(), src, grp);
      KIV_TRACE(trace(), 5, "WrongVifMessage on intf:" << intf << " for src: " << src << " and grp: " << grp);
      break;
    case Wirly::MrtMessageType::igmpNoCache:
      msg = noCacheMessage_;
      KIV_TRACE(trace(), 9, "NoCacheMessage");
      BRISKLOG("MrtIcmpV6Relay", "NoCacheMessage on intf: %s for src: %s and grp: %s", intf.name(), src, grp);
      KIV_TRACE(trace(), 5, "NoCacheMessage on intf:" << intf << " for src: " << src << " and grp: " << grp);
      break;
    case Wirly::MrtMessageType::igmpWholePkt:
      msg = wholePktMessage_;
      pkt->removeHead(mrt6msgBytes);
      wholePktMessage_->rcvdPktIs(pkt);
      KIV_TRACE(trace(), 9, "WholePktMessage");
      BRISKLOG("MrtIcmpV6Relay", "WholePktMessage on intf: %s for src: %s and grp: %s", intf.name(), src, grp);
      KIV_TRACE(trace(), 5, "WholePktMessage on intf:" << intf << " for src: " << src << " and grp: " << grp);
      break;
    default:
      KIV_TRACE(trace(), 1, "MrtNotify Rcv: Invalid MRT Alert");
      return Wirly::MrtMessageType::none;
  }
  msg->sourceIs(src);
  msg->groupIs(grp);
  msg->intfIdIs(intf);
  std::uint16_t const relayMif = vifStatus_ && intf ? vifStatus_->intfVif(intf) : 0;
  if (netlinkPam_) netlinkPam_->txMrtNotification(msg, relayMif);
  return msg->msgType();
}

}  // namespace Routing::Multicast::Notify
