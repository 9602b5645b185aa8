// What `mroute-agent show` prints, and the agent's socket that serves it.
//
//   ShowServer show(loop, engine, showSocketPath("mroute-agent"));
//   // $ mroute-agent show [--json]
//
// Per VRF and route: key, owner application and priority, incoming and
// outgoing interfaces, the shared OIF set (its content hash: routes with the
// same id share one replication list), kernel packet and byte counters
// (SIOCGETSGCNT, summed over the entries the route made), RPF failures and
// failure reasons; below a (*, G) route the (S, G) entries made from it;
// then the drop entries. --json: the same as one JSON document:
//
//   {"vrfs": [{"name": "default", "kernel": true, "routes": [
//      {"source": "*", "group": "239.1.1.1", "app": "static", "priority": 1,
//       "iif": "Ethernet1", "oifs": ["Ethernet2"], "oifSet": "8f3a12bc",
//       "packets": 3, "bytes": 87, "rpfFailures": 0, "failures": "",
//       "entries": [{"source": "10.1.0.2", "group": "239.1.1.1", "installed": true,
//                    "packets": 3, "bytes": 87, "learnedNs": ..., "installedNs": ...}]}]}],
//    "dropEntries": [...], "upcalls": n, "recovered": n, "notProgrammed": n, "refused": n,
//    "unrouted": {"admitted": n, "overIntfBudget": n, "overTotalBudget": n,
//                 "dropEntries": n, "dropEntryMax": n, "dropEntryMaxRefusals": n}}
//
// "unrouted" is the UpcallBudget: reports of flows without a route that the
// agent acted on, those refused by reason, and the drop entries held.
//
// Protocol: the client sends one line, "show text" or "show json", and
// reads until the agent closes. Only the agent's own user is served
// (SO_PEERCRED); a client that sends nothing is dropped after 2 seconds.
#pragma once

#include <map>
#include <string>

#include "Kiv/EventLoop.h"
#include "Kiv/FileDesc.h"
#include "RouteEngine.h"

namespace MrouteAgent {

std::string showText(RouteEngine const& engine);
std::string showJson(RouteEngine const& engine);

class ShowServer {
 public:
  static constexpr double requestTimeout = 2.0;

  // Binds path (replacing a stale socket). Throws Kiv::ErrnoException.
  ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path);
  ~ShowServer();
  ShowServer(ShowServer const&) = delete;
  ShowServer& operator=(ShowServer const&) = delete;

  std::string const& path() const { return path_; }

 private:
  struct Client {
    Kiv::FileDesc fd;
    std::string in;
    Kiv::EventLoop::TimerId timer = 0;
  };
  void doAccept();
  void doRead(int fd);
  void doDrop(int fd);

  Kiv::EventLoop& loop_;
  RouteEngine const& engine_;
  std::string path_;
  Kiv::FileDesc listen_;
  std::map<int, Client> clients_;
};

}  // namespace MrouteAgent
