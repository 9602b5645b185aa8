// RouteControl: what one mroute-static instance publishes, its route file's
// routes with the changes made at run time on top, and the answers to the
// commands that make and list those changes.
//
//   RouteControl control(pub, "/etc/mroutes", std::cout, std::cerr);
//   control.load(parsed);                                  // start, SIGHUP
//   Kiv::RequestServer server(loop, controlSocketPath("static"), controlSocketUse,
//                             [&](auto const& req, auto const& peer) { return control.answer(req, peer); });
//
// Requests, one line each (the words of a route as in the route file):
//   add runtime|persist <vrf> <source|*> <group> <iif> <oif[,oif...]|-> [priority]
//   del runtime|persist <vrf> <source|*> <group>
//   list text|json
//
// What it promises:
// - A run-time change (runtime) is published at once and not written to the
//   file. It is kept across reloads (SIGHUP): a route added at run time
//   stays published, replacing the file's line for the same route, and one
//   removed at run time stays removed, until the file says the same thing
//   (the change then is the file's and is forgotten) or a persisted change
//   of the same route replaces it. Stopping the instance loses them; the
//   next run publishes its file. Each reload says how many are kept.
// - persist first rewrites the file (rewriteRoutes, writeRoutesFile: only
//   that route's lines change) and then publishes; the route then counts
//   as the file's. Other edits of the file still wait for SIGHUP.
// - A change the publisher refuses (a full table, no interface index) is
//   undone, file included, and answered as an error; so is a file that
//   cannot be written. A malformed route is refused with the loader's words
//   ("add: priority '0' is not a number from 1 to 255; route refused").
// - Every change and every refusal is one line on out/err and one trace
//   record naming the asking process.
#pragma once

#include <cstddef>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "Kiv/PathTrust.h"
#include "Kiv/RequestServer.h"
#include "RouteFile.h"
#include "StaticPublisher.h"

namespace MrouteStatic {

// Where an instance's control socket lies: $MROUTE_STATIC_DIR/<app>.sock,
// by default /run/mroute-static for root and $XDG_RUNTIME_DIR/mroute-static
// for other users. Kiv::Exception for a user other than root with neither
// variable set.
std::string controlSocketPath(std::string const& app);
inline constexpr Kiv::PathTrust::Use controlSocketUse{"control socket", "MROUTE_STATIC_DIR"};
// Longest request line: a route with many outgoing interfaces.
inline constexpr std::size_t maxRequestBytes = 64 * 1024;
// "1 run-time change", "2 run-time changes".
std::string changesText(std::size_t n);

class RouteControl {
 public:
  RouteControl(StaticPublisher& pub, std::string file, std::ostream& out, std::ostream& err);

  // Takes the file's routes (read at the start or on SIGHUP), keeps the
  // run-time changes that still differ from them, and publishes. The
  // summary line it prints is the publisher's, followed, when run-time
  // changes are kept, by "; <n> run-time changes kept (not in <file>)".
  StaticPublisher::Change load(ParsedFile const& parsed);
  Kiv::RequestServer::Answer answer(std::string const& request, Kiv::RequestServer::Peer const& peer);

  // What is published or meant to be: the file's routes with the run-time
  // changes applied.
  RouteMap routes() const;
  std::size_t runtimeChanges() const { return now_.added.size() + now_.removed.size(); }
  // True when the last load read every line and every route is published.
  bool complete() const { return complete_; }

  std::string listText() const;
  std::string listJson() const;

 private:
  struct State {
    RouteMap file;
    RouteMap added;             // run-time routes, over the file's
    std::set<RouteId> removed;  // the file's routes removed at run time
  };
  Kiv::RequestServer::Answer doChange(bool add, bool persist, std::vector<std::string> const& words,
                                      Kiv::RequestServer::Peer const& peer);
  void doForgetAgreed();
  bool published(RouteId const& id, StaticRoute const& r) const;
  StaticPublisher::Change doApply();

  StaticPublisher& pub_;
  std::string const file_;
  std::ostream& out_;
  std::ostream& err_;
  State now_;
  std::size_t malformed_ = 0;  // lines the last load refused
  bool complete_ = false;
};

}  // namespace MrouteStatic
