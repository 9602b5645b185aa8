// MrouteAgent::UpcallRecovery: finds the flows whose no-cache reports the
// kernel lost, and only when the kernel says it lost some.
//
//   auto rec = UpcallRecovery::upcallRecoveryIs("upcallRecovery", &loop,
//       [&](Wirly::AddressFamily af, auto const& s, auto const& g) { engine.handleRecovered(af, s, g); });
//   rec->familyIs(Wirly::ipv4);
//   rec->pendingIs([&] { return reportsQueued(); });
//   rec->handleLoss(Wirly::ipv4);   // the report socket said ENOBUFS
//
// Why it works: a flow the kernel holds a first packet for keeps an
// unresolved entry (about 10 s) whether or not its report reached the agent,
// so the kernel's multicast table lists what was lost. Reading that list
// costs a dump of the whole table (the kernel cannot filter it to the
// unresolved entries), so it is read only after a loss:
// - handleLoss(af) is the kernel's signal: a report socket overran
//   (ENOBUFS). Nothing else starts a scan; with nothing lost the agent reads
//   only its reports, and an idle agent does nothing at all.
// - The scan waits until the report queues are read empty (pending() says
//   false), at most settings().maxSettleS: a netlink socket that overran
//   reports ENOBUFS once and then drops in silence until its queue empties,
//   so only a scan after that point sees every flow lost; reports still
//   queued are not lost and cost nothing to read.
// - Signals that come while a scan waits are one scan; scans of a family are
//   at least settings().minScanGapS apart, so a sustained overrun costs at
//   most one dump per gap however many signals it gives.
// - doScan() reads every family now (at start-up: flows the kernel held
//   before the agent could hear of them).
// The counters are reflective: kivctl reads them at /upcallRecovery.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "Kiv/Entity.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Reflect.h"
#include "UnresolvedScan.h"
#include "Wirly/AddressFamily.h"
#include "Wirly/IpGenAddr.h"

namespace MrouteAgent {

struct UpcallRecoverySettings {
  double settleS = 0.01;     // between two looks at the report queues
  double maxSettleS = 2.0;   // scan even if the queues never empty
  double minScanGapS = 1.0;  // between two scans of one family
};

class UpcallRecovery : public Kiv::Entity {
 public:
  using Settings = UpcallRecoverySettings;
  using Found = std::function<void(Wirly::AddressFamily, Wirly::IpGenAddr const&, Wirly::IpGenAddr const&)>;
  // Whether reports are still queued for the agent to read.
  using Pending = std::function<bool()>;
  using Clock = std::function<double()>;  // seconds

  static Kiv::Ptr<UpcallRecovery> upcallRecoveryIs(Kiv::Name name, Kiv::EventLoop* loop, Found found) {
    return new UpcallRecovery(std::move(name), loop, std::move(found));
  }
  ~UpcallRecovery() override;

  KIV_REFLECT_BEGIN(UpcallRecovery, "MrouteAgent::UpcallRecovery")

  void settingsIs(Settings const& s) { settings_ = s; }
  Settings const& settings() const { return settings_; }
  void pendingIs(Pending p) { pending_ = std::move(p); }
  void clockIs(Clock c) { clock_ = std::move(c); }
  // A family whose table doScan() reads.
  void familyIs(Wirly::AddressFamily af) { family_[idx(af)] = true; }

  // The kernel lost reports of af.
  void handleLoss(Wirly::AddressFamily af);
  // First packets the kernel could not queue on a routing socket (its drop
  // count). The kernel dropped each flow's unresolved entry with it, so
  // there is nothing to find: the flow's next packet asks again. Counted.
  void routingSocketDropsInc(std::uint64_t n) { routingSocketDrops_ += n; }
  // Reads every family's table now.
  void doScan();
  bool scanDue() const { return timer_ != 0; }

  // Loss signals seen, scans made (one per family read), flows found.
  std::uint64_t lossSignals() const { return lossSignals_; }
  KIV_REFLECT_COUNTER_RO(lossSignals)
  std::uint64_t scans() const { return scans_; }
  KIV_REFLECT_COUNTER_RO(scans)
  std::uint64_t scanFailures() const { return scan_.failures(); }
  KIV_REFLECT_COUNTER_RO(scanFailures)
  std::uint64_t flowsFound() const { return flowsFound_; }
  KIV_REFLECT_COUNTER_RO(flowsFound)
  std::uint64_t routingSocketDrops() const { return routingSocketDrops_; }
  KIV_REFLECT_COUNTER_RO(routingSocketDrops)
  KIV_REFLECT_END

 private:
  UpcallRecovery(Kiv::Name name, Kiv::EventLoop* loop, Found found)
      : Kiv::Entity(std::move(name)), loop_(loop), found_(std::move(found)) {}
  static std::size_t idx(Wirly::AddressFamily af) { return af == Wirly::ipv6 ? 1 : 0; }
  double now() const;
  void doArm(double delay);
  void handleTimer();
  void doScanFamily(Wirly::AddressFamily af);

  Kiv::EventLoop* loop_;
  Found found_;
  Pending pending_;
  Clock clock_;
  Settings settings_;
  UnresolvedScan scan_;
  Kiv::EventLoop::TimerId timer_ = 0;
  std::array<bool, 2> family_{};
  std::array<bool, 2> lost_{};
  std::array<double, 2> lastScan_{-1e18, -1e18};
  double settleStart_ = 0;
  std::uint64_t lossSignals_ = 0;
  std::uint64_t scans_ = 0;
  std::uint64_t flowsFound_ = 0;
  std::uint64_t routingSocketDrops_ = 0;
};

}  // namespace MrouteAgent
