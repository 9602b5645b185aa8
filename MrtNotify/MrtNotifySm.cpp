#include "MrtNotify/MrtNotifySm.h"

namespace Routing::Multicast::Notify {

namespace {
char const* const className = "Routing::Multicast::Notify::MrtNotifySm";

Kiv::TraceHandle& trace() {
  static Kiv::TraceHandle th("Mroute::MrtPam");
  return th;
}
}  // namespace

Kiv::Ptr<MrtNotifySm> mrtNotifySmFactory(Kiv::Ptr<MrtNotifyPamManager> const& pamManager,
                                         Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus) {
  return new MrtNotifySm(pamManager, vifStatus);
}

MrtNotifySm::MrtNotifySm(Kiv::Ptr<MrtNotifyPamManager> const& pamManager,
                         Kiv::PtrConst<Routing::KernelMfib::Status> const& vifStatus)
    : Kiv::Entity("MrtNotifySm"),
      pamManager_(pamManager),
      vifStatus_(vifStatus),
      kivPamManager_(this, pamManager),
      kivPamIn_(this) {
  doAttachPam();
}

MrtNotifySm::~MrtNotifySm() {
  kivPamIn_.notifierIs(nullptr);
  kivPamManager_.notifierIs(nullptr);
}

void MrtNotifySm::kivDoZombieReactors(bool zombie) {
  kivPamManager_.kivDoZombieReactors(zombie);
  kivPamIn_.kivDoZombieReactors(zombie);
}

void MrtNotifySm::hasNotificationActiveIs(bool active) {
  kivPamManager_.hasNotificationActiveIs(active);
  kivPamIn_.hasNotificationActiveIs(active);
}

void MrtNotifySm::doAttachPam() {
  Kiv::Ptr<Wirly::Pam> pam = pamManager_ ? Kiv::Ptr<Wirly::Pam>(pamManager_->pam()) : nullptr;
  if (kivPamIn_.notifier() == pam) return;
  kivPamIn_.notifierIs(pam);
  // Whatever an enabled new socket already holds is reviewed now, not at
  // its next datagram; a disabled one has nothing to read yet.
  if (pam && pamManager_->pam()->enabled()) rxPkt();
}

void MrtNotifySm::handleInitialized() {
  KIV_TRACE(trace(), 9, "void " << className << "::handleInitialized()");
  if (initialized_) return;
  if (pamManager_ && pamManager_->pam()) {
    KIV_TRACE(trace(), 9, "enabling MrtNotifyPam");
    auto const& pam = pamManager_->pam();
    // Enabled first, so that a netlink socket sizes its receive buffer from
    // the default maxRxPktData; the datagrams read later get the full size.
    pam->enabledIs(true);
    pam->maxRxPktDataIs(reviewMaxRxPktData);
  }
  initialized_ = true;
}

std::uint32_t MrtNotifySm::rxPkt() {
  KIV_TRACE(trace(), 9, "std::uint32_t " << className << "::rxPkt()");
  if (!pamManager_ || !pamManager_->pam()) return 0;
  // Held, so that a socket replaced by an observer of the counters lives
  // to the end of this review (it is disabled and yields no more).
  Kiv::Ptr<MrtNotifyPamManager> const manager = pamManager_;
  Kiv::Ptr<MrtNotifySocketPam> const pam = manager->pam();
  return boundedReview(*pam, loopQuantum_, trace(),
                       [&](Kiv::Ptr<Wirly::Pkt> const& pkt) { manager->readMrtMessage(pkt, vifStatus_); });
}

void MrtNotifySm::KivPamManager::onPam() { owner_->doAttachPam(); }

void MrtNotifySm::KivKiv_PamIn::onReadableCount() { owner_->rxPkt(); }

}  // namespace Routing::Multicast::Notify
