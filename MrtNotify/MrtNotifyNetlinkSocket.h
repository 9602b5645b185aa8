// Routing::Multicast::Notify::MrtNotifyNetlinkSocketPam: receives multicast
// routing upcalls as netlink cache reports (RTM_NEWCACHEREPORT), filtered in
// the kernel by a classic BPF program so that only the kinds in options()
// wake the agent; and sends upcalls in the same form for other agents.
//
//   auto pam = mrtNotifyNetlinkSocketPamFactory("MrtNotify", Wirly::NamespaceName("blue"));
//   pam->afIs(Wirly::ipv6);
//   pam->optionsIs(nocache | wrongvif);
//   pam->enabledIs(true);          // Kiv::ErrnoException on a failed set-up
//   while (auto pkt = pam->rxPkt()) parse(pkt);   // one netlink datagram each
//
// Where the reports come from:
// - IPv6: the kernel publishes them on NETLINK_ROUTE group 31, read
//   directly (isRtnlIpv6MrouteRSupported). With "MCAST_NO_NETLINK" set the
//   kernel is taken not to, and the socket joins user-socket group 31 where
//   a relay re-sends them.
// - IPv4: by default the user-socket relay group 30. Kernels that publish
//   IPv4 reports natively on NETLINK_ROUTE group 30 (mainline Linux does)
//   can serve any number of agents directly: call ipv4NativeReportsIs(true)
//   before enabling. kernelPublishesIpv4Reports(netNs) tells whether the
//   kernel knows that group (it refuses to join a group it does not have).
//
// The filter (wire layout of what it reads: nlmsghdr at 0, nlmsg_type at 4,
// rtgen_family at 16, attributes from 20):
//   0  ldh [4]              nlmsg_type; RTM_NEWCACHEREPORT (96) loads as 0x6000
//   1  jeq #0x6000, 1, 0
//   2  ret #0
//   3  ldb [16]             rtgen_family; 128 IPv4, 129 IPv6
//   4  jeq #family, 1, 0
//   5  ret #0
//   6  ld #20               the attributes start here
//   7  ldx #1               MSGTYPE
//   8  ld #nlattr           A = offset of attribute X after A, 0 if absent
//   9  tax
//  10  ldb [x + 4]          the message type byte
//  then per option bit (nocache, wrongvif, wholepkt): jeq #type, 0, 1; ret #-1
//  last: ret #0
// A report without MSGTYPE makes instruction 8 give 0 and instruction 10
// read byte 4, the low byte of nlmsg_type (0x60), which no option matches.
// The program only ever accepts whole datagrams or none: a shorter accept
// length would cut the kernel's shared buffer for every listener.
//
// Hardened receive: every datagram's sender port id is recorded
// (rxSenderPortId; 0 is the kernel). Any local process may send to a
// user-socket group, so a receiver that knows its relay can accept only it:
// acceptedSenderIs(portId). The list is empty by default: every sender.
// Datagrams longer than maxRxPktData arrive cut short and are dropped and
// counted in rxErrors, like failed reads (ENOBUFS after a queue overflow);
// the socket carries on after either.
#pragma once

#include <cstdint>
#include <map>
#include <set>

#include "MrtNotify/MrtNotifySocket.h"
#include "Wirly/IntfId.h"
#include "Wirly/IpFilter.h"
#include "Wirly/MrtMessage.h"

namespace Routing::Multicast::Notify {

class MrtNotifyNetlinkSocketPam;
Kiv::Ptr<MrtNotifyNetlinkSocketPam> mrtNotifyNetlinkSocketPamFactory(Kiv::Name name, Wirly::NamespaceName const& netNs);

// Netlink multicast groups of cache reports, native (NETLINK_ROUTE) and
// relayed (NETLINK_USERSOCK) alike.
inline constexpr int rtnlGroupIpv4MrouteR = 30;
inline constexpr int rtnlGroupIpv6MrouteR = 31;
inline constexpr std::uint16_t rtmNewCacheReport = 96;
inline constexpr std::uint8_t rtnlFamilyIpmr = 128;
inline constexpr std::uint8_t rtnlFamilyIp6mr = 129;

class MrtNotifyNetlinkSocketPam : public MrtNotifySocketPam {
 public:
  class NotifieeConst : public MrtNotifySocketPam::NotifieeConst {
   public:
    using MrtNotifySocketPam::NotifieeConst::NotifieeConst;
    virtual void onIsRtnlIpv6MrouteRSupported() {}
    virtual void onRxFilter(std::uint8_t) {}
    virtual void onBpfLen() {}
    virtual void onEnableTx() {}
    virtual void onRxErrors() {}
    virtual void onTxErrors() {}
    virtual void onIpv4NativeReports() {}
    virtual void onRxSenderPortId() {}
    virtual void onRxSenderRejects() {}
  };

  KIV_REFLECT_BEGIN_DERIVED(MrtNotifyNetlinkSocketPam, MrtNotifySocketPam,
                            "Routing::Multicast::Notify::MrtNotifyNetlinkSocketPam")

  // Whether the kernel in netNs has the native IPv4 report group; raises
  // Kiv::ErrnoException for any refusal other than an unknown group.
  static bool kernelPublishesIpv4Reports(Wirly::NamespaceName const& netNs);

  void enabledIs(bool e) override;
  void optionsIs(std::uint32_t options) override;

  bool isRtnlIpv6MrouteRSupported() const { return isRtnlIpv6MrouteRSupported_; }
  void isRtnlIpv6MrouteRSupportedIs(bool v) {
    ownAttrIs(isRtnlIpv6MrouteRSupported_, v, &NotifieeConst::onIsRtnlIpv6MrouteRSupported);
  }
  KIV_REFLECT_SCALAR(isRtnlIpv6MrouteRSupported)

