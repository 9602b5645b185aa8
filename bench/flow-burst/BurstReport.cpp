#include "BurstReport.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <istream>
#include <ostream>
#include <sstream>

namespace FlowBurst {

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return -1;
  std::sort(v.begin(), v.end());
  auto rank = std::size_t(std::ceil(p / 100.0 * double(v.size())));
  rank = std::clamp<std::size_t>(rank, 1, v.size());
  return v[rank - 1];
}

Figures summarize(std::vector<FlowTimes> const& flows, unsigned installedAtEnd) {
  Figures f;
  f.flows = unsigned(flows.size());
  f.installed = installedAtEnd;
  std::int64_t firstSent = -1, lastSent = -1, lastEntry = -1;
  std::vector<double> entryMs, deliveryMs;
  for (auto const& t : flows) {
    if (t.sentNs >= 0) {
      if (firstSent < 0 || t.sentNs < firstSent) firstSent = t.sentNs;
      lastSent = std::max(lastSent, t.sentNs);
    }
    if (t.reportedNs >= 0) ++f.reported;
    if (t.unresolvedNs >= 0) ++f.upcallsQueued;
    if (t.entryNs >= 0) {
      ++f.entriesSeen;
      lastEntry = std::max(lastEntry, t.entryNs);
      if (t.sentNs >= 0) entryMs.push_back(double(t.entryNs - t.sentNs) / 1e6);
    }
    if (t.deliveredNs >= 0) {
      ++f.delivered;
      if (t.sentNs >= 0) deliveryMs.push_back(double(t.deliveredNs - t.sentNs) / 1e6);
    }
  }
  if (firstSent >= 0) f.sendSeconds = double(lastSent - firstSent) / 1e9;
  f.entryMedianMs = percentile(entryMs, 50);
  f.entryP99Ms = percentile(entryMs, 99);
  f.deliveryMedianMs = percentile(deliveryMs, 50);
  f.deliveryP99Ms = percentile(deliveryMs, 99);
  if (firstSent >= 0 && lastEntry > firstSent) {
    double const span = double(lastEntry - firstSent) / 1e9;
    f.installRate = double(f.entriesSeen) / span;
    if (f.entriesSeen == f.flows) f.allEntriesSeconds = span;
  }
  return f;
}

namespace {

std::string fixed(double v, int digits) {
  std::ostringstream s;
  if (v < 0) return std::string("-");
  s << std::fixed << std::setprecision(digits) << v;
  return s.str();
}

}  // namespace

void writeFigures(std::ostream& out, std::string const& system, Figures const& f) {
  out << "system " << system << '\n'
      << "flows " << f.flows << '\n'
      << "burst_s " << fixed(f.sendSeconds, 3) << '\n'
      << "burst_pps " << (f.sendSeconds > 0 ? fixed(f.flows / f.sendSeconds, 0) : "-") << '\n'
      << "upcalls_raised " << f.reported << '\n'
      << "upcalls_queued " << f.upcallsQueued << '\n'
      << "entries_seen " << f.entriesSeen << '\n'
      << "installed " << f.installed << '\n'
      << "installed_pct " << (f.flows ? fixed(100.0 * f.installed / f.flows, 1) : "-") << '\n'
      << "delivered " << f.delivered << '\n'
      << "entry_median_ms " << fixed(f.entryMedianMs, 3) << '\n'
      << "entry_p99_ms " << fixed(f.entryP99Ms, 3) << '\n'
      << "delivery_median_ms " << fixed(f.deliveryMedianMs, 3) << '\n'
      << "delivery_p99_ms " << fixed(f.deliveryP99Ms, 3) << '\n'
      << "all_entries_s " << fixed(f.allEntriesSeconds, 3) << '\n'
      << "entries_per_s " << fixed(f.installRate, 0) << '\n';
}

void writeTimes(std::ostream& out, std::vector<FlowTimes> const& flows) {
  out << "flow,sent_ns,reported_ns,unresolved_ns,entry_ns,delivered_ns\n";
  for (std::size_t i = 0; i < flows.size(); ++i) {
    auto const& t = flows[i];
    out << i << ',' << t.sentNs << ',' << t.reportedNs << ',' << t.unresolvedNs << ',' << t.entryNs << ','
        << t.deliveredNs << '\n';
  }
}

std::vector<FlowTimes> readTimes(std::istream& in) {
  std::vector<FlowTimes> flows;
  std::string line;
  while (std::getline(in, line)) {
    std::size_t i;
    FlowTimes t;
    char c[5];
    std::istringstream s(line);
    if (!(s >> i >> c[0] >> t.sentNs >> c[1] >> t.reportedNs >> c[2] >> t.unresolvedNs >> c[3] >> t.entryNs >> c[4] >>
          t.deliveredNs)) {
      continue;
    }
    if (i != flows.size()) continue;  // rows come in flow order; anything else is not this file
    flows.push_back(t);
  }
  return flows;
}

