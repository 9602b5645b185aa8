// MrouteAgent::RouteEngine: turns the best MFIB routes of every VRF into the
// agent's route model (MrouteLib) and into kernel forwarding entries.
//
//   RouteEngine engine(config, mfibVornDir, appNameOf);   // one per agent, both families
//   engine.sinkIs([](std::string const& line) { std::cout << line << '\n'; });
//   engine.mfcIs(Wirly::ipv4, &v4);                       // KernelMfc, opened, VIFs added
//   engine.handleNoCache(Wirly::ipv4, src, grp, intf);    // an upcall: installs at once
//   engine.flush();                                       // route changes noted so far
//
// What it promises:
// - Per VRF, an OrderRouteSm keeps the best table of every key; every key
//   whose best route changed (a table came or went, a route was published)
//   is recomputed at the next flush(): its interfaces are walked
//   (RouteIntfIteratorConst, bit mapper tables included), its Mroute in the
//   VRF's MrouteTable gets the route, its incoming interface, a PortVlanSet
//   of its outgoing interfaces and the shared OifSet of that set.
// - Only the default VRF has a kernel table. An (S, G) route is installed as
//   soon as it is best. A (*, G) route is installed per source, when the
//   kernel reports a packet of (S, G) that has no entry; each such entry
//   remembers its (*, G), so a change of the (*, G) reprograms exactly those
//   entries and its withdrawal removes them. A report for which no route
//   exists installs a drop entry (no outgoing VIF) so the kernel stops
//   asking; a route that appears later replaces it, and one whose flow
//   stopped goes after a while (expireDrops). Reports and recovered flows
//   without a route are first put to the UpcallBudget: one it refuses is
//   counted there and costs nothing more (no line, no entry). A flow that
//   has a route, or already an entry, never meets the budget.
// - A refusal of the kernel is recorded as the route's failure reason
//   (ENOBUFS/ENOMEM/ENOSPC: the table is full) and retried on
//   retryFailed(). Routes of other VRFs, or of a family without a kernel
//   table, stay in the model with the reason "VRF status not initialized"
//   and are counted in notProgrammed().
// - An interface going down or up marks the routes that use it in the
//   table's DirtyInfo (bucket bit = the interface's VIF in vlanPortFilter)
//   and reprograms only the kernel entries of those routes.
// - Each event is one line to the sink, in the forms the agent prints.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "KernelMfc.h"
#include "Mfib/MfibVorn.h"
#include "MrouteLib/MrouteLib.h"
#include "Schema/KernelMfibStatus.h"
#include "SgIndex.h"
#include "UpcallBudget.h"

namespace MrouteAgent {

// Bits of a host address of the family (32 or 128).
unsigned hostLen(Wirly::AddressFamily af);
// A route key's half as the agent prints it: "*" for any source, else the
// address, with "/len" when it is not a host.
std::string prefixText(Wirly::IpGenPrefix const& p, bool star);

using Routing::Multicast::Fib::IpGenRouteKey;
using Vorn::Multicast::Fib::MfibVornColl;
using Vorn::Multicast::Fib::MfibVornDir;
using Vorn::Multicast::Fib::RouteOrderedCollection;
using Vorn::Multicast::Fib::Status;

// A configured interface: the agent's id, the Linux interface it stands for,
// and the VIF/MIF number the agent gives it (the same for both families).
struct IntfConfig {
  Wirly::IntfId id;
  std::string linuxName;
  int ifIndex = 0;
  std::uint16_t vif = 0;
};

// The agent's state of one route of one VRF, beside its Mroute.
struct RouteState {
  Kiv::Ptr<MrouteLib::Mroute> mroute;
  std::string app;
  unsigned priority = 0;
  Wirly::IntfId iif;
  std::vector<Wirly::IntfId> oifs;
  bool mappingMissing = false;
  MrouteLib::MrouteFailureReason failure;
  std::uint64_t sinceNs = 0;    // monotonic: when the key got a best route
  std::uint64_t changedNs = 0;  // and when its owner or interfaces last changed
};

class RouteEngine {
 public:
  using Sink = std::function<void(std::string const&)>;
  using AppNameOf = std::function<std::string(L3::VrfName const&, Status const&)>;
  using Clock = std::function<std::uint64_t()>;  // monotonic nanoseconds
  // Called once per installed entry that an upcall or recovery asked for.
  using FlowLog = std::function<void(Wirly::AddressFamily, SgKey const&, KernelEntry const&)>;

