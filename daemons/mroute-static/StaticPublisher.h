// StaticPublisher: publishes one application's static routes as MFIB
// tables, one per VRF, announced in the MFIB directory under the entity
// manager's root, and keeps them equal to the route file with as few
// writes as it can.
//
//   auto em = Stelo::EntityManager::entityManagerIs();      // $VORN_ROOT
//   MrouteStatic::StaticPublisher pub("static", em);
//   auto change = pub.apply(parseRoutes(file, "routes").routes);
//   std::cout << pub.summary(change) << "\n";   // static static: 3 routes (+3 -0 ~0)
//   ...
//   pub.withdraw();                              // the tables go
//
// What it promises:
// - apply() writes only what differs from what is published: a new route,
//   or one whose incoming interface, outgoing interfaces or priority
//   changed, is published (its version moves on); an unchanged route is
//   not touched; a route no longer given is deleted. A VRF is announced
//   with its first route and withdrawn with its last, except the default
//   VRF, whose table stays announced, empty, until withdraw().
// - Each table numbers its outgoing interfaces in its oifIndexIntf table;
//   a mapping is written before the first route that uses it and removed
//   after the last route that used it is gone, so a reader never meets an
//   index it cannot resolve.
// - A publisher for an application whose earlier run left tables (it was
//   killed, or ran with --once) takes them over: the first apply() brings
//   them to the file and counts against what they held.
// - What cannot be published (a full table, a VRF without room for another
//   interface) is left out, counted by reason in the Change, said in
//   problems(), and tried again on the next apply().
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Kiv/Dir.h"
#include "Kiv/Ptr.h"
#include "Mfib/MfibVorn.h"
#include "RouteFile.h"
#include "Stelo/EntityManager.h"

namespace MrouteStatic {

class StaticPublisher {
 public:
  struct Change {
    std::size_t routes = 0;  // published afterwards
    std::size_t added = 0;
    std::size_t removed = 0;
    std::size_t changed = 0;
    // Routes given but left out, by reason.
    std::size_t malformed = 0;   // lines the route file refused (counted by the caller)
    std::size_t tableFull = 0;   // the VRF's table had no room
    std::size_t noOifIndex = 0;  // the VRF had no index left for an outgoing interface
    std::size_t noTable = 0;     // the VRF's table could not be made
    std::size_t otherwise = 0;   // the table refused the route for another reason
    std::size_t refused() const { return malformed + tableFull + noOifIndex + noTable + otherwise; }
  };

  // Kiv::Exception when the application cannot publish in the MFIB
  // directory (another running process publishes under the same name, the
  // root cannot be written).
  StaticPublisher(std::string const& app, Kiv::Ptr<Stelo::EntityManager> const& em);
  // Leaves what is published in place; withdraw() takes it back.
  ~StaticPublisher();
  StaticPublisher(StaticPublisher const&) = delete;
  StaticPublisher& operator=(StaticPublisher const&) = delete;

  Change apply(RouteMap const& routes);
  // Withdraws every table and the application's directory entry.
  void withdraw();

  std::string const& app() const { return app_; }
  RouteMap const& published() const { return published_; }
  // What the last apply() could not publish, one line each, and the same
  // by route: "table full", "no interface index left", "no VRF table" or
  // "not published: <why>".
  std::vector<std::string> const& problems() const { return problems_; }
  std::map<RouteId, std::string> const& refused() const { return refused_; }
  // "static <app>: <n> routes (+<added> -<removed> ~<changed>)", followed,
  // when routes were left out, by "; <k> refused: <m> malformed, <t> table
  // full, ..." naming each reason that counted.
  std::string summary(Change const& c) const;
  // Where a VRF's table lives: mfib/<vrf>/<app>.
  std::string tableUrl(L3::VrfName const& vrf) const;

 private:
  using Table = Vorn::Multicast::Fib::Status;
  using OifIndex = Vorn::Multicast::Fib::OifIndex;
  struct Vrf {
    std::string url;
    Kiv::Ptr<Table> table;
    std::map<Wirly::IntfId, OifIndex> oifIndex;
  };

  void doAdopt();
  Vrf* doAddVrf(L3::VrfName const& vrf);
  bool doMapOifs(L3::VrfName const& vrfName, Vrf& vrf, StaticRoute const& r);
  void doUnmapUnused(L3::VrfName const& vrfName, Vrf& vrf);
  Vorn::Multicast::Fib::Route routeOf(IpGenRouteKey const& key, StaticRoute const& r, Vrf const& vrf) const;

  std::string const app_;
  Kiv::Ptr<Stelo::EntityManager> em_;
  Kiv::Ptr<Kiv::Dir> dir_;
  Kiv::Ptr<Vorn::Multicast::Fib::MfibVornDir> vornDir_;
  Kiv::Ptr<Vorn::Multicast::Fib::MfibDirWriter> writer_;
  std::map<L3::VrfName, Vrf> vrfs_;
  RouteMap published_;
  std::vector<std::string> problems_;
  std::map<RouteId, std::string> refused_;
};

}  // namespace MrouteStatic
