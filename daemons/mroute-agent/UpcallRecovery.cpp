#include "UpcallRecovery.h"

#include <algorithm>

#include "AgentTrace.h"
#include "Kiv/System.h"

namespace MrouteAgent {

UpcallRecovery::~UpcallRecovery() {
  if (timer_) loop_->timerDel(timer_);
}

double UpcallRecovery::now() const { return clock_ ? clock_() : Kiv::System::currentTime(); }

void UpcallRecovery::doArm(double delay) {
  timer_ = loop_->timerIs(std::max(0.0, delay), [this] {
    timer_ = 0;
    handleTimer();
  });
}

void UpcallRecovery::handleLoss(Wirly::AddressFamily af) {
  ++lossSignals_;
  KIV_TRACE(agentTrace(), 3, (af == Wirly::ipv4 ? "IPv4" : "IPv6") << " upcall reports lost: scan due");
  if (!family_[idx(af)]) return;
  lost_[idx(af)] = true;
  if (timer_) return;
  settleStart_ = now();
  doArm(settings_.settleS);
}

void UpcallRecovery::handleTimer() {
  double const t = now();
  // Reports still queued are not lost; the queue that overran tells of
  // further losses again only once it has been read empty.
  if (pending_ && t - settleStart_ < settings_.maxSettleS && pending_()) {
    doArm(settings_.settleS);
    return;
  }
  double wait = 0;
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6})
    if (lost_[idx(af)]) wait = std::max(wait, lastScan_[idx(af)] + settings_.minScanGapS - t);
  if (wait > 0) {
    // Too soon after the last scan: one scan later covers every loss until then.
    doArm(wait);
    settleStart_ = t + wait;
    return;
  }
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    if (!lost_[idx(af)]) continue;
    lost_[idx(af)] = false;
    doScanFamily(af);
  }
}

void UpcallRecovery::doScan() {
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6})
    if (family_[idx(af)]) {
      lost_[idx(af)] = false;
      doScanFamily(af);
    }
  if (timer_) {
    loop_->timerDel(timer_);
    timer_ = 0;
  }
}

void UpcallRecovery::doScanFamily(Wirly::AddressFamily af) {
  ++scans_;
  lastScan_[idx(af)] = now();
  std::vector<UnresolvedScan::Flow> const flows = scan_.scan(af);
  flowsFound_ += flows.size();
  KIV_TRACE(agentTrace(), 3,
            (af == Wirly::ipv4 ? "IPv4" : "IPv6") << " unresolved scan: " << flows.size() << " flows held");
  for (UnresolvedScan::Flow const& f : flows) found_(af, f.source, f.group);
}

}  // namespace MrouteAgent
