// MrouteAgent::UpcallBudget: how much work the agent gives to no-cache
// reports of flows that no route covers. Any local user can make such
// reports by sending to many unrouted groups; each would cost the agent a
// kernel drop entry. The budget bounds that work per incoming interface and
// in total (token buckets), and caps the drop entries held at once, so that
// a flood costs a counter increment per report and a routed flow never
// waits behind it.
//
//   UpcallBudget::Settings s;                       // the defaults below
//   s.perIntf = {500, 1000};                        // per second, burst
//   auto budget = UpcallBudget::upcallBudgetIs("upcallBudget", s);
//   if (budget->doAdmit(vif, nowNs) == UpcallBudget::admitted) ... install a drop entry
//
// What it promises:
// - doAdmit() is only for flows without a route: the engine never asks it
//   about a routed flow, so the budget can never refuse one.
// - A report is admitted when its interface's bucket (VIF 0: unknown
//   interface, e.g. a flow found in the kernel's unresolved list) and the
//   total bucket both hold a token, and fewer than dropEntryMax drop
//   entries are held; it then takes one token from each. Buckets start
//   full and refill at their rate, up to their burst, on the time given.
// - Every refusal is counted by reason (interface, total, drop-entry cap);
//   a refusal allocates nothing and formats nothing.
// - The counters and settings are reflective: kivctl reads them at
//   /upcallBudget of the running agent.
#pragma once

#include <array>
#include <cstdint>

#include "KernelMfc.h"
#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"

namespace MrouteAgent {

struct UpcallRate {
  double perSecond = 0;
  double burst = 0;
};

struct UpcallBudgetSettings {
  // A burst of flows is a normal start of traffic; sustained thousands of
  // new unrouted flows per second are not.
  UpcallRate perIntf{1000, 1000};
  UpcallRate total{2000, 2000};
  // About 4 s of the total rate: enough to quiet real unrouted senders,
  // small against the kernel's table and the drop-entry expiry walk.
  std::uint32_t dropEntryMax = 8192;
};

class UpcallBudget : public Kiv::Entity {
 public:
  using Rate = UpcallRate;
  using Settings = UpcallBudgetSettings;
  enum Verdict : std::uint8_t { admitted, overIntfBudget, overTotalBudget, overDropEntryMax };

  static Kiv::Ptr<UpcallBudget> upcallBudgetIs(Kiv::Name name, Settings const& s = Settings()) {
    return new UpcallBudget(std::move(name), s);
  }

  KIV_REFLECT_BEGIN(UpcallBudget, "MrouteAgent::UpcallBudget")

  Settings const& settings() const { return settings_; }
  // Refills every bucket to its new burst.
  void settingsIs(Settings const& s);
  double intfRate() const { return settings_.perIntf.perSecond; }
  KIV_REFLECT_SCALAR_RO(intfRate)
  double intfBurst() const { return settings_.perIntf.burst; }
  KIV_REFLECT_SCALAR_RO(intfBurst)
  double totalRate() const { return settings_.total.perSecond; }
  KIV_REFLECT_SCALAR_RO(totalRate)
  double totalBurst() const { return settings_.total.burst; }
  KIV_REFLECT_SCALAR_RO(totalBurst)
  std::uint32_t dropEntryMax() const { return settings_.dropEntryMax; }
  KIV_REFLECT_SCALAR_RO(dropEntryMax)

  // One report of an unrouted flow that arrived on vif (0: not known) at
  // nowNs (monotonic).
  Verdict doAdmit(std::uint16_t vif, std::uint64_t nowNs);

  // Drop entries held (the engine counts them as it writes and removes them).
  std::uint64_t dropEntries() const { return dropEntries_; }
  void dropEntriesInc() { ++dropEntries_; }
  void dropEntriesDec() { --dropEntries_; }
  KIV_REFLECT_COUNTER_RO(dropEntries)

  std::uint64_t admittedReports() const { return admitted_; }
  KIV_REFLECT_COUNTER_RO(admittedReports)
  std::uint64_t overIntfBudgetReports() const { return refused_[overIntfBudget]; }
  KIV_REFLECT_COUNTER_RO(overIntfBudgetReports)
  std::uint64_t overTotalBudgetReports() const { return refused_[overTotalBudget]; }
  KIV_REFLECT_COUNTER_RO(overTotalBudgetReports)
  std::uint64_t dropEntryMaxRefusals() const { return refused_[overDropEntryMax]; }
  KIV_REFLECT_COUNTER_RO(dropEntryMaxRefusals)
  KIV_REFLECT_END

  std::uint64_t refusals() const {
    return refused_[overIntfBudget] + refused_[overTotalBudget] + refused_[overDropEntryMax];
  }

 private:
  struct Bucket {
    double tokens = 0;
    std::uint64_t lastNs = 0;
    bool started = false;
  };
  UpcallBudget(Kiv::Name name, Settings const& s) : Kiv::Entity(std::move(name)) { settingsIs(s); }
  static void doRefill(Bucket& b, Rate const& r, std::uint64_t nowNs);

  Settings settings_;
  std::array<Bucket, KernelMfc::maxVifs> intf_{};
  Bucket total_;
  std::uint64_t dropEntries_ = 0;
  std::uint64_t admitted_ = 0;
  std::array<std::uint64_t, 4> refused_{};
};

}  // namespace MrouteAgent
