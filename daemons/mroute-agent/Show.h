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
// Protocol: the client sends one line, "show text" or "show json"; the
// agent answers "ok <bytes>\n" and exactly that many bytes of the answer,
// or one line "error <why>\n", and closes. A client that reads fewer bytes
// than announced knows its answer was cut. Only the agent's own user is
// served (SO_PEERCRED); a client that sends nothing is dropped after
// requestTimeout seconds.
//
// The agent never waits for a client: it sends what the socket takes and
// keeps the rest until the socket can take more, so a reader that pauses
// gets its whole answer later. Bounds (Limits): an answer larger than
// maxAnswerBytes is refused with an error line; a client that takes no
// byte for stallTimeout seconds is dropped (its answer ends short; looked at
// once per stallTimeout, so within twice that); at most maxClients are
// served at once, later ones wait in the listen queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>

#include "Kiv/EventLoop.h"
#include "Kiv/FileDesc.h"
#include "Kiv/ServerSocket.h"
#include "RouteEngine.h"

namespace MrouteAgent {

std::string showText(RouteEngine const& engine);
std::string showJson(RouteEngine const& engine);

// The client's side: reads one answer from fd (the request sent) to its
// end. The body goes to out only when it arrived whole; otherwise, and for
// an error answer, one line goes to err. Returns 0, or 1 for anything else.
int showAnswer(int fd, std::ostream& out, std::ostream& err);

class ShowServer {
 public:
  static constexpr double requestTimeout = 2.0;
  struct Limits {
    std::size_t maxAnswerBytes = std::size_t(1) << 30;
    double stallTimeout = 60.0;
    std::size_t maxClients = 8;
  };

  // Binds path (replacing a socket nobody answers on). Throws what
  // Kiv::ServerSocket throws: SocketInUseException when a live process
  // serves path, UntrustedPathException for its directory.
  ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path, Limits limits);
  ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path)
      : ShowServer(loop, engine, std::move(path), Limits()) {}
  ~ShowServer();
  ShowServer(ShowServer const&) = delete;
  ShowServer& operator=(ShowServer const&) = delete;

  std::string const& path() const { return socket_.path(); }
  // Clients connected now, and those dropped because they stopped reading.
  std::size_t clients() const { return clients_.size(); }
  std::uint64_t stalledClients() const { return stalled_; }

 private:
  struct Client {
    Kiv::FileDesc fd;
    std::string in;
    std::string out;  // the answer; out[sent..] still to go
    std::size_t sent = 0;
    bool polled = false;  // in writable_
    std::size_t sentAtCheck = 0;
    std::size_t queuedAtCheck = 0;  // unread bytes in the socket (SIOCOUTQ)
    Kiv::EventLoop::TimerId timer = 0;
  };
  void doAccept();
  void doRead(int fd);
  void doWrite(int fd);
  void handleWritable();
  void doDrop(int fd);
  void doTimer(int fd, double seconds);
  void handleTimer(int fd);

  Kiv::EventLoop& loop_;
  RouteEngine const& engine_;
  Limits limits_;
  Kiv::ServerSocket socket_;
  // Clients waiting for their socket to take more of their answer; its
  // descriptor is one readable descriptor of the agent's loop.
  Kiv::FileDesc writable_;
  bool accepting_ = false;
  std::map<int, Client> clients_;
  std::uint64_t stalled_ = 0;
};

}  // namespace MrouteAgent