std::vector<AgentFlow> readAgentFlowLog(std::istream& in, std::string const& source, std::uint32_t firstGroup,
                                        std::size_t flows) {
  std::vector<AgentFlow> agent(flows);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream s(line);
    std::string family, src, grp, how;
    std::int64_t learned, installed;
    if (!(s >> family >> src >> grp >> learned >> installed >> how) || src != source) continue;
    // IPv6 flows differ in the group's last 32 bits, which firstGroup holds.
    std::uint32_t low;
    if (family == "ipv4") {
      in_addr g{};
      if (::inet_pton(AF_INET, grp.c_str(), &g) != 1) continue;
      low = ntohl(g.s_addr);
    } else if (family == "ipv6") {
      in6_addr g{};
      if (::inet_pton(AF_INET6, grp.c_str(), &g) != 1) continue;
      std::memcpy(&low, g.s6_addr + 12, sizeof low);
      low = ntohl(low);
    } else {
      continue;
    }
    std::uint32_t const i = low - firstGroup;
    if (i >= flows || agent[i].installedNs >= 0) continue;
    agent[i] = AgentFlow{learned, installed, how == "recovered"};
  }
  return agent;
}

void writeAgentFigures(std::ostream& out, std::vector<FlowTimes> const& flows, std::vector<AgentFlow> const& agent) {
  std::vector<double> learn, install, entry;
  unsigned logged = 0, recovered = 0;
  std::int64_t firstSent = -1, lastInstalled = -1;
  for (std::size_t i = 0; i < flows.size() && i < agent.size(); ++i) {
    auto const& t = flows[i];
    auto const& a = agent[i];
    if (t.sentNs >= 0 && (firstSent < 0 || t.sentNs < firstSent)) firstSent = t.sentNs;
    if (a.installedNs < 0) continue;
    ++logged;
    recovered += a.recovered;
    lastInstalled = std::max(lastInstalled, a.installedNs);
    install.push_back(double(a.installedNs - a.learnedNs) / 1e6);
    if (t.sentNs < 0) continue;
    learn.push_back(double(a.learnedNs - t.sentNs) / 1e6);
    entry.push_back(double(a.installedNs - t.sentNs) / 1e6);
  }
  double const span = firstSent >= 0 && lastInstalled > firstSent ? double(lastInstalled - firstSent) / 1e9 : -1;
  out << "agent_logged " << logged << '\n'
      << "agent_recovered " << recovered << '\n'
      << "agent_learn_median_ms " << fixed(percentile(learn, 50), 3) << '\n'
      << "agent_learn_p99_ms " << fixed(percentile(learn, 99), 3) << '\n'
      << "agent_install_median_ms " << fixed(percentile(install, 50), 3) << '\n'
      << "agent_install_p99_ms " << fixed(percentile(install, 99), 3) << '\n'
      << "agent_entry_median_ms " << fixed(percentile(entry, 50), 3) << '\n'
      << "agent_entry_p99_ms " << fixed(percentile(entry, 99), 3) << '\n'
      << "agent_all_installed_s " << (logged == flows.size() ? fixed(span, 3) : "-") << '\n'
      << "agent_installed_per_s " << (span > 0 ? fixed(logged / span, 0) : "-") << '\n';
}

FigureList readFigures(std::istream& in) {
  FigureList list;
  std::string line;
  while (std::getline(in, line)) {
    auto const sp = line.find(' ');
    if (sp == std::string::npos || sp == 0) continue;
    list.emplace_back(line.substr(0, sp), line.substr(sp + 1));
  }
  return list;
}

void printSideBySide(std::ostream& out, std::vector<FigureList> const& runs) {
  auto const find = [](FigureList const& l, std::string const& k) -> std::string {
    for (auto const& [key, value] : l) {
      if (key == k) return value;
    }
    return "-";
  };
  std::vector<std::string> keys;
  for (auto const& l : runs) {
    for (auto const& kv : l) {
      if (std::find(keys.begin(), keys.end(), kv.first) == keys.end()) keys.push_back(kv.first);
    }
  }
  std::size_t width = 0;
  for (auto const& k : keys) width = std::max(width, k.size());
  std::size_t column = 12;
  for (auto const& l : runs) {
    for (auto const& kv : l) column = std::max(column, kv.second.size() + 2);
  }
  for (auto const& k : keys) {
    out << std::left << std::setw(int(width) + 2) << k << std::right;
    for (auto const& l : runs) out << std::setw(int(column)) << find(l, k);
    out << '\n';
  }
}

}  // namespace FlowBurst
