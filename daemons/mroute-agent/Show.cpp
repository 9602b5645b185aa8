#include "Show.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <sstream>

#include "Kiv/Exception.h"

namespace MrouteAgent {

namespace {

// One route as show lists it, both forms built from this.
struct EntryRow {
  SgKey sg;
  KernelEntry const* entry;
  KernelMfc::Counters counters;
};

struct RouteRow {
  IpGenRouteKey key;
  RouteState const* st = nullptr;
  std::uint64_t packets = 0, bytes = 0, rpfFailures = 0;
  std::vector<EntryRow> entries;
};

std::vector<RouteRow> rowsOf(RouteEngine const& engine, std::string const& vrf,
                             std::map<IpGenRouteKey, RouteState> const& routes) {
  std::vector<RouteRow> rows;
  for (auto const& [key, st] : routes) {
    RouteRow r;
    r.key = key;
    r.st = &st;
    if (st.mroute)
      for (auto const& [vlan, count] : st.mroute->rpfFailureCountMap()) r.rpfFailures += count;
    Wirly::AddressFamily const af = key.group().af();
    KernelMfc const* mfc = engine.mfc(af);
    if (vrf == RouteEngine::kernelVrf && mfc) {
      auto const& entries = engine.entries(af);
      for (auto it = entries.lower_bound({key.group().address(), Wirly::IpGenAddr()});
           it != entries.end() && it->first.group == key.group().address(); ++it) {
        if (it->second.origin == KernelEntry::drop || !(it->second.routeKey == key)) continue;
        EntryRow e{it->first, &it->second, mfc->counters(it->first.source, it->first.group)};
        r.packets += e.counters.pkts;
        r.bytes += e.counters.bytes;
        r.entries.push_back(e);
      }
    }
    rows.push_back(std::move(r));
  }
  return rows;
}

std::vector<std::pair<Wirly::AddressFamily, EntryRow>> dropRows(RouteEngine const& engine) {
  std::vector<std::pair<Wirly::AddressFamily, EntryRow>> out;
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    KernelMfc const* mfc = engine.mfc(af);
    if (!mfc) continue;
    for (auto const& [sg, e] : engine.entries(af))
      if (e.origin == KernelEntry::drop) out.push_back({af, EntryRow{sg, &e, mfc->counters(sg.source, sg.group)}});
  }
  return out;
}

std::string idName(Wirly::IntfId id) { return id.empty() ? std::string("-") : id.name(); }

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

std::string entryJson(EntryRow const& e) {
  std::ostringstream os;
  os << "{\"source\": " << jsonString(e.sg.source.str()) << ", \"group\": " << jsonString(e.sg.group.str())
     << ", \"installed\": " << (e.entry->installed ? "true" : "false") << ", \"packets\": " << e.counters.pkts
     << ", \"bytes\": " << e.counters.bytes << ", \"learnedNs\": " << e.entry->learnedNs
     << ", \"installedNs\": " << e.entry->installedNs << ", \"recovered\": " << (e.entry->recovered ? "true" : "false");
  if (e.entry->error) os << ", \"error\": " << jsonString(std::strerror(e.entry->error));
  os << "}";
  return os.str();
}

}  // namespace

std::string showText(RouteEngine const& engine) {
  std::ostringstream os;
  if (engine.routes().empty()) os << "no routes\n";
  for (auto const& [vrf, routes] : engine.routes()) {
    if (routes.empty()) continue;
    bool const kernel = vrf == RouteEngine::kernelVrf;
    os << "VRF " << vrf << (kernel ? "" : " (no kernel table: not programmed)") << "\n";
    for (RouteRow const& r : rowsOf(engine, vrf, routes)) {
      RouteState const& st = *r.st;
      std::string oifs;
      for (Wirly::IntfId o : st.oifs) oifs += (oifs.empty() ? "" : ",") + o.name();
      os << "  " << RouteEngine::keyText(r.key) << "  " << st.app << " prio " << st.priority << "\n"
         << "    incoming " << idName(st.iif) << "  outgoing " << (oifs.empty() ? "-" : oifs) << "  oif set "
         << oifSetId(st) << "\n"
         << "    packets " << r.packets << "  bytes " << r.bytes << "  rpf failures " << r.rpfFailures << "  failures "
         << (failuresOf(st).empty() ? "none" : failuresOf(st)) << "\n";
      if (RouteEngine::isStarG(r.key))
        for (EntryRow const& e : r.entries)
          os << "      " << RouteEngine::sgText(e.sg) << (e.entry->installed ? "" : " NOT INSTALLED") << "  packets "
             << e.counters.pkts << "  bytes " << e.counters.bytes << "\n";
    }
  }
  auto drops = dropRows(engine);
  if (!drops.empty()) {
    os << "drop entries (no route)\n";
    for (auto const& [af, e] : drops)
      os << "  " << RouteEngine::sgText(e.sg) << (e.entry->installed ? "" : " NOT INSTALLED") << "  packets "
         << e.counters.pkts << "  bytes " << e.counters.bytes << "\n";
  }
  os << "upcalls " << engine.upcalls() << "  recovered flows " << engine.recoveredFlows() << "  routes not programmed "
     << engine.notProgrammed() << "  entries refused " << engine.failedEntries() << "\n";
  UpcallBudget const& b = *engine.budget();
  os << "flows without a route: admitted " << b.admittedReports() << "  over interface budget "
     << b.overIntfBudgetReports() << "  over total budget " << b.overTotalBudgetReports() << "  drop entries "
     << b.dropEntries() << " of " << b.dropEntryMax() << "  refused at maximum " << b.dropEntryMaxRefusals() << "\n";
  return os.str();
}