  static constexpr char const* kernelVrf = "default";
  // A no-cache report this soon after its entry was written was queued before it.
  static constexpr std::uint64_t staleUpcallNs = 2000000000ull;
  // A drop entry whose flow stopped this long ago goes (expireDrops).
  static constexpr std::uint64_t dropIdleNs = 60'000'000'000ull;
  // A flush that visits this many routes gives the memory it freed back.
  static constexpr std::size_t trimAfterRoutes = 10000;

  RouteEngine(std::vector<IntfConfig> intfs, Kiv::Ptr<MfibVornDir> const& vornDir, AppNameOf appNameOf);
  ~RouteEngine();
  RouteEngine(RouteEngine const&) = delete;
  RouteEngine& operator=(RouteEngine const&) = delete;

  void sinkIs(Sink s) { sink_ = std::move(s); }
  void clockIs(Clock c) { clock_ = std::move(c); }
  void flowLogIs(FlowLog f) { flowLog_ = std::move(f); }
  // The engine's clock (monotonic nanoseconds), which stamps routes and entries.
  std::uint64_t nowNs() const { return now(); }
  // Called when a flush() is wanted (route changes are pending).
  void flushRequestIs(std::function<void()> f) { flushRequest_ = std::move(f); }
  // The kernel table of a family; null: that family is not programmed.
  void mfcIs(Wirly::AddressFamily af, KernelMfc* mfc);
  KernelMfc* mfc(Wirly::AddressFamily af) const { return mfc_[idx(af)]; }

  // VIF/MIF index <-> interface, for the upcall parsers.
  Kiv::Ptr<Routing::KernelMfib::Status> const& kernelStatus(Wirly::AddressFamily af) const {
    return kernelStatus_[idx(af)];
  }
  Kiv::Ptr<MrouteLib::MrouteTableColl> const& mrouteTableColl(Wirly::AddressFamily af) const { return coll_[idx(af)]; }
  std::vector<IntfConfig> const& intfs() const { return intfs_; }

  // Recomputes every key noted since the last flush.
  void flush();
  bool flushPending() const { return pendingCount_ != 0; }

  // Upcalls. intf is where the packet arrived (empty when not known).
  void handleNoCache(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                     Wirly::IntfId intf);
  // An (S, G) found in the kernel's unresolved list: as a no-cache upcall
  // whose report was lost. Returns whether it was new to the agent.
  bool handleRecovered(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group);
  void handleWrongVif(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                      Wirly::IntfId intf);
  void handleWholePkt(Wirly::AddressFamily af, Wirly::IpGenAddr const& source, Wirly::IpGenAddr const& group,
                      Wirly::IntfId intf);

  // An interface's operational state; returns the entries reprogrammed.
  std::size_t handleLink(Wirly::IntfId intf, bool up);
  bool linkUp(Wirly::IntfId intf) const { return !down_.count(intf); }

  // Removes the drop entries whose packet count has not moved for idleNs,
  // so that a flood of unrouted groups does not fill the kernel for good; a
  // flow that comes back asks again. Returns how many went.
  std::size_t expireDrops(std::uint64_t idleNs);

  // Writes again every entry the kernel refused; returns how many remain refused.
  std::size_t retryFailed();
  std::size_t failedEntries() const;
  // Writes the kernel refused so far: while it stands still there is nothing to retry.
  std::uint64_t writeRefusals() const { return writeRefusals_; }

  // What show lists: routes by VRF name, kernel entries by family.
  std::map<std::string, std::map<IpGenRouteKey, RouteState>> const& routes() const { return routes_; }
  SgIndex const& entries(Wirly::AddressFamily af) const { return entries_[idx(af)]; }
  // The kernel entries that route key of the default VRF made, ordered by
  // source: its one entry for an (S, G) route, the entries of its group's
  // flows for a (*, G) route.
  std::vector<std::pair<SgKey, KernelEntry const*>> entriesOf(IpGenRouteKey const& key) const;
  // The drop entries of a family, ordered by group and source.
  std::vector<std::pair<SgKey, KernelEntry const*>> dropEntries(Wirly::AddressFamily af) const;
  std::uint64_t notProgrammed() const { return notProgrammed_; }
  std::uint64_t upcalls() const { return upcalls_; }
  // Reports and recovered flows without a route that the budget refused.
  std::uint64_t refusedUnrouted() const { return budget_->refusals(); }
  // No-cache reports of flows that have a route: the ones whose loss would
  // cost traffic.
  std::uint64_t routedUpcalls() const { return routedUpcalls_; }
  Kiv::Ptr<UpcallBudget> const& budget() const { return budget_; }
  std::uint64_t recoveredFlows() const { return recovered_; }

