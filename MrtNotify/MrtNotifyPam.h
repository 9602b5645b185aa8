// Routing::Multicast::Notify::MrtNotifyPamManager: turns the kernel's
// multicast routing upcalls into typed messages an agent can act on.
//
//   auto m = mrtNotifyPamManagerFactory(Wirly::ipv6, Wirly::NamespaceName("blue"));
//   m->optionsIs(nocache | wrongvif);
//   struct Watch : MrtNotifyPamManager::NotifieeConst {
//     void onNoCacheCounter() override { act(notifier()->noCacheMessage()); }
//   };
//   // MrtNotifySm enables the socket and feeds readMrtMessage.
//
// Mailboxes: the three message entities are made once, at the first socket
// initialisation, and every later upcall of a kind overwrites its entity in
// place; the upcall is announced by the kind's counter moving. An observer
// that reacts late sees only the newest upcall of a kind.
//
// The socket: IPv4 reads the multicast routing socket (MrtNotifySocketPam),
// or netlink cache reports when useNetlink is set; IPv6 always reads
// netlink. Changing useNetlink replaces the socket (the new one is left
// disabled, like the first: enabling is the user's business).
//
// Wire forms read by readMrtMessage, from the packet's data window:
// - routing socket (IPv4): an igmpmsg over an IPv4 header; at least 20
//   bytes, a whole-packet upcall at least 40 (its inner IPv4 header gives
//   source and group). Shorter datagrams are traced and dropped.
// - netlink: one or more nlmsghdr-framed messages; only the first
//   RTM_NEWCACHEREPORT of a datagram is used. Frames are walked only while
//   RTM_NEWCACHEREPORT of a datagram is used. Before anything is read the
//   datagram's shape is checked (detail/CacheReportCheck.h: framing,
//   attribute lengths, value sizes for the family, no attribute twice); a
//   malformed datagram is traced and dropped whole ("MrtNotify Rcv:
//   Invalid MRT Alert"). Attribute 6 is read as this system's 64-bit
//   interface id only when its rta_len is 12: the kernel itself sends a
//   4-byte routing table id under that number, which the receiving socket
//   has already compared with its table.
// What is not tolerated, by design (assertions): a cache report of the wrong
// rtgen_family, one without a recognised message type, and a netlink
// no-cache or wrong-VIF report whose VIF/MIF the kernel status does not know.
// They hold for what the kernel and this system's relay send; the receiving
// socket hears no one else (MrtNotifyNetlinkSocketPam), so no local user
// reaches them.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <map>

#include "Kiv/Trace.h"
#include "MrtNotify/MrtNotifyNetlinkSocket.h"
#include "MrtNotify/MrtNotifySocket.h"
#include "Schema/KernelMfibStatus.h"
#include "Wirly/AddressFamily.h"
#include "Wirly/MrtMessage.h"
#include "Wirly/NamespaceName.h"

namespace Routing::Multicast::Notify {

class NoCacheMessage : public Wirly::MrtMessage {
 public:
  using Ptr = Kiv::Ptr<NoCacheMessage>;
  KIV_REFLECT_BEGIN_DERIVED(NoCacheMessage, Wirly::MrtMessage, "Routing::Multicast::Notify::NoCacheMessage")
  KIV_REFLECT_END

 private:
  friend Kiv::Ptr<NoCacheMessage> noCacheMessageFactory(Kiv::Name name);
  explicit NoCacheMessage(Kiv::Name name) : MrtMessage(std::move(name), Wirly::MrtMessageType::igmpNoCache) {}
};

class WrongVifMessage : public Wirly::MrtMessage {
 public:
  using Ptr = Kiv::Ptr<WrongVifMessage>;
  KIV_REFLECT_BEGIN_DERIVED(WrongVifMessage, Wirly::MrtMessage, "Routing::Multicast::Notify::WrongVifMessage")
  KIV_REFLECT_END

