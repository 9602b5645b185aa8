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
// Protocol (Kiv/RequestServer.h): the client sends one line, "show text"
// or "show json"; the agent answers "ok <bytes>\n" and exactly that many
// bytes of the answer, or one line "error <why>\n", and closes. Only the
// agent's own user and root are served; a client that stops reading is
// dropped after Limits::stallTimeout, an answer past maxAnswerBytes is an
// error line, and clients past maxClients wait in the listen queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "Kiv/EventLoop.h"
#include "Kiv/FileDesc.h"
#include "Kiv/RequestServer.h"
#include "RouteEngine.h"

namespace MrouteAgent {

std::string showText(RouteEngine const& engine);
std::string showJson(RouteEngine const& engine);

// The client's side: reads one answer from fd (the request sent) to its
// end. The body goes to out only when it arrived whole; otherwise, and for
// an error answer, one line goes to err. Returns 0, or 1 for anything else.
int showAnswer(int fd, std::ostream& out, std::ostream& err);

// The show socket: Kiv::RequestServer answering "show text" and "show json".
class ShowServer {
 public:
  static constexpr double requestTimeout = Kiv::RequestServer::requestTimeout;
  using Limits = Kiv::RequestServer::Limits;

  // Binds path (replacing a socket nobody answers on). Throws what
  // Kiv::ServerSocket throws: SocketInUseException when a live process
  // serves path, UntrustedPathException for its directory.
  ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path, Limits limits);
  ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path)
      : ShowServer(loop, engine, std::move(path), Limits()) {}

  std::string const& path() const { return server_.path(); }
  // Clients connected now, and those dropped because they stopped reading.
  std::size_t clients() const { return server_.clients(); }
  std::uint64_t stalledClients() const { return server_.stalledClients(); }

 private:
  Kiv::RequestServer server_;
};

}  // namespace MrouteAgent
