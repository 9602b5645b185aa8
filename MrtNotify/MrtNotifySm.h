// Routing::Multicast::Notify::MrtNotifySm: drains kernel upcalls into an
// MrtNotifyPamManager, one bounded review per readable notification.
//
//   auto sm = mrtNotifySmFactory(manager, kernelMfibStatus);
//   sm->loopQuantumIs(0.2);        // seconds; default 0.5
//   sm->handleInitialized();       // enables the manager's socket once
//
// Promises:
// - A review reads and parses datagrams until the socket has none, or until
//   loopQuantum has passed on the framework clock (Kiv::System); a burst
//   never holds the agent's thread much longer than the quantum plus one
//   datagram. What is left stays in the socket: the level-triggered event
//   loop announces it again and the next review goes on.
// - A review ends at the first read that yields no packet ("RX: Error - No
//   Packet", level 1). A datagram the socket itself dropped ends a review
//   the same way; the loop calls again while more is queued.
// - When the manager replaces its socket (useNetlink changed) the review
//   follows the new socket. Enabling happens once, in handleInitialized;
//   a socket replaced later is enabled by the user.
#pragma once

#include <cstdint>

#include "MrtNotify/MrtNotifyPam.h"

namespace Routing::Multicast::Notify {

class MrtNotifySm;
Kiv::Ptr<MrtNotifySm> mrtNotifySmFactory(Kiv::Ptr<MrtNotifyPamManager> const& pamManager,
                                         Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus);

class MrtNotifySm : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<MrtNotifySm>;
  static constexpr double defaultLoopQuantum = 0.5;
  static constexpr std::uint32_t reviewMaxRxPktData = 65535;

  KIV_REFLECT_BEGIN(MrtNotifySm, "Routing::Multicast::Notify::MrtNotifySm")

  Kiv::Ptr<MrtNotifyPamManager> const& pamManager() const { return pamManager_; }
  KIV_REFLECT_SCALAR_RO(pamManager)
  Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus() const { return vifStatus_; }
  KIV_REFLECT_SCALAR_RO(vifStatus)
  double loopQuantum() const { return loopQuantum_; }
  void loopQuantumIs(double seconds) { loopQuantum_ = seconds < 0 ? 0 : seconds; }
  KIV_REFLECT_SCALAR(loopQuantum)
  bool initialized() const { return initialized_; }
  KIV_REFLECT_SCALAR_RO(initialized)

  void handleInitialized();
  KIV_REFLECT_OPERATION(handleInitialized)
  // One review; returns the number of datagrams parsed.
  std::uint32_t rxPkt();
  KIV_REFLECT_OPERATION(rxPkt)
  KIV_REFLECT_END

  void kivDoZombieReactors(bool zombie) override;
  void hasNotificationActiveIs(bool active) override;

  // Watches the manager for a replaced socket.
  class KivPamManager : public MrtNotifyPamManager::NotifieeConst {
   public:
    KivPamManager(MrtNotifySm* owner, Kiv::Ptr<MrtNotifyPamManager> const& m)
        : MrtNotifyPamManager::NotifieeConst(m), owner_(owner) {}
    void onPam() override;

   private:
    MrtNotifySm* owner_;
  };
  // Watches the manager's current socket for readable data.
  class KivKiv_PamIn : public Wirly::Pam::NotifieeConst {
   public:
    explicit KivKiv_PamIn(MrtNotifySm* owner) : owner_(owner) {}
    void onReadableCount() override;

   private:
    MrtNotifySm* owner_;
  };

 private:
  friend Kiv::Ptr<MrtNotifySm> mrtNotifySmFactory(Kiv::Ptr<MrtNotifyPamManager> const& pamManager,
                                                  Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus);
  MrtNotifySm(Kiv::Ptr<MrtNotifyPamManager> const& pamManager,
              Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus);
  ~MrtNotifySm() override;
  void doAttachPam();

  Kiv::Ptr<MrtNotifyPamManager> pamManager_;
  Kiv::PtrConst<Routing::KernelMfib::Status> vifStatus_;
  double loopQuantum_ = defaultLoopQuantum;
  bool initialized_ = false;
  KivPamManager kivPamManager_;
  KivKiv_PamIn kivPamIn_;
};

inline Kiv::Ptr<MrtNotifySm> MrtNotifySmIs(Kiv::Ptr<MrtNotifyPamManager> const& pamManager,
                                           Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus) {
  return mrtNotifySmFactory(pamManager, vifStatus);
}

// The bounded review both upcall readers share: reads from `pam` until it
// has nothing or the clock reaches start + quantum, handing each packet to
// `parse`. Traces through `th` and records the review in the ring buffer.
template <class Parse>
std::uint32_t boundedReview(Wirly::Pam& pam, double quantum, Kiv::TraceHandle& th, Parse&& parse);

}  // namespace Routing::Multicast::Notify

#include "MrtNotify/detail/BoundedReview.h"
