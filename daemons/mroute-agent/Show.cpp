#include "Show.h"

#include <errno.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
// The kernel's multicast routing headers after the C library's.
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ostream>
#include <sstream>

#include "Kiv/Exception.h"
#include "Wirly/Sys.h"

namespace MrouteAgent {

namespace {

constexpr int kShowJsonVersion = 1;

char const* familyName(Wirly::AddressFamily af) { return af == Wirly::ipv6 ? "ipv6" : "ipv4"; }

std::string idName(Wirly::IntfId id) { return id.empty() ? std::string("-") : id.name(); }

// The filter's --intf against an interface id: its id or its Linux name.
bool intfMatches(RouteEngine const& engine, std::string const& want, Wirly::IntfId id) {
  if (id.empty()) return false;
  if (id.name() == want) return true;
  for (IntfConfig const& c : engine.intfs())
    if (c.id == id) return c.linuxName == want;
  return false;
}

std::string vifName(RouteEngine const& engine, std::uint16_t vif) {
  for (IntfConfig const& c : engine.intfs())
    if (c.vif == vif) return c.id.name();
  return "vif" + std::to_string(vif);
}

// One kernel entry as show lists it, both forms built from this.
struct EntryRow {
  Wirly::AddressFamily af;
  SgKey sg;
  KernelEntry const* entry;
  KernelMfc::Counters counters;
  std::uint64_t sinceNs = 0;    // age from here
  std::uint64_t expiresNs = 0;  // drop entries: when it goes unless a packet comes
};

struct RouteRow {
  std::string vrf;
  Wirly::AddressFamily af;
  IpGenRouteKey key;
  RouteState const* st = nullptr;
  std::uint64_t packets = 0, bytes = 0, rpfFailures = 0;
  std::vector<EntryRow> entries;
};

struct Rows {
  std::vector<RouteRow> routes;
  std::vector<EntryRow> drops;
  std::size_t allRoutes = 0, allDrops = 0;
};

bool sourceMatches(ShowFilter const& f, Wirly::IpGenAddr const& source) {
  return !f.source || (f.source->af() == source.af() && f.source->contains(source));
}

Rows rowsOf(RouteEngine const& engine, ShowFilter const& f, ShowNow now) {
  Rows out;
  for (auto const& [vrf, routes] : engine.routes()) {
    out.allRoutes += routes.size();
    if (f.vrf && *f.vrf != vrf) continue;
    for (auto const& [key, st] : routes) {
      Wirly::AddressFamily const af = key.group().af();
      if (f.family && *f.family != af) continue;
      if (f.group && !(f.group->af() == af && f.group->contains(Wirly::IpGenPrefix(key.group())))) continue;
      if (f.intf && !intfMatches(engine, *f.intf, st.iif) &&
          std::none_of(st.oifs.begin(), st.oifs.end(),
                       [&](Wirly::IntfId o) { return intfMatches(engine, *f.intf, o); }))
        continue;
      bool const starG = RouteEngine::isStarG(key);
      // A (*, G) route matches a source through its entries; a zero-length
      // source prefix also matches it alone.
      bool const keyMatchesSource =
          !f.source || (f.source->af() == af && f.source->contains(Wirly::IpGenPrefix(key.source())));
      if (!keyMatchesSource && !starG) continue;  // before its counters are read
      RouteRow r{vrf, af, key, &st, 0, 0, 0, {}};
      if (st.mroute)
        for (auto const& [vlan, count] : st.mroute->rpfFailureCountMap()) r.rpfFailures += count;
      KernelMfc const* mfc = engine.mfc(af);
      if (vrf == RouteEngine::kernelVrf && mfc) {
        for (auto const& [sg, entry] : engine.entriesOf(key)) {
          if (starG && !keyMatchesSource && !sourceMatches(f, sg.source)) continue;
          EntryRow e{af, sg, entry, mfc->counters(sg.source, sg.group)};
          e.sinceNs = entry->learnedNs ? entry->learnedNs : st.sinceNs;
          r.packets += e.counters.pkts;
          r.bytes += e.counters.bytes;
          r.entries.push_back(e);
        }
      }
      if (!keyMatchesSource && r.entries.empty()) continue;
      out.routes.push_back(std::move(r));
    }
  }
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    KernelMfc const* mfc = engine.mfc(af);
    if (!mfc) continue;
    for (auto const& [sg, drop] : engine.dropEntries(af)) {
      KernelEntry const& e = *drop;
      ++out.allDrops;
      if ((f.vrf && *f.vrf != RouteEngine::kernelVrf) || (f.family && *f.family != af) ||
          (f.group && !(f.group->af() == af && f.group->contains(sg.group))) || !sourceMatches(f, sg.source))
        continue;
      Wirly::IntfId iif;
      for (IntfConfig const& c : engine.intfs())
        if (c.vif == e.iif) iif = c.id;
      if (f.intf && !intfMatches(engine, *f.intf, iif)) continue;
      EntryRow row{af, sg, &e, mfc->counters(sg.source, sg.group)};
      row.sinceNs = e.learnedNs ? e.learnedNs : e.installedNs;
      // The agent looks at drop entries now and then: a count that moved
      // since it last looked means the flow is active now.
      std::uint64_t const active =
          row.counters.valid && row.counters.pkts != e.lastPkts ? now.monoNs : std::max(e.lastActiveNs, e.installedNs);
      row.expiresNs = active + RouteEngine::dropIdleNs;
      out.drops.push_back(row);
    }
  }
  return out;
}

std::string oifSetId(RouteState const& st) {
  if (!st.mroute || !st.mroute->oifSet()) return "-";
  char buf[16];
  std::snprintf(buf, sizeof buf, "%08x", st.mroute->oifSet()->portVlanSet().hash());
  return buf;
}

std::string failuresOf(RouteState const& st) {
  std::string s = st.failure.pretty();
  if (st.mappingMissing) s += " OifIndexNotMapped";
  while (!s.empty() && s.front() == ' ') s.erase(0, 1);
  return s;
}

// One word for where the route stands in the kernel.
std::string stateOf(RouteRow const& r) {
  if (r.vrf != RouteEngine::kernelVrf || r.st->failure.routeFailureVrfStatusNotInited()) return "not-programmed";
  std::size_t refused = 0;
  for (EntryRow const& e : r.entries) refused += !e.entry->installed;
  if (RouteEngine::isStarG(r.key)) {
    if (r.entries.empty()) return "waiting";  // no source has sent yet
    return refused ? "refused" : "installed";
  }
  if (r.entries.empty()) return "not-installed";
  return refused ? "refused" : "installed";
}

std::string entryState(KernelEntry const& e) { return e.installed ? "installed" : "refused"; }

std::string jsonString(std::string const& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string seconds(std::int64_t ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", double(ns) / 1e9);
  return buf;
}

std::int64_t wallOf(ShowNow now, std::uint64_t monoNs) {
  return now.realNs - (std::int64_t(now.monoNs) - std::int64_t(monoNs));
}
std::uint64_t ageOf(ShowNow now, std::uint64_t monoNs) { return now.monoNs > monoNs ? now.monoNs - monoNs : 0; }

std::string entryJson(EntryRow const& e, ShowNow now, bool drop) {
  std::ostringstream os;
  os << "{\"source\": " << jsonString(e.sg.source.str()) << ", \"group\": " << jsonString(e.sg.group.str())
     << ", \"installed\": " << (e.entry->installed ? "true" : "false") << ", \"packets\": " << e.counters.pkts
     << ", \"bytes\": " << e.counters.bytes << ", \"learnedNs\": " << e.entry->learnedNs
     << ", \"installedNs\": " << e.entry->installedNs << ", \"recovered\": " << (e.entry->recovered ? "true" : "false");
  if (e.entry->error) os << ", \"error\": " << jsonString(std::strerror(e.entry->error));
  os << ", \"vrf\": " << jsonString(RouteEngine::kernelVrf) << ", \"family\": " << jsonString(familyName(e.af))
     << ", \"state\": " << jsonString(entryState(*e.entry));
  if (e.entry->learnedNs) os << ", \"learned\": " << jsonString(utcText(wallOf(now, e.entry->learnedNs)));
  if (e.entry->installedNs) os << ", \"written\": " << jsonString(utcText(wallOf(now, e.entry->installedNs)));
  if (e.sinceNs)
    os << ", \"since\": " << jsonString(utcText(wallOf(now, e.sinceNs)))
       << ", \"uptime\": " << seconds(std::int64_t(ageOf(now, e.sinceNs)));
  if (drop) {
    os << ", \"expires\": " << jsonString(utcText(wallOf(now, e.expiresNs)))
       << ", \"expiresIn\": " << seconds(std::int64_t(e.expiresNs) - std::int64_t(now.monoNs));
  }
  os << "}";
  return os.str();
}

std::string headerOf(char const* what, ShowRequest const& r, ShowNow now) {
  return std::string("mroute-agent ") + what + " at " + utcText(now.realNs) + "; filter: " + r.filter.text();
}

std::string const kRoutesLegend = R"(Legend:
  (S, G)        source and group of the route; * is any source, /len a prefix
  Iif           the interface the route's packets must arrive on (RPF interface)
  Oifs          the interfaces they are sent out on; "-": none
  State         installed: the kernel forwards by this route's entries;
                refused: the kernel refused an entry (see Failures), retried;
                waiting: a (*, G) route whose sources have not sent yet (each
                source gets its own entry, listed below the route);
                not-installed: no kernel entry yet; not-programmed: the VRF
                or family has no kernel table, or the key is not a host or (*, G) key
  Uptime        how long the route has been best here (hh:mm:ss, days as Nd)
  Since         when it became best; Changed: when its owner or interfaces last changed
  Owner, prio   the application whose route is best, and its priority
  Oif set       id of the route's outgoing interface set: routes with the same id
                share one replication list
  Packets Bytes the kernel's counters, summed over the route's entries; an entry
                keeps counting when its route changes owner or interfaces
  RPF failures  packets of the route that arrived on another interface than Iif
  Failures      why the route is not (wholly) in the kernel; "none" when it is
  Drop entries  flows no route covers: the kernel discards them without asking
                again; Expires: when an idle one is removed (a packet renews it)
  All times are UTC.
)";

std::string const kInterfacesLegend = R"(Legend:
  Family        ipv4: a VIF of the IPv4 table; ipv6: a MIF of the IPv6 table
  VIF           the VIF/MIF number the agent gave the interface (the same in both families)
  Interface     the agent's interface id; Linux name and Ifindex: the Linux interface
  State         up or down, as the agent last heard from the kernel
  Pkts/Bytes in, out  the kernel's counters of multicast received on and sent out of
                the VIF/MIF; "-": the kernel gave none
)";

}  // namespace