std::string showJson(RouteEngine const& engine) {
  std::ostringstream os;
  os << "{\"vrfs\": [";
  bool firstVrf = true;
  for (auto const& [vrf, routes] : engine.routes()) {
    if (routes.empty()) continue;
    os << (firstVrf ? "" : ", ") << "{\"name\": " << jsonString(vrf)
       << ", \"kernel\": " << (vrf == RouteEngine::kernelVrf ? "true" : "false") << ", \"routes\": [";
    firstVrf = false;
    bool firstRoute = true;
    for (RouteRow const& r : rowsOf(engine, vrf, routes)) {
      RouteState const& st = *r.st;
      os << (firstRoute ? "" : ", ") << "{\"source\": "
         << jsonString(RouteEngine::isStarG(r.key) ? std::string("*") : r.key.source().address().str())
         << ", \"group\": " << jsonString(r.key.group().address().str()) << ", \"app\": " << jsonString(st.app)
         << ", \"priority\": " << st.priority << ", \"iif\": " << jsonString(idName(st.iif)) << ", \"oifs\": [";
      firstRoute = false;
      for (std::size_t i = 0; i < st.oifs.size(); ++i) os << (i ? ", " : "") << jsonString(st.oifs[i].name());
      os << "], \"oifSet\": " << jsonString(oifSetId(st)) << ", \"packets\": " << r.packets
         << ", \"bytes\": " << r.bytes << ", \"rpfFailures\": " << r.rpfFailures
         << ", \"failures\": " << jsonString(failuresOf(st)) << ", \"entries\": [";
      for (std::size_t i = 0; i < r.entries.size(); ++i) os << (i ? ", " : "") << entryJson(r.entries[i]);
      os << "]}";
    }
    os << "]}";
  }
  os << "], \"dropEntries\": [";
  auto drops = dropRows(engine);
  for (std::size_t i = 0; i < drops.size(); ++i) os << (i ? ", " : "") << entryJson(drops[i].second);
  os << "], \"upcalls\": " << engine.upcalls() << ", \"recovered\": " << engine.recoveredFlows()
     << ", \"notProgrammed\": " << engine.notProgrammed() << ", \"refused\": " << engine.failedEntries();
  UpcallBudget const& b = *engine.budget();
  os << ", \"unrouted\": {\"admitted\": " << b.admittedReports()
     << ", \"overIntfBudget\": " << b.overIntfBudgetReports() << ", \"overTotalBudget\": " << b.overTotalBudgetReports()
     << ", \"dropEntries\": " << b.dropEntries() << ", \"dropEntryMax\": " << b.dropEntryMax()
     << ", \"dropEntryMaxRefusals\": " << b.dropEntryMaxRefusals() << "}}\n";
  return os.str();
}

ShowServer::ShowServer(Kiv::EventLoop& loop, RouteEngine const& engine, std::string path, Limits limits)
    : server_(
          loop, std::move(path), {"show socket", "MROUTE_AGENT_DIR"},
          [&engine](std::string const& request, Kiv::RequestServer::Peer const&) {
            if (request == "show json") return Kiv::RequestServer::Answer::okIs(showJson(engine));
            if (request == "show text") return Kiv::RequestServer::Answer::okIs(showText(engine));
            return Kiv::RequestServer::Answer::errorIs("unknown request '" + request + "'");
          },
          limits) {}

int showAnswer(int fd, std::ostream& out, std::ostream& err) {
  Kiv::RequestReply const reply = Kiv::requestAnswer(fd, "the agent");
  if (reply.status == Kiv::RequestReply::ok) {
    out << reply.text;
    return 0;
  }
  err << "mroute-agent: " << (reply.status == Kiv::RequestReply::refused ? "the agent answered: " : "") << reply.text
      << "\n";
  return 1;
}

}  // namespace MrouteAgent