 private:
  friend Kiv::Ptr<WrongVifMessage> wrongVifMessageFactory(Kiv::Name name);
  explicit WrongVifMessage(Kiv::Name name) : MrtMessage(std::move(name), Wirly::MrtMessageType::igmpWrongVif) {}
};

// Carries the data packet the kernel handed up, without the kernel's header.
class WholePktMessage : public Wirly::MrtMessage {
 public:
  using Ptr = Kiv::Ptr<WholePktMessage>;
  class NotifieeConst : public Wirly::MrtMessage::NotifieeConst {
   public:
    using Wirly::MrtMessage::NotifieeConst::NotifieeConst;
    virtual void onRcvdPkt() {}
  };
  KIV_REFLECT_BEGIN_DERIVED(WholePktMessage, Wirly::MrtMessage, "Routing::Multicast::Notify::WholePktMessage")

  Kiv::Ptr<Wirly::Pkt> rcvdPkt() const override { return rcvdPkt_; }
  // A new packet always notifies: the same buffer may come back refilled.
  void rcvdPktIs(Kiv::Ptr<Wirly::Pkt> const& p);
  KIV_REFLECT_SCALAR(rcvdPkt)
  KIV_REFLECT_END

 private:
  friend Kiv::Ptr<WholePktMessage> wholePktMessageFactory(Kiv::Name name);
  explicit WholePktMessage(Kiv::Name name) : MrtMessage(std::move(name), Wirly::MrtMessageType::igmpWholePkt) {}
  Kiv::Ptr<Wirly::Pkt> rcvdPkt_;
};

Kiv::Ptr<NoCacheMessage> noCacheMessageFactory(Kiv::Name name);
Kiv::Ptr<WrongVifMessage> wrongVifMessageFactory(Kiv::Name name);
Kiv::Ptr<WholePktMessage> wholePktMessageFactory(Kiv::Name name);

class MrtNotifyPamManager;
Kiv::Ptr<MrtNotifyPamManager> mrtNotifyPamManagerFactory(Wirly::AddressFamily af, Wirly::NamespaceName const& netNs);

class MrtNotifyPamManager : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<MrtNotifyPamManager>;
  using VifStatus = Kiv::PtrConst<Routing::KernelMfib::Status>;