std::string ShowFilter::text() const {
  std::string s;
  auto add = [&](char const* name, std::string const& v) {
    s += (s.empty() ? "" : ", ") + std::string(name) + " " + v;
  };
  if (vrf) add("vrf", *vrf);
  if (family) add("family", familyName(*family));
  if (group) add("group", group->str());
  if (source) add("source", source->str());
  if (intf) add("intf", *intf);
  return s.empty() ? "none" : s;
}

std::vector<std::string> ShowFilter::words() const {
  std::vector<std::string> w;
  if (vrf) w.insert(w.end(), {"--vrf", *vrf});
  if (family) w.insert(w.end(), {"--family", familyName(*family)});
  if (group) w.insert(w.end(), {"--group", group->str()});
  if (source) w.insert(w.end(), {"--source", source->str()});
  if (intf) w.insert(w.end(), {"--intf", *intf});
  return w;
}

std::string showFilterParse(std::vector<std::string> const& words, bool interfaces, ShowFilter& out) {
  ShowFilter f;
  for (std::size_t i = 0; i < words.size(); i += 2) {
    std::string const& opt = words[i];
    if (opt != "--vrf" && opt != "--family" && opt != "--group" && opt != "--source" && opt != "--intf")
      return "unknown filter '" + opt + "'";
    if (i + 1 >= words.size() || words[i + 1].empty()) return opt + " needs a value";
    std::string const& v = words[i + 1];
    if (v.find_first_of(" \t\n") != std::string::npos) return opt + ": '" + v + "' has a space";
    if (interfaces && (opt == "--group" || opt == "--source"))
      return opt + " does not apply to interfaces (--vrf, --family and --intf do)";
    auto prefix = [&](std::optional<Wirly::IpGenPrefix>& into) -> std::string {
      if (into) return opt + " given twice";
      try {
        into = Wirly::IpGenPrefix(v);
      } catch (std::exception const&) {
        return opt + ": '" + v + "' is not an IPv4 or IPv6 address or prefix";
      }
      return "";
    };
    std::string why;
    if (opt == "--vrf") {
      if (f.vrf) return "--vrf given twice";
      f.vrf = v;
    } else if (opt == "--intf") {
      if (f.intf) return "--intf given twice";
      f.intf = v;
    } else if (opt == "--family") {
      if (f.family) return "--family given twice";
      if (v != "ipv4" && v != "ipv6") return "--family: '" + v + "' is neither ipv4 nor ipv6";
      f.family = v == "ipv4" ? Wirly::ipv4 : Wirly::ipv6;
    } else if (opt == "--group") {
      why = prefix(f.group);
      if (why.empty() && !f.group->isMulticast() && !(f.group->len() == 0))
        why = "--group: " + f.group->str() + " is not a multicast address or prefix";
    } else {
      why = prefix(f.source);
    }
    if (!why.empty()) return why;
  }
  std::optional<Wirly::AddressFamily> af = f.family;
  for (auto const* p : {&f.group, &f.source}) {
    if (!*p) continue;
    if (af && *af != (*p)->af())
      return "the filter mixes families: " + f.text() + " (a route has one family; give one)";
    af = (*p)->af();
  }
  out = std::move(f);
  return "";
}

