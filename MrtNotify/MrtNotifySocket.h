// Routing::Multicast::Notify::MrtNotifySocketPam: receives the kernel's
// multicast routing upcalls on a raw socket and queues each datagram for its
// user (a Wirly::Pam).
//
//   auto pam = mrtNotifySocketPamFactory("MrtNotify");
//   pam->netNsIs(Wirly::NamespaceName("blue"));
//   pam->optionsIs(nocache | wrongvif);
//   pam->enabledIs(true);          // Kiv::ErrnoException on a failed set-up
//   while (auto pkt = pam->rxPkt()) parse(pkt);
//
// IPv4: the socket is its own (AF_INET/SOCK_RAW/IPPROTO_RAW, opened in
// netNs), and subscribes to upcall kinds with the notification options that
// platform kernels add beside the standard MRT_* options (MRT_NOTIFY_INIT
// 211, add 213, remove 214). A kernel without them refuses the first with
// EOPNOTSUPP, which enabledIs raises as "setsocketopt(MRT_NOTIFY_INIT)".
// IPv6: only when "MCAST_NO_NETLINK" is set (otherwise the netlink socket
// serves IPv6 and enabling does nothing); the descriptor is the agent's own
// IPv6 multicast routing socket, given with sdIs before enabling, and is
// never closed here.
//
// Every set-up failure closes the socket this object opened and raises
// Kiv::ErrnoException naming the call; receive failures are traced and the
// datagram dropped. Nothing of a datagram or its control messages is read
// before its length is checked; a datagram longer than maxRxPktData arrives
// cut short and is dropped.
#pragma once

#include <cstdint>

#include "Kiv/Reflect.h"
#include "Kiv/Trace.h"
#include "Wirly/AddressFamily.h"
#include "Wirly/FileDescriptor.h"
#include "Wirly/IpGenAddr.h"
#include "Wirly/NamespaceName.h"
#include "Wirly/Pam.h"
#include "Wirly/PamFdSm.h"

namespace Routing::Multicast::Notify {

class MrtNotifySocketPam;
Kiv::Ptr<MrtNotifySocketPam> mrtNotifySocketPamFactory(Kiv::Name name);

// Upcall kinds a socket asks for, as a bit set.
enum MrtNotifySocketOptions : std::uint32_t { wrongvif = 1, nocache = 2, wholepkt = 4 };

// The notification socket options of platform kernels (level IPPROTO_IP).
inline constexpr int mrtNotifyInit = 211;
inline constexpr int mrtNotifyAdd = 213;
inline constexpr int mrtNotifyDel = 214;

class MrtNotifySocketPam : public Wirly::Pam {
 public:
  class NotifieeConst : public Wirly::Pam::NotifieeConst {
   public:
    using Wirly::Pam::NotifieeConst::NotifieeConst;
    virtual void onAf() {}
    virtual void onNetNs() {}
    virtual void onOptions() {}
    virtual void onEnabled() {}
    virtual void onSd() {}
    virtual void onMaxRxPktData() {}
    virtual void onRxIfIndex() {}
    virtual void onRxDstIpAddr() {}
    virtual void onRxOrigDstIpAddr() {}
    virtual void onRxTOS() {}
    virtual void onRxTTL() {}
    virtual void onRxSrcIpAddr() {}
    virtual void onRxFlags() {}
    virtual void onRxPktCount() {}
    virtual void onRxMrt6msgCount() {}
    virtual void onFileDesc() {}
  };

  static constexpr std::uint32_t defaultMaxRxPktData = 1490;

  KIV_REFLECT_BEGIN(MrtNotifySocketPam, "Routing::Multicast::Notify::MrtNotifySocketPam")

  Wirly::AddressFamily af() const { return af_; }
  void afIs(Wirly::AddressFamily af) { attrIs(af_, af, &NotifieeConst::onAf); }
  KIV_REFLECT_SCALAR(af)

  Wirly::NamespaceName const& netNs() const { return netNs_; }
  // Re-opens an enabled socket in the new namespace (handleNetNs).
  void netNsIs(Wirly::NamespaceName const& ns);
  KIV_REFLECT_SCALAR(netNs)

  std::uint32_t options() const { return options_; }
  virtual void optionsIs(std::uint32_t options);
  KIV_REFLECT_SCALAR(options)

  bool enabled() const { return enabled_; }
  virtual void enabledIs(bool e);
  KIV_REFLECT_SCALAR(enabled)

  std::int32_t sd() const { return sd_; }
  void sdIs(std::int32_t sd) { attrIs(sd_, sd, &NotifieeConst::onSd); }
  KIV_REFLECT_SCALAR(sd)

  std::uint32_t maxRxPktData() const { return maxRxPktData_; }
  void maxRxPktDataIs(std::uint32_t n) { attrIs(maxRxPktData_, n, &NotifieeConst::onMaxRxPktData); }
  KIV_REFLECT_SCALAR(maxRxPktData)

