// Routing::Multicast::Notify::MrtIcmpV6RelaySm: on kernels without native
// IPv6 netlink cache reports ("MCAST_NO_NETLINK" set), reads the IPv6
// upcalls from the agent's own multicast routing socket and re-sends each
// as a netlink cache report on the user-socket relay group, so that every
// other agent receives them through its MrtNotifyNetlinkSocketPam.
//
//   auto relay = mrtIcmpV6RelaySmFactory("relay", netNs, kernelMfibStatus);
//   relay->mrtSkSdIs(mrt6Socket);  // the agent's socket, after MRT6_INIT
//   relay->mrtSkSdIs(0);           // stop relaying; the socket stays open
//
// Promises:
// - The relay never closes mrtSkSd; the agent owns it. Setting it again,
//   even to the same value, rebuilds the reader.
// - Each review is bounded by loopQuantum as in MrtNotifySm.
// - An upcall is relayed with the MIF the kernel status gives its
//   interface, 0 when the MIF is unknown (its interface is then empty).
// - With "MCAST_NO_NETLINK" unset both sockets decline to start (they trace
//   why) and nothing is relayed.
// mrt6msg as read (bytes): 0 im6_mbz, 1 im6_msgtype, 2-3 im6_mif (host
// order), 8-23 im6_src, 24-39 im6_dst. Shorter datagrams are dropped.
#pragma once

#include <cstdint>
#include <string>

#include "MrtNotify/MrtNotifyNetlinkSocket.h"
#include "MrtNotify/MrtNotifyPam.h"

namespace Routing::Multicast::Notify {

class MrtIcmpV6RelaySm;
Kiv::Ptr<MrtIcmpV6RelaySm> mrtIcmpV6RelaySmFactory(std::string const& name, Wirly::NamespaceName const& netNs,
                                                   Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus);

class MrtIcmpV6RelaySm : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<MrtIcmpV6RelaySm>;
  static constexpr std::size_t mrt6msgBytes = 40;

  KIV_REFLECT_BEGIN(MrtIcmpV6RelaySm, "Routing::Multicast::Notify::MrtIcmpV6RelaySm")

  // The relay's name (the entity's name).
  Kiv::Name const& name() const { return Kiv::Entity::name(); }
  KIV_REFLECT_SCALAR_RO(name)
  Wirly::NamespaceName const& netNs() const { return netNs_; }
  KIV_REFLECT_SCALAR_RO(netNs)
  Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus() const { return vifStatus_; }
  KIV_REFLECT_SCALAR_RO(vifStatus)
  double loopQuantum() const { return loopQuantum_; }
  void loopQuantumIs(double seconds) { loopQuantum_ = seconds < 0 ? 0 : seconds; }
  KIV_REFLECT_SCALAR(loopQuantum)

  std::int32_t mrtSkSd() const { return mrtSkSd_; }
  // Always runs handleMrtSocket, also for the value already held.
  void mrtSkSdIs(std::int32_t sd);
  KIV_REFLECT_SCALAR(mrtSkSd)

  Kiv::Ptr<WrongVifMessage> const& wrongIfMessage() const { return wrongIfMessage_; }
  KIV_REFLECT_SCALAR_RO(wrongIfMessage)
  Kiv::Ptr<NoCacheMessage> const& noCacheMessage() const { return noCacheMessage_; }
  KIV_REFLECT_SCALAR_RO(noCacheMessage)
  Kiv::Ptr<WholePktMessage> const& wholePktMessage() const { return wholePktMessage_; }
  KIV_REFLECT_SCALAR_RO(wholePktMessage)
  Kiv::Ptr<MrtNotifySocketPam> const& icmpV6Pam() const { return icmpV6Pam_; }
  KIV_REFLECT_SCALAR_RO(icmpV6Pam)
  Kiv::Ptr<MrtNotifyNetlinkSocketPam> const& netlinkPam() const { return netlinkPam_; }
  KIV_REFLECT_SCALAR_RO(netlinkPam)

  // One review; returns the number of datagrams read.
  std::uint32_t rxPkt();
  KIV_REFLECT_OPERATION(rxPkt)
  // Parses one mrt6msg and relays it; returns the kind (none when dropped).
  // Listed by name; a packet has no text form.
  Wirly::MrtMessageType readMrtMessage(Kiv::Ptr<Wirly::Pkt> const& pkt);
  KIV_REFLECT_OPERATION(readMrtMessage)
  void handleMrtSocket();
  KIV_REFLECT_OPERATION(handleMrtSocket)
  KIV_REFLECT_END

  void kivDoZombieReactors(bool zombie) override { kivIcmpV6Pam_.kivDoZombieReactors(zombie); }
  void hasNotificationActiveIs(bool active) override { kivIcmpV6Pam_.hasNotificationActiveIs(active); }

  class KivIcmpV6Pam : public Wirly::Pam::NotifieeConst {
   public:
    explicit KivIcmpV6Pam(MrtIcmpV6RelaySm* owner) : owner_(owner) {}
    void onReadableCount() override { owner_->rxPkt(); }

   private:
    MrtIcmpV6RelaySm* owner_;
  };

 private:
  friend Kiv::Ptr<MrtIcmpV6RelaySm> mrtIcmpV6RelaySmFactory(
      std::string const& name, Wirly::NamespaceName const& netNs,
      Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus);
  MrtIcmpV6RelaySm(std::string const& name, Wirly::NamespaceName const& netNs,
                   Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus);
  ~MrtIcmpV6RelaySm() override;

  Wirly::NamespaceName const netNs_;
  Kiv::PtrConst<Routing::KernelMfib::Status> const vifStatus_;
  double loopQuantum_ = 0.5;
  std::int32_t mrtSkSd_ = 0;
  Kiv::Ptr<WrongVifMessage> wrongIfMessage_;
  Kiv::Ptr<NoCacheMessage> noCacheMessage_;
  Kiv::Ptr<WholePktMessage> wholePktMessage_;
  Kiv::Ptr<MrtNotifySocketPam> icmpV6Pam_;
  Kiv::Ptr<MrtNotifyNetlinkSocketPam> netlinkPam_;
  KivIcmpV6Pam kivIcmpV6Pam_;
};

inline Kiv::Ptr<MrtIcmpV6RelaySm> MrtIcmpV6RelaySmIs(std::string const& name, Wirly::NamespaceName const& netNs,
                                                     Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus) {
  return mrtIcmpV6RelaySmFactory(name, netNs, vifStatus);
}

}  // namespace Routing::Multicast::Notify