std::string showRequestLine(ShowRequest const& r) {
  std::string s = std::string(r.interfaces ? "interfaces" : "show") + (r.json ? " json" : " text");
  for (std::string const& w : r.filter.words()) s += " " + w;
  return s;
}

bool showRequestParse(std::string const& line, ShowRequest& out, std::string* why) {
  std::vector<std::string> words;
  std::istringstream is(line);
  for (std::string w; is >> w;) words.push_back(w);
  if (words.size() < 2 || (words[0] != "show" && words[0] != "interfaces") ||
      (words[1] != "text" && words[1] != "json"))
    return false;
  ShowRequest r;
  r.interfaces = words[0] == "interfaces";
  r.json = words[1] == "json";
  std::string const refused = showFilterParse({words.begin() + 2, words.end()}, r.interfaces, r.filter);
  if (!refused.empty()) {
    if (why) *why = refused;
    return true;
  }
  out = std::move(r);
  return true;
}

ShowNow ShowNow::of(RouteEngine const& engine) {
  timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return {engine.nowNs(), std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec};
}

std::string utcText(std::int64_t realNs) {
  std::int64_t secs = realNs / 1000000000;
  std::int64_t frac = realNs % 1000000000;
  if (frac < 0) {
    frac += 1000000000;
    --secs;
  }
  std::int64_t const ms = frac / 1000000;
  std::time_t const t = std::time_t(secs);
  std::tm tm{};
  ::gmtime_r(&t, &tm);
  char buf[48];
  std::size_t const n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
  std::snprintf(buf + n, sizeof buf - n, ".%03dZ", int(ms));
  return buf;
}