  static std::string keyText(IpGenRouteKey const& k);
  static std::string sgText(SgKey const& k);
  static bool isStarG(IpGenRouteKey const& k);

 private:
  struct Vrf;
  class VornDirWatch;
  class CollWatch;
  class TableWatch;
  class OrderedWatch;

  static std::size_t idx(Wirly::AddressFamily af) { return af == Wirly::ipv6 ? 1 : 0; }
  void emit(std::string const& line) const {
    if (sink_) sink_(line);
  }
  std::uint64_t now() const;
  void doNote(Vrf& vrf, IpGenRouteKey const& key);
  void handleVrf(L3::VrfName const& name);
  void handleTable(Vrf& vrf, Status const* key);
  void doRoute(Vrf& vrf, IpGenRouteKey const& key);
  // Reads the best route of key and its interfaces; false when there is none.
  bool doReadRoute(Vrf& vrf, IpGenRouteKey const& key, RouteState& out) const;
  void doModel(Vrf& vrf, IpGenRouteKey const& key, RouteState& st);
  // Brings the kernel entries that follow from a changed route in line.
  void doKernelFor(IpGenRouteKey const& key);
  // Decides and writes the kernel entry of (S, G); create: make one when
  // there is none (an upcall asked).
  // Returns whether the kernel was written (or the entry removed).
  bool doProgram(Wirly::AddressFamily af, SgKey const& sg, bool create, std::uint16_t askedVif = 0);
  // route: the entry's route when the caller has it at hand.
  bool doWrite(Wirly::AddressFamily af, SgKey const& sg, KernelEntry& e, RouteState* route = nullptr);
  // Whether a flow the kernel asks about gets any work: always when it has
  // an entry or a route, else as the budget says.
  // *routed (when given) says whether it has a route.
  bool doAdmit(Wirly::AddressFamily af, SgKey const& sg, std::uint16_t vif, bool* routed = nullptr);
  // Keeps the budget's count of drop entries as an entry comes, goes or
  // changes origin.
  void doDropCount(bool wasDrop, bool isDrop);
  void doErase(Wirly::AddressFamily af, SgKey const& sg);
  RouteState* kernelRoute(IpGenRouteKey const& key);
  // The default VRF's route that forwards (S, G): exact, else (*, G).
  // *st (when given) is its state.
  std::optional<IpGenRouteKey> routeFor(Wirly::AddressFamily af, SgKey const& sg, RouteState** st);
  VifMask vifsOf(Wirly::AddressFamily af, RouteState const& st, std::uint16_t iif) const;
  std::uint32_t filterOf(Wirly::AddressFamily af, RouteState const& st) const;
  std::string intfText(Wirly::IntfId id) const { return id.empty() ? std::string("-") : id.name(); }
  std::string vifText(Wirly::AddressFamily af, std::uint16_t vif) const;

  std::vector<IntfConfig> intfs_;
  Kiv::Ptr<MfibVornDir> vornDir_;
  AppNameOf appNameOf_;
  Sink sink_;
  Clock clock_;
  FlowLog flowLog_;
  std::function<void()> flushRequest_;
  KernelMfc* mfc_[2] = {nullptr, nullptr};
  Kiv::Ptr<Routing::KernelMfib::Status> kernelStatus_[2];
  Kiv::Ptr<MrouteLib::MrouteTableColl> coll_[2];
  std::unique_ptr<VornDirWatch> vornDirWatch_;
  std::map<std::string, std::unique_ptr<Vrf>> vrfs_;
  std::vector<std::unique_ptr<Vrf>> retired_;
  // Keys noted since the last flush, per VRF name (a VRF that went keeps
  // its name here until its routes are withdrawn); a key may be noted more
  // than once: flush() visits each once.
  std::map<std::string, std::vector<IpGenRouteKey>> pending_;
  std::size_t pendingCount_ = 0;
  std::map<std::string, std::map<IpGenRouteKey, RouteState>> routes_;
  SgIndex entries_[2];
  // Entries whose last write the kernel refused: what retryFailed() visits.
  std::unordered_set<SgKey, SgKeyHash> failed_[2];
  std::set<Wirly::IntfId> down_;
  std::uint64_t notProgrammed_ = 0;
  std::uint64_t upcalls_ = 0;
  std::uint64_t recovered_ = 0;
  std::uint64_t routedUpcalls_ = 0;
  std::uint64_t writeRefusals_ = 0;
  Kiv::Ptr<UpcallBudget> budget_ = UpcallBudget::upcallBudgetIs("upcallBudget");
  bool atDropEntryMax_ = false;
};

}  // namespace MrouteAgent
