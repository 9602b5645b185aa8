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
// Who is heard, checked for every datagram before any byte of it is read
// (in this order; the first that fails drops the datagram):
// 1. The read itself: an error, an empty datagram, or one longer than
//    maxRxPktData (it arrives cut short) counts in rxErrors.
// 2. The sender. On NETLINK_ROUTE (native) only the kernel is heard: sender
//    port id 0, from the address recvmsg gives. Any process may unicast to
//    this socket's port id, so the filter alone is no proof. On the
//    user-socket relay groups any local process may send, so the socket
//    sets SO_PASSCRED and hears only senders whose SCM_CREDENTIALS uid is in
//    trustedUid: uid 0 and this process's real uid from the start (the
//    kernel stamps the sender's real uid; a sender can claim only ids it
//    holds). A datagram without credentials is untrusted. acceptedSenderIs
//    narrows the relay senders further to port ids. Fails: rxUntrustedDrops.
// 3. The shape (detail/CacheReportCheck.h has the wire layout): framing,
//    attribute lengths within the report, the size of each value for the
//    family, no attribute twice. Fails: rxMalformedDrops.
// 4. The table: an IPv4 kernel report names its multicast routing table
//    (attribute 6 with a 4-byte value); one for a table other than mrtTable
//    (253, the default table, unless set) belongs to another router in the
//    namespace. Fails: rxOtherTableDrops. IPv6 kernel reports and relayed
//    reports name no table, so no table check is possible for them: a
//    receiver of a non-default IPv6 table hears every table's reports.
// A dropped datagram is never handed on, so nothing of it reaches the
// parser. Each drop is traced at level 6; at level 2 one line per reason
// at most every second says how many went since the last such line.
// What passes reaches the parser, whose remaining assertions (family byte,
// known message type, resolvable VIF) hold for the kernel and for this
// system's relay, the only senders heard.
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
    virtual void onRxSenderUid() {}
    virtual void onTrustedUid(std::uint32_t) {}
    virtual void onMrtTable() {}
    virtual void onRxUntrustedDrops() {}
    virtual void onRxMalformedDrops() {}
    virtual void onRxOtherTableDrops() {}
  };

  // The kernel's default multicast routing table (RT_TABLE_DEFAULT).
  static constexpr std::uint32_t defaultMrtTable = 253;

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

  // The port id and uid of the last datagram's sender; the uid is
  // noUid when it came without credentials (always so on NETLINK_ROUTE).
  static constexpr std::uint32_t noUid = 0xFFFFFFFF;
  std::uint32_t rxSenderPortId() const { return rxSenderPortId_; }
  std::uint32_t rxSenderUid() const { return rxSenderUid_; }

  // Uids whose datagrams on a relay group are heard (see the header). True
  // adds, false removes, as trustedUidDel does.
  bool trustedUid(std::uint32_t uid) const { return trustedUid_.count(uid) != 0; }
  std::map<std::uint32_t, bool> const& trustedUidMap() const { return trustedUid_; }
  void trustedUidIs(std::uint32_t uid, bool trusted);
  void trustedUidDel(std::uint32_t uid) { trustedUidIs(uid, false); }
  void trustedUidDelAll();

  // The multicast routing table whose kernel reports are heard.
  std::uint32_t mrtTable() const { return mrtTable_; }
  void mrtTableIs(std::uint32_t t) { ownAttrIs(mrtTable_, t, &NotifieeConst::onMrtTable); }

  // Datagrams dropped before parsing, by reason.
  std::uint32_t rxUntrustedDrops() const { return rxUntrustedDrops_; }
  std::uint32_t rxUntrustedDropsInc(std::uint32_t n = 1) {
    return ownCounterInc(rxUntrustedDrops_, n, &NotifieeConst::onRxUntrustedDrops);
  }
  std::uint32_t rxMalformedDrops() const { return rxMalformedDrops_; }
  std::uint32_t rxMalformedDropsInc(std::uint32_t n = 1) {
    return ownCounterInc(rxMalformedDrops_, n, &NotifieeConst::onRxMalformedDrops);
  }
  std::uint32_t rxOtherTableDrops() const { return rxOtherTableDrops_; }
  std::uint32_t rxOtherTableDropsInc(std::uint32_t n = 1) {
    return ownCounterInc(rxOtherTableDrops_, n, &NotifieeConst::onRxOtherTableDrops);
  }

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
  KIV_REFLECT_SCALAR_RO(rxSenderUid)
  KIV_REFLECT_COLLECTION(trustedUid, std::uint32_t, trustedUid_.size(), trustedUid_)
  KIV_REFLECT_SCALAR(mrtTable)
  KIV_REFLECT_COUNTER_RO(rxUntrustedDrops)
  KIV_REFLECT_COUNTER_RO(rxMalformedDrops)
  KIV_REFLECT_COUNTER_RO(rxOtherTableDrops)
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
  // Who sent the datagram msg carries; false when they are not heard.
  bool doCheckSender(struct msghdr const& msg);
  // Counts and traces one dropped datagram of `reason`.
  enum class DropReason : std::uint8_t { untrusted, malformed, otherTable };
  void doDrop(DropReason reason, char const* detail);

  // Rate limit of the level-2 drop summaries, one per reason.
  struct DropSummary {
    double lastAt = -1e9;
    std::uint32_t since = 0;
  };
  void doCloseTx();

  bool isRtnlIpv6MrouteRSupported_ = false;
  // The receiving socket is NETLINK_ROUTE: only the kernel is heard.
  bool rxFromKernel_ = false;
  bool ipv4NativeReports_ = false;
  std::map<std::uint8_t, Wirly::IpFilter> rxFilter_;
  std::uint8_t bpfLen_ = 0;
  bool enableTx_ = false;
  std::uint32_t rxErrors_ = 0;
  std::uint32_t txErrors_ = 0;
  std::uint32_t rxSenderPortId_ = 0;
  std::uint32_t rxSenderUid_ = noUid;
  std::map<std::uint32_t, bool> trustedUid_;
  std::uint32_t mrtTable_ = defaultMrtTable;
  std::uint32_t rxUntrustedDrops_ = 0;
  std::uint32_t rxMalformedDrops_ = 0;
  std::uint32_t rxOtherTableDrops_ = 0;
  DropSummary dropSummary_[3];
  std::set<std::uint32_t> acceptedSenders_;
  Kiv::Ptr<Wirly::FileDescriptor> txFileDesc_;
  std::uint32_t txPortId_ = 0;
};

}  // namespace Routing::Multicast::Notify