std::string durationText(std::uint64_t ns) {
  std::uint64_t const s = ns / 1000000000;
  char buf[48];
  if (s >= 86400)
    std::snprintf(buf, sizeof buf, "%llud%02u:%02u:%02u", (unsigned long long)(s / 86400), unsigned(s % 86400 / 3600),
                  unsigned(s % 3600 / 60), unsigned(s % 60));
  else
    std::snprintf(buf, sizeof buf, "%02u:%02u:%02u", unsigned(s / 3600), unsigned(s % 3600 / 60), unsigned(s % 60));
  return buf;
}

std::string showText(RouteEngine const& engine, ShowRequest const& req, ShowNow now) {
  std::ostringstream os;
  Rows const rows = rowsOf(engine, req.filter, now);
  os << headerOf("routes", req, now) << "; " << rows.routes.size() << " of " << rows.allRoutes << " routes, "
     << rows.drops.size() << " of " << rows.allDrops << " drop entries\n";
  std::string vrf;
  for (RouteRow const& r : rows.routes) {
    RouteState const& st = *r.st;
    if (r.vrf != vrf || &r == &rows.routes.front()) {
      vrf = r.vrf;
      os << "\nVRF " << vrf << (vrf == RouteEngine::kernelVrf ? "" : " (no kernel table: not programmed)") << "\n";
    }
    std::string oifs;
    for (Wirly::IntfId o : st.oifs) oifs += (oifs.empty() ? "" : " ") + o.name();
    std::string const failures = failuresOf(st);
    os << "(" << prefixText(r.key.source(), RouteEngine::isStarG(r.key)) << ", " << prefixText(r.key.group(), false)
       << ")  Iif: " << idName(st.iif) << "  Oifs: " << (oifs.empty() ? "-" : oifs) << "  State: " << stateOf(r)
       << "  Uptime: " << durationText(ageOf(now, st.sinceNs)) << "\n"
       << "    Owner: " << st.app << " prio " << st.priority << "  Oif set: " << oifSetId(st)
       << "  Packets: " << r.packets << "  Bytes: " << r.bytes << "  RPF failures: " << r.rpfFailures
       << "  Failures: " << (failures.empty() ? "none" : failures) << "\n"
       << "    Since: " << utcText(wallOf(now, st.sinceNs)) << "  Changed: " << utcText(wallOf(now, st.changedNs))
       << "\n";
    if (RouteEngine::isStarG(r.key))
      for (EntryRow const& e : r.entries)
        os << "    " << RouteEngine::sgText(e.sg) << "  State: " << entryState(*e.entry)
           << "  Uptime: " << durationText(ageOf(now, e.sinceNs)) << "  Packets: " << e.counters.pkts
           << "  Bytes: " << e.counters.bytes << "\n";
  }
  if (!rows.drops.empty()) {
    os << "\nDrop entries (flows no route covers; the kernel discards them)\n";
    for (EntryRow const& e : rows.drops) {
      os << RouteEngine::sgText(e.sg) << "  Iif: " << vifName(engine, e.entry->iif)
         << "  State: " << entryState(*e.entry) << "  Uptime: " << durationText(ageOf(now, e.sinceNs)) << "  Expires: ";
      if (e.expiresNs > now.monoNs)
        os << "in " << durationText(e.expiresNs - now.monoNs);
      else
        os << "now";
      os << "  Packets: " << e.counters.pkts << "  Bytes: " << e.counters.bytes << "\n";
    }
  }
  os << "\nupcalls " << engine.upcalls() << "  recovered flows " << engine.recoveredFlows()
     << "  routes not programmed " << engine.notProgrammed() << "  entries refused " << engine.failedEntries() << "\n";
  UpcallBudget const& b = *engine.budget();
  os << "flows without a route: admitted " << b.admittedReports() << "  over interface budget "
     << b.overIntfBudgetReports() << "  over total budget " << b.overTotalBudgetReports() << "  drop entries "
     << b.dropEntries() << " of " << b.dropEntryMax() << "  refused at maximum " << b.dropEntryMaxRefusals() << "\n\n"
     << kRoutesLegend;
  return os.str();
}

