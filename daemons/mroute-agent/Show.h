// What `mroute-agent show` prints, and the agent's socket that serves it.
//
//   ShowServer show(loop, engine, showSocketPath("mroute-agent"));
//   // $ mroute-agent show [interfaces] [--json] [--family ipv4] [--group 239.1.0.0/16] ...
//
// Routes, per VRF: (S, G) key, incoming and outgoing interfaces, the state
// of its kernel entries, uptime, owner application and priority, the shared
// OIF set (its content hash: routes with the same id share one replication
// list), kernel packet and byte counters (SIOCGETSGCNT, summed over the
// entries the route made), RPF failures and failure reasons; below a (*, G)
// route the (S, G) entries made from it; then the drop entries with their
// expiry, and the agent's counters. Interfaces: per family, each VIF/MIF
// with its interface, Linux name and index, state, and the kernel's packet
// and byte counters in and out (SIOCGETVIFCNT / SIOCGETMIFCNT_IN6).
//
// Times are UTC wall-clock times (ISO 8601, milliseconds, "Z"), converted
// from the monotonic clock the agent keeps at the moment of the answer, as
// trace readers convert theirs; ages and expiries are also given as
// durations. Both forms are described field by field in
// docs/mroute-agent.md; the JSON carries "version": fields are only added
// within a version.
//
// Filters (ShowFilter) select routes in the agent, so that a large table is
// not sent whole: every filter given must match. --group and --source take
// an address or a prefix and match routes whose group (source) lies in it;
// a (*, G) route matches --source through its entries, and only those are
// listed. --intf matches the incoming or any outgoing interface, by id or
// Linux name.
//
// Protocol (Kiv/RequestServer.h): the client sends one line,
// "<show|interfaces> <text|json>" followed by the filter as option words
// ("--group 239.1.0.0/16"); the agent answers "ok <bytes>\n" and exactly that
// many bytes of the answer, or one line "error <why>\n", and closes;
// "error filter: <why>" refuses the filter. Only the agent's own user and
// root are served; a client that stops reading is dropped after
// Limits::stallTimeout, an answer past maxAnswerBytes is an error line, and
// clients past maxClients wait in the listen queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Kiv/EventLoop.h"
#include "Kiv/FileDesc.h"
#include "Kiv/RequestServer.h"
#include "RouteEngine.h"
#include "Wirly/IpGenPrefix.h"

namespace MrouteAgent {

// What a show request selects; an unset field matches everything.
struct ShowFilter {
  std::optional<std::string> vrf;
  std::optional<Wirly::AddressFamily> family;
  std::optional<Wirly::IpGenPrefix> group;
  std::optional<Wirly::IpGenPrefix> source;
  std::optional<std::string> intf;

  bool empty() const { return !vrf && !family && !group && !source && !intf; }
  // "family ipv4, group 239.1.0.0/16", or "none".
  std::string text() const;
  // The option words that parse back to this filter.
  std::vector<std::string> words() const;
};

struct ShowRequest {
  bool interfaces = false;  // the VIF/MIF table instead of the routes
  bool json = false;
  ShowFilter filter;
};

// Parses option words (--vrf V, --family ipv4|ipv6, --group G[/len],
// --source S[/len], --intf NAME): the command line's and the request's
// form. Returns "" or why they are refused (an unknown option, a missing
// or malformed value, a repeated option, families that disagree, a group
// outside multicast space, or for interfaces an option that does not apply).
std::string showFilterParse(std::vector<std::string> const& words, bool interfaces, ShowFilter& out);
// The request line a client sends (without its newline), and its parse:
// false for an unknown request, *why set for a refused filter.
std::string showRequestLine(ShowRequest const& r);
bool showRequestParse(std::string const& line, ShowRequest& out, std::string* why);

// The moment an answer describes: the engine's clock and the wall clock
// read together, to convert the engine's times to UTC.
struct ShowNow {
  std::uint64_t monoNs = 0;
  std::int64_t realNs = 0;
  static ShowNow of(RouteEngine const& engine);
};
// "2026-11-25T16:22:17.123Z" for a wall-clock time in nanoseconds.
std::string utcText(std::int64_t realNs);
// "00:01:02", past a day "3d04:05:06".
std::string durationText(std::uint64_t ns);

std::string showText(RouteEngine const& engine, ShowRequest const& r, ShowNow now);
std::string showJson(RouteEngine const& engine, ShowRequest const& r, ShowNow now);
inline std::string showText(RouteEngine const& engine) { return showText(engine, {}, ShowNow::of(engine)); }
inline std::string showJson(RouteEngine const& engine) {
  return showJson(engine, {false, true, {}}, ShowNow::of(engine));
}
// The answer to a parsed request: one of the above or the interfaces table.
std::string showAnswerOf(RouteEngine const& engine, ShowRequest const& r, ShowNow now);

// The client's side: reads one answer from fd (the request sent) to its
// end. The body goes to out only when it arrived whole; otherwise, and for
// an error answer, one line goes to err. Returns 0, 2 when the agent
// refused the filter, or 1 for anything else.
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
  // The moment answers describe; by default read from the clocks (tests fix it).
  void nowIs(std::function<ShowNow()> f) { now_ = std::move(f); }

 private:
  Kiv::RequestServer::Answer handleRequest(std::string const& request) const;

  RouteEngine const& engine_;
  std::function<ShowNow()> now_;
  Kiv::RequestServer server_;
};

}  // namespace MrouteAgent