  class NotifieeConst : public Kiv::NotifieeConstBase<MrtNotifyPamManager> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onPam() {}
    virtual void onUseNetlink() {}
    virtual void onWrongVifCounter() {}
    virtual void onWrongVifMessage() {}
    virtual void onNoCacheCounter() {}
    virtual void onNoCacheMessage() {}
    virtual void onWholePktCounter() {}
    virtual void onWholePktMessage() {}
  };

  // By name, in this order: the attributes, then options (and
  // ipv4NativeReports), handlePamInit and readMrtMessage. The counters move
  // by name as well (noCacheCounterInc), which wakes their observers as an
  // upcall would; the socket and the mailboxes are read-only.
  KIV_REFLECT_BEGIN(MrtNotifyPamManager, "Routing::Multicast::Notify::MrtNotifyPamManager")

  Wirly::AddressFamily af() const { return af_; }
  KIV_REFLECT_SCALAR_RO(af)

  Kiv::Ptr<MrtNotifySocketPam> const& pam() const { return pam_; }
  void pamIs(Kiv::Ptr<MrtNotifySocketPam> const& p) {
    if (Kiv::changed(pam_, p)) notify(&NotifieeConst::onPam);
  }
  KIV_REFLECT_SCALAR_RO(pam)

  Wirly::NamespaceName const& netNs() const { return netNs_; }
  KIV_REFLECT_SCALAR_RO(netNs)

  bool useNetlink() const { return useNetlink_; }
  // Replaces the socket when the value changes (handlePamInit).
  void useNetlinkIs(bool v);
  KIV_REFLECT_SCALAR(useNetlink)

  std::uint32_t wrongVifCounter() const { return wrongVifCounter_; }
  void wrongVifCounterIs(std::uint32_t v) { counterIs(wrongVifCounter_, v, &NotifieeConst::onWrongVifCounter); }
  std::uint32_t wrongVifCounterInc(std::uint32_t n = 1) {
    return counterInc(wrongVifCounter_, n, &NotifieeConst::onWrongVifCounter);
  }
  KIV_REFLECT_COUNTER(wrongVifCounter)
  Kiv::Ptr<WrongVifMessage> const& wrongVifMessage() const { return wrongVifMessage_; }
  void wrongVifMessageIs(Kiv::Ptr<WrongVifMessage> const& m) {
    if (Kiv::changed(wrongVifMessage_, m)) notify(&NotifieeConst::onWrongVifMessage);
  }
  void wrongVifMessageDel() { wrongVifMessageIs(nullptr); }
  KIV_REFLECT_SCALAR_RO(wrongVifMessage)

  std::uint32_t noCacheCounter() const { return noCacheCounter_; }
  void noCacheCounterIs(std::uint32_t v) { counterIs(noCacheCounter_, v, &NotifieeConst::onNoCacheCounter); }
  std::uint32_t noCacheCounterInc(std::uint32_t n = 1) {
    return counterInc(noCacheCounter_, n, &NotifieeConst::onNoCacheCounter);
  }
  KIV_REFLECT_COUNTER(noCacheCounter)
  Kiv::Ptr<NoCacheMessage> const& noCacheMessage() const { return noCacheMessage_; }
  void noCacheMessageIs(Kiv::Ptr<NoCacheMessage> const& m) {
    if (Kiv::changed(noCacheMessage_, m)) notify(&NotifieeConst::onNoCacheMessage);
  }
  void noCacheMessageDel() { noCacheMessageIs(nullptr); }
  KIV_REFLECT_SCALAR_RO(noCacheMessage)

  std::uint32_t wholePktCounter() const { return wholePktCounter_; }
  void wholePktCounterIs(std::uint32_t v) { counterIs(wholePktCounter_, v, &NotifieeConst::onWholePktCounter); }
  std::uint32_t wholePktCounterInc(std::uint32_t n = 1) {
    return counterInc(wholePktCounter_, n, &NotifieeConst::onWholePktCounter);
  }
  KIV_REFLECT_COUNTER(wholePktCounter)
  Kiv::Ptr<WholePktMessage> const& wholePktMessage() const { return wholePktMessage_; }
  void wholePktMessageIs(Kiv::Ptr<WholePktMessage> const& m) {
    if (Kiv::changed(wholePktMessage_, m)) notify(&NotifieeConst::onWholePktMessage);
  }
  void wholePktMessageDel() { wholePktMessageIs(nullptr); }
  KIV_REFLECT_SCALAR_RO(wholePktMessage)

  // Upcall kinds asked of the socket; kept here so that a replaced socket
  // asks for the same.
  std::uint32_t options() const { return options_; }
  void optionsIs(std::uint32_t options);
  KIV_REFLECT_SCALAR(options)

  // IPv4 over netlink: read the kernel's own reports (NETLINK_ROUTE group
  // 30) rather than a relay's; applies to the next socket made.
  bool ipv4NativeReports() const { return ipv4NativeReports_; }
  void ipv4NativeReportsIs(bool v);
  KIV_REFLECT_SCALAR(ipv4NativeReports)

  // Who is heard on a relay group, and the table whose kernel reports are
  // heard (MrtNotifyNetlinkSocketPam says how). Kept here so that a
  // replaced socket hears the same; a change reaches the current one.
  bool trustedUid(std::uint32_t uid) const { return trustedUid_.count(uid) != 0; }
  void trustedUidIs(std::uint32_t uid, bool trusted);
  void trustedUidDel(std::uint32_t uid) { trustedUidIs(uid, false); }
  void trustedUidDelAll();
  KIV_REFLECT_COLLECTION(trustedUid, std::uint32_t, trustedUid_.size(), trustedUid_)
  std::uint32_t mrtTable() const { return mrtTable_; }
  void mrtTableIs(std::uint32_t t);
  KIV_REFLECT_SCALAR(mrtTable)

  // Chooses and creates the receiving socket (left disabled).
  void handlePamInit();
  KIV_REFLECT_OPERATION(handlePamInit)

  // Parses one received datagram and publishes its upcall: the kind's
  // message entity is overwritten and its counter moves. Returns the kind
  // published (none when the datagram was dropped). Listed by name; a
  // packet has no text form, so it is not invoked by name.
  Wirly::MrtMessageType readMrtMessage(Kiv::Ptr<Wirly::Pkt> const& pkt, VifStatus const& vifStatus);
  KIV_REFLECT_OPERATION(readMrtMessage)
  KIV_REFLECT_END

  // One cache report, its nlmsg_len already checked against the datagram.
  static Wirly::MrtMessage::Ptr readNetlinkMrtMessage(Wirly::AddressFamily af, nlmsghdr* nlh,
                                                      Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                      Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                      Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                                      VifStatus const& vifStatus);
  static Wirly::MrtMessage::Ptr readNetlinkMrt4Message(nlmsghdr* nlh, Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                       Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                       Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                                       VifStatus const& vifStatus);
  static Wirly::MrtMessage::Ptr readNetlinkMrt6Message(nlmsghdr* nlh, Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                       Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                       Kiv::Ptr<WholePktMessage> const& wholePktMessage,
                                                       VifStatus const& vifStatus);
  // Reads the one-byte MSGTYPE attribute and points *mrtMsg at the entity of
  // that kind; an unknown kind leaves *mrtMsg as it is. Returns the byte.
  static Wirly::MrtMessageType readCreportMsgType(rtattr* rta, Wirly::MrtMessage::Ptr* mrtMsg,
                                                  Kiv::Ptr<WrongVifMessage> const& wrongVifMessage,
                                                  Kiv::Ptr<NoCacheMessage> const& noCacheMessage,
                                                  Kiv::Ptr<WholePktMessage> const& wholePktMessage);

  static Kiv::TraceHandle& trace();

 protected:
  MrtNotifyPamManager(Wirly::AddressFamily af, Wirly::NamespaceName const& netNs);
  ~MrtNotifyPamManager() override;

 private:
  friend Kiv::Ptr<MrtNotifyPamManager> mrtNotifyPamManagerFactory(Wirly::AddressFamily af,
                                                                  Wirly::NamespaceName const& netNs);

  void counterIs(std::uint32_t& slot, std::uint32_t v, void (NotifieeConst::*hook)()) {
    if (Kiv::changed(slot, v)) notify(hook);
  }
  std::uint32_t counterInc(std::uint32_t& slot, std::uint32_t n, void (NotifieeConst::*hook)()) {
    std::uint32_t const v = slot + n;  // wraps at 2^32
    counterIs(slot, v, hook);
    return slot;
  }
  Wirly::MrtMessageType doReadSocketForm(Kiv::Ptr<Wirly::Pkt> const& pkt, VifStatus const& vifStatus);
  Wirly::MrtMessageType doReadNetlinkForm(Kiv::Ptr<Wirly::Pkt> const& pkt, VifStatus const& vifStatus);
  void doPublish(Wirly::MrtMessage const& msg);

  Wirly::AddressFamily const af_;
  Kiv::Ptr<MrtNotifySocketPam> pam_;
  Wirly::NamespaceName const netNs_;
  bool useNetlink_ = false;
  std::uint32_t options_ = 0;
  bool ipv4NativeReports_ = false;
  std::map<std::uint32_t, bool> trustedUid_;
  std::uint32_t mrtTable_ = MrtNotifyNetlinkSocketPam::defaultMrtTable;
  std::uint32_t wrongVifCounter_ = 0;
  Kiv::Ptr<WrongVifMessage> wrongVifMessage_;
  std::uint32_t noCacheCounter_ = 0;
  Kiv::Ptr<NoCacheMessage> noCacheMessage_;
  std::uint32_t wholePktCounter_ = 0;
  Kiv::Ptr<WholePktMessage> wholePktMessage_;
};

}  // namespace Routing::Multicast::Notify
