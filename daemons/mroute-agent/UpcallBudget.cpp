#include "UpcallBudget.h"

#include <algorithm>

namespace MrouteAgent {

void UpcallBudget::settingsIs(Settings const& s) {
  settings_ = s;
  for (Bucket& b : intf_) b = Bucket();
  total_ = Bucket();
}

void UpcallBudget::doRefill(Bucket& b, Rate const& r, std::uint64_t nowNs) {
  if (!b.started) {
    b.started = true;
    b.tokens = r.burst;
    b.lastNs = nowNs;
    return;
  }
  // A clock that stands still or went back refills nothing.
  if (nowNs <= b.lastNs) return;
  b.tokens = std::min(r.burst, b.tokens + double(nowNs - b.lastNs) * 1e-9 * r.perSecond);
  b.lastNs = nowNs;
}

UpcallBudget::Verdict UpcallBudget::doAdmit(std::uint16_t vif, std::uint64_t nowNs) {
  Bucket& in = intf_[vif < intf_.size() ? vif : 0];
  doRefill(in, settings_.perIntf, nowNs);
  doRefill(total_, settings_.total, nowNs);
  Verdict v = admitted;
  if (in.tokens < 1)
    v = overIntfBudget;
  else if (total_.tokens < 1)
    v = overTotalBudget;
  else if (dropEntries_ >= settings_.dropEntryMax)
    v = overDropEntryMax;
  if (v != admitted) {
    ++refused_[v];
    return v;
  }
  in.tokens -= 1;
  total_.tokens -= 1;
  ++admitted_;
  return admitted;
}

}  // namespace MrouteAgent