  std::uint32_t rxIfIndex() const { return rxIfIndex_; }
  void rxIfIndexIs(std::uint32_t i) { attrIs(rxIfIndex_, i, &NotifieeConst::onRxIfIndex); }
  KIV_REFLECT_SCALAR(rxIfIndex)
  Wirly::IpGenAddr const& rxDstIpAddr() const { return rxDstIpAddr_; }
  void rxDstIpAddrIs(Wirly::IpGenAddr const& a) { attrIs(rxDstIpAddr_, a, &NotifieeConst::onRxDstIpAddr); }
  KIV_REFLECT_SCALAR(rxDstIpAddr)
  Wirly::IpGenAddr const& rxOrigDstIpAddr() const { return rxOrigDstIpAddr_; }
  void rxOrigDstIpAddrIs(Wirly::IpGenAddr const& a) { attrIs(rxOrigDstIpAddr_, a, &NotifieeConst::onRxOrigDstIpAddr); }
  KIV_REFLECT_SCALAR(rxOrigDstIpAddr)
  std::uint8_t rxTOS() const { return rxTOS_; }
  void rxTOSIs(std::uint8_t v) { attrIs(rxTOS_, v, &NotifieeConst::onRxTOS); }
  KIV_REFLECT_SCALAR(rxTOS)
  std::uint8_t rxTTL() const { return rxTTL_; }
  void rxTTLIs(std::uint8_t v) { attrIs(rxTTL_, v, &NotifieeConst::onRxTTL); }
  KIV_REFLECT_SCALAR(rxTTL)
  Wirly::IpGenAddr const& rxSrcIpAddr() const { return rxSrcIpAddr_; }
  void rxSrcIpAddrIs(Wirly::IpGenAddr const& a) { attrIs(rxSrcIpAddr_, a, &NotifieeConst::onRxSrcIpAddr); }
  KIV_REFLECT_SCALAR(rxSrcIpAddr)
  std::uint32_t rxFlags() const { return rxFlags_; }
  void rxFlagsIs(std::uint32_t f) { attrIs(rxFlags_, f, &NotifieeConst::onRxFlags); }
  KIV_REFLECT_SCALAR(rxFlags)

  std::uint32_t rxPktCount() const { return rxPktCount_; }
  std::uint32_t rxPktCountInc(std::uint32_t n = 1) { return counterInc(rxPktCount_, n, &NotifieeConst::onRxPktCount); }
  KIV_REFLECT_COUNTER_RO(rxPktCount)
  std::uint32_t rxMrt6msgCount() const { return rxMrt6msgCount_; }
  std::uint32_t rxMrt6msgCountInc(std::uint32_t n = 1) {
    return counterInc(rxMrt6msgCount_, n, &NotifieeConst::onRxMrt6msgCount);
  }
  KIV_REFLECT_COUNTER_RO(rxMrt6msgCount)

  // The registered descriptor, present while enabled.
  Kiv::Ptr<Wirly::FileDescriptor> const& fileDesc() const { return fileDesc_; }
  KIV_REFLECT_SCALAR_RO(fileDesc)
  // Kiv::NameInUseException("fileDesc") when one exists.
  Kiv::Ptr<Wirly::FileDescriptor> fileDescNew(int fd);
  void fileDescDel();
  // The descriptor reactor, present while enabled.
  Kiv::Ptr<Wirly::PamFdSm> const& fdSm() const { return fdSm_; }

  void handleNetNs();
  void handleCleanup();
  void doGetRxPkt() override;
  KIV_REFLECT_OPERATION(handleNetNs)
  KIV_REFLECT_OPERATION(handleCleanup)
  KIV_REFLECT_END

 protected:
  explicit MrtNotifySocketPam(Kiv::Name name);
  ~MrtNotifySocketPam() override;

  template <class T, class U>
  void attrIs(T& slot, U const& v, void (NotifieeConst::*hook)()) {
    if (Kiv::changed(slot, v)) notifyAs(hook);
  }
  std::uint32_t counterInc(std::uint32_t& slot, std::uint32_t n, void (NotifieeConst::*hook)()) {
    if (n != 0) {
      slot += n;
      notifyAs(hook);
    }
    return slot;
  }
  // Runs after a namespace change has re-opened the receiving socket, for
  // subclasses that hold other sockets in the namespace.
  virtual void doNetNsReopen() {}
  void enabledFlagIs(bool e) { attrIs(enabled_, e, &NotifieeConst::onEnabled); }
  void optionsStore(std::uint32_t o) { attrIs(options_, o, &NotifieeConst::onOptions); }

  // "NS:<name>" for traces.
  std::string nsText() const;
  // Registers sd with the event loop: fileDesc, non-blocking, reactor.
  void doRegisterSd();
  // Drops the reactor and fileDesc; closes sd when closeSd, and then sd is -1.
  void doUnregisterSd(bool closeSd);
  // A set-up step failed with `error`: closes everything this object opened
  // for its socket, marks it disabled, and raises ErrnoException(call, error).
  [[noreturn]] void doAbort(char const* call, int error);

  static Kiv::TraceHandle& trace();

  // True when this object opened sd and so closes it.
  bool ownsSd_ = false;

 private:
  friend Kiv::Ptr<MrtNotifySocketPam> mrtNotifySocketPamFactory(Kiv::Name name);

  void doEnableIpv4();
  bool doEnableIpv6();
  void doRxControl(struct msghdr const& msg);

  Wirly::AddressFamily af_ = Wirly::ipv4;
  Wirly::NamespaceName netNs_;
  std::uint32_t options_ = 0;
  bool enabled_ = false;
  std::int32_t sd_ = -1;
  std::uint32_t maxRxPktData_ = defaultMaxRxPktData;
  std::uint32_t rxIfIndex_ = 0;
  Wirly::IpGenAddr rxDstIpAddr_;
  Wirly::IpGenAddr rxOrigDstIpAddr_;
  std::uint8_t rxTOS_ = 0;
  std::uint8_t rxTTL_ = 0;
  Wirly::IpGenAddr rxSrcIpAddr_;
  std::uint32_t rxFlags_ = 0;
  std::uint32_t rxPktCount_ = 0;
  std::uint32_t rxMrt6msgCount_ = 0;
  Kiv::Ptr<Wirly::FileDescriptor> fileDesc_;
  Kiv::Ptr<Wirly::PamFdSm> fdSm_;
};

Kiv::Ptr<MrtNotifySocketPam> mrtNotifySocketPamFactory(Kiv::Name name);

}  // namespace Routing::Multicast::Notify