  bool ipv4NativeReports() const { return ipv4NativeReports_; }
  // Re-opens an enabled socket on the other group.
  void ipv4NativeReportsIs(bool v);

  // The BPF program, instruction index to instruction.
  std::map<std::uint8_t, Wirly::IpFilter> const& rxFilter() const { return rxFilter_; }
  Wirly::IpFilter rxFilter(std::uint8_t i) const;
  void rxFilterIs(std::uint8_t i, Wirly::IpFilter const& f);
  void rxFilterDel(std::uint8_t i);
  void rxFilterDelAll();
  KIV_REFLECT_COLLECTION(rxFilter, std::uint8_t, rxFilter_.size(), rxFilter_)
  std::uint8_t bpfLen() const { return bpfLen_; }
  void bpfLenIs(std::uint8_t n) { ownAttrIs(bpfLen_, n, &NotifieeConst::onBpfLen); }
  std::uint8_t bpfLenInc(std::uint8_t n = 1) {
    bpfLenIs(std::uint8_t(bpfLen_ + n));
    return bpfLen_;
  }
  KIV_REFLECT_SCALAR(bpfLen)

  std::uint32_t rxErrors() const { return rxErrors_; }
  std::uint32_t rxErrorsInc(std::uint32_t n = 1) { return ownCounterInc(rxErrors_, n, &NotifieeConst::onRxErrors); }
  std::uint32_t txErrors() const { return txErrors_; }
  std::uint32_t txErrorsInc(std::uint32_t n = 1) { return ownCounterInc(txErrors_, n, &NotifieeConst::onTxErrors); }

  std::uint32_t rxSenderPortId() const { return rxSenderPortId_; }
  std::uint32_t rxSenderRejects() const { return rxSenderRejects_; }
  std::set<std::uint32_t> const& acceptedSenders() const { return acceptedSenders_; }
  void acceptedSenderIs(std::uint32_t portId) { acceptedSenders_.insert(portId); }
  void acceptedSenderDel(std::uint32_t portId) { acceptedSenders_.erase(portId); }
  void acceptedSenderDelAll() { acceptedSenders_.clear(); }

  // The send side: a NETLINK_USERSOCK socket in netNs that sends to the
  // relay group of af(). txPortId() is its port id, what receivers may
  // restrict themselves to.
  bool enableTx() const { return enableTx_; }
  void enableTxIs(bool e);
  KIV_REFLECT_SCALAR(enableTx)
  std::uint32_t txPortId() const { return txPortId_; }
  KIV_REFLECT_SCALAR(ipv4NativeReports)
  KIV_REFLECT_COUNTER_RO(rxErrors)
  KIV_REFLECT_COUNTER_RO(txErrors)
  KIV_REFLECT_SCALAR_RO(rxSenderPortId)
  KIV_REFLECT_COUNTER_RO(rxSenderRejects)
  KIV_REFLECT_SCALAR_RO(txPortId)
  void txMrtNotification(Kiv::Ptr<Wirly::MrtMessage> const& mrtMsg, std::uint16_t mifId);
  void txMrtNotificationWithIntfId(Kiv::Ptr<Wirly::MrtMessage> const& mrtMsg, std::uint64_t const& intfId);
  void txPktIs(Kiv::Ptr<Wirly::Pkt> const& pkt);

  void doSockInit();
  void doGetRxPkt() override;
  void doGenerateAndApplyFilter();
  void doAddFilterStmt(std::uint16_t code, std::uint32_t k);
  void doAddFilterJmp(std::uint16_t code, std::uint32_t k, std::uint8_t jt, std::uint8_t jf);
  void doAttachBpfFilter();
  void doDetachBpfFilter();
  KIV_REFLECT_END

 protected:
  explicit MrtNotifyNetlinkSocketPam(Kiv::Name name);
  ~MrtNotifyNetlinkSocketPam() override;
  // The send side follows the socket into a new namespace.
  void doNetNsReopen() override;

 private:
  friend Kiv::Ptr<MrtNotifyNetlinkSocketPam> mrtNotifyNetlinkSocketPamFactory(Kiv::Name name,
                                                                              Wirly::NamespaceName const& netNs);
  template <class T, class U>
  void ownAttrIs(T& slot, U const& v, void (NotifieeConst::*hook)()) {
    if (Kiv::changed(slot, v)) notifyAs(hook);
  }
  std::uint32_t ownCounterInc(std::uint32_t& slot, std::uint32_t n, void (NotifieeConst::*hook)()) {
    if (n != 0) {
      slot += n;
      notifyAs(hook);
    }
    return slot;
  }
  int group() const;
  bool native() const;
  void doTxMrtNotification(Kiv::Ptr<Wirly::MrtMessage> const& mrtMsg, std::uint16_t idType, std::uint64_t id);
  void doCloseTx();

  bool isRtnlIpv6MrouteRSupported_ = false;
  bool ipv4NativeReports_ = false;
  std::map<std::uint8_t, Wirly::IpFilter> rxFilter_;
  std::uint8_t bpfLen_ = 0;
  bool enableTx_ = false;
  std::uint32_t rxErrors_ = 0;
  std::uint32_t txErrors_ = 0;
  std::uint32_t rxSenderPortId_ = 0;
  std::uint32_t rxSenderRejects_ = 0;
  std::set<std::uint32_t> acceptedSenders_;
  Kiv::Ptr<Wirly::FileDescriptor> txFileDesc_;
  std::uint32_t txPortId_ = 0;
};

}  // namespace Routing::Multicast::Notify