std::string showJson(RouteEngine const& engine, ShowRequest const& req, ShowNow now) {
  std::ostringstream os;
  Rows const rows = rowsOf(engine, req.filter, now);
  os << "{\"version\": " << kShowJsonVersion << ", \"time\": " << jsonString(utcText(now.realNs))
     << ", \"filter\": " << jsonString(req.filter.text()) << ", \"vrfs\": [";
  std::string vrf;
  bool firstRoute = true;
  for (RouteRow const& r : rows.routes) {
    RouteState const& st = *r.st;
    if (r.vrf != vrf || &r == &rows.routes.front()) {
      os << (&r == &rows.routes.front() ? "" : "]}, ") << "{\"name\": " << jsonString(r.vrf)
         << ", \"kernel\": " << (r.vrf == RouteEngine::kernelVrf ? "true" : "false") << ", \"routes\": [";
      vrf = r.vrf;
      firstRoute = true;
    }
    os << (firstRoute ? "" : ", ")
       << "{\"source\": " << jsonString(prefixText(r.key.source(), RouteEngine::isStarG(r.key)))
       << ", \"group\": " << jsonString(prefixText(r.key.group(), false)) << ", \"app\": " << jsonString(st.app)
       << ", \"priority\": " << st.priority << ", \"iif\": " << jsonString(idName(st.iif)) << ", \"oifs\": [";
    firstRoute = false;
    for (std::size_t i = 0; i < st.oifs.size(); ++i) os << (i ? ", " : "") << jsonString(st.oifs[i].name());
    os << "], \"oifSet\": " << jsonString(oifSetId(st)) << ", \"packets\": " << r.packets << ", \"bytes\": " << r.bytes
       << ", \"rpfFailures\": " << r.rpfFailures << ", \"failures\": " << jsonString(failuresOf(st))
       << ", \"entries\": [";
    for (std::size_t i = 0; i < r.entries.size(); ++i) os << (i ? ", " : "") << entryJson(r.entries[i], now, false);
    os << "], \"vrf\": " << jsonString(r.vrf) << ", \"family\": " << jsonString(familyName(r.af))
       << ", \"state\": " << jsonString(stateOf(r)) << ", \"since\": " << jsonString(utcText(wallOf(now, st.sinceNs)))
       << ", \"changed\": " << jsonString(utcText(wallOf(now, st.changedNs)))
       << ", \"uptime\": " << seconds(std::int64_t(ageOf(now, st.sinceNs))) << "}";
  }
  if (!rows.routes.empty()) os << "]}";
  os << "], \"dropEntries\": [";
  for (std::size_t i = 0; i < rows.drops.size(); ++i) {
    std::string e = entryJson(rows.drops[i], now, true);
    e.insert(e.size() - 1, ", \"iif\": " + jsonString(vifName(engine, rows.drops[i].entry->iif)));
    os << (i ? ", " : "") << e;
  }
  os << "], \"routesShown\": " << rows.routes.size() << ", \"routesHeld\": " << rows.allRoutes
     << ", \"dropEntriesShown\": " << rows.drops.size() << ", \"dropEntriesHeld\": " << rows.allDrops
     << ", \"upcalls\": " << engine.upcalls() << ", \"recovered\": " << engine.recoveredFlows()
     << ", \"notProgrammed\": " << engine.notProgrammed() << ", \"refused\": " << engine.failedEntries();
  UpcallBudget const& b = *engine.budget();
  os << ", \"unrouted\": {\"admitted\": " << b.admittedReports()
     << ", \"overIntfBudget\": " << b.overIntfBudgetReports() << ", \"overTotalBudget\": " << b.overTotalBudgetReports()
     << ", \"dropEntries\": " << b.dropEntries() << ", \"dropEntryMax\": " << b.dropEntryMax()
     << ", \"dropEntryMaxRefusals\": " << b.dropEntryMaxRefusals() << "}}\n";
  return os.str();
}

namespace {

struct IntfRow {
  Wirly::AddressFamily af;
  IntfConfig const* c;
  bool up;
  bool counted = false;
  std::uint64_t pktsIn = 0, bytesIn = 0, pktsOut = 0, bytesOut = 0;
};

std::vector<IntfRow> intfRows(RouteEngine const& engine, ShowFilter const& f) {
  std::vector<IntfRow> out;
  if (f.vrf && *f.vrf != RouteEngine::kernelVrf) return out;
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    KernelMfc const* mfc = engine.mfc(af);
    if (!mfc || (f.family && *f.family != af)) continue;
    for (IntfConfig const& c : engine.intfs()) {
      if (f.intf && !intfMatches(engine, *f.intf, c.id)) continue;
      IntfRow r{af, &c, engine.linkUp(c.id)};
      // SIOCGETVIFCNT and SIOCGETMIFCNT_IN6 share a number: the socket's family tells.
      if (af == Wirly::ipv4) {
        sioc_vif_req q{};
        q.vifi = vifi_t(c.vif);
        if (mfc->fd() >= 0 && Wirly::Sys::sys().ioctl(mfc->fd(), SIOCGETVIFCNT, &q) == 0)
          r = {af, &c, r.up, true, q.icount, q.ibytes, q.ocount, q.obytes};
      } else {
        sioc_mif_req6 q{};
        q.mifi = mifi_t(c.vif);
        if (mfc->fd() >= 0 && Wirly::Sys::sys().ioctl(mfc->fd(), SIOCGETMIFCNT_IN6, &q) == 0)
          r = {af, &c, r.up, true, q.icount, q.ibytes, q.ocount, q.obytes};
      }
      out.push_back(r);
    }
  }
  return out;
}

std::string interfacesText(RouteEngine const& engine, ShowRequest const& req, ShowNow now) {
  std::vector<IntfRow> const rows = intfRows(engine, req.filter);
  std::vector<std::vector<std::string>> cells = {
      {"Family", "VIF", "Interface", "Linux name", "Ifindex", "State", "Pkts in", "Bytes in", "Pkts out", "Bytes out"}};
  auto count = [](IntfRow const& r, std::uint64_t v) { return r.counted ? std::to_string(v) : std::string("-"); };
  for (IntfRow const& r : rows)
    cells.push_back({familyName(r.af), std::to_string(r.c->vif), r.c->id.name(), r.c->linuxName,
                     std::to_string(r.c->ifIndex), r.up ? "up" : "down", count(r, r.pktsIn), count(r, r.bytesIn),
                     count(r, r.pktsOut), count(r, r.bytesOut)});
  std::vector<std::size_t> width(cells[0].size(), 0);
  for (auto const& row : cells)
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  std::ostringstream os;
  os << headerOf("interfaces", req, now) << "; " << rows.size() << " VIFs/MIFs\n";
  for (auto const& row : cells) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      bool const number = i == 1 || i == 4 || i >= 6;  // right-aligned
      std::string const pad(width[i] - row[i].size(), ' ');
      line += (i ? "  " : "") + (number ? pad + row[i] : row[i] + pad);
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    os << line << "\n";
  }
  os << "\n" << kInterfacesLegend;
  return os.str();
}

std::string interfacesJson(RouteEngine const& engine, ShowRequest const& req, ShowNow now) {
  std::ostringstream os;
  os << "{\"version\": " << kShowJsonVersion << ", \"time\": " << jsonString(utcText(now.realNs))
     << ", \"filter\": " << jsonString(req.filter.text()) << ", \"interfaces\": [";
  bool first = true;
  for (IntfRow const& r : intfRows(engine, req.filter)) {
    os << (first ? "" : ", ") << "{\"vrf\": " << jsonString(RouteEngine::kernelVrf)
       << ", \"family\": " << jsonString(familyName(r.af)) << ", \"vif\": " << r.c->vif
       << ", \"intf\": " << jsonString(r.c->id.name()) << ", \"linuxName\": " << jsonString(r.c->linuxName)
       << ", \"ifIndex\": " << r.c->ifIndex << ", \"state\": " << jsonString(r.up ? "up" : "down");
    if (r.counted)
      os << ", \"packetsIn\": " << r.pktsIn << ", \"bytesIn\": " << r.bytesIn << ", \"packetsOut\": " << r.pktsOut
         << ", \"bytesOut\": " << r.bytesOut;
    os << "}";
    first = false;
  }
  os << "]}\n";
  return os.str();
}

}  // namespace

std::string showAnswerOf(RouteEngine const& engine, ShowRequest const& r, ShowNow now) {
  if (r.interfaces) return r.json ? interfacesJson(engine, r, now) : interfacesText(engine, r, now);
  return r.json ? showJson(engine, r, now) : showText(engine, r, now);
}

ShowServer::ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path, Limits limits)
    : engine_(engine),
      server_(
          loop, std::move(path), {"show socket", "MROUTE_AGENT_DIR"},
          [this](std::string const& request, Kiv::RequestServer::Peer const&) { return handleRequest(request); },
          limits) {}

Kiv::RequestServer::Answer ShowServer::handleRequest(std::string const& request) const {
  ShowRequest parsed;
  std::string refused;
  if (!showRequestParse(request, parsed, &refused))
    return Kiv::RequestServer::Answer::errorIs("unknown request '" + request + "'");
  if (!refused.empty()) return Kiv::RequestServer::Answer::errorIs("filter: " + refused);
  return Kiv::RequestServer::Answer::okIs(showAnswerOf(engine_, parsed, now_ ? now_() : ShowNow::of(engine_)));
}

int showAnswer(int fd, std::ostream& out, std::ostream& err) {
  Kiv::RequestReply const reply = Kiv::requestAnswer(fd, "the agent");
  if (reply.status == Kiv::RequestReply::ok) {
    out << reply.text;
    return 0;
  }
  err << "mroute-agent: " << (reply.status == Kiv::RequestReply::refused ? "the agent answered: " : "") << reply.text
      << "\n";
  // A refused filter is a usage error, as when the client itself refuses it.
  return reply.status == Kiv::RequestReply::refused && reply.text.rfind("filter: ", 0) == 0 ? 2 : 1;
}

}  // namespace MrouteAgent
