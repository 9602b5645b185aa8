#include "Show.h"

#include <errno.h>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

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
      for (auto const& [sg, entry] : engine.entriesOf(key)) {
        EntryRow e{sg, entry, mfc->counters(sg.source, sg.group)};
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
    for (auto const& [sg, e] : engine.dropEntries(af))
      out.push_back({af, EntryRow{sg, e, mfc->counters(sg.source, sg.group)}});
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
    : loop_(loop), engine_(engine), limits_(limits), socket_(std::move(path), {"show socket", "MROUTE_AGENT_DIR"}) {
  writable_ = Kiv::FileDesc(::epoll_create1(EPOLL_CLOEXEC));
  if (!writable_) throw Kiv::ErrnoException("epoll_create1", errno);
  loop_.readableIs(writable_.fd(), [this] { handleWritable(); });
  loop_.readableIs(socket_.fd(), [this] { doAccept(); });
  accepting_ = true;
}

ShowServer::~ShowServer() {
  while (!clients_.empty()) doDrop(clients_.begin()->first);
  if (accepting_) loop_.readableDel(socket_.fd());
  loop_.readableDel(writable_.fd());
}

void ShowServer::doTimer(int fd, double seconds) {
  Client& c = clients_[fd];
  if (c.timer != 0) loop_.timerDel(c.timer);
  c.timer = loop_.timerIs(seconds, [this, fd] { handleTimer(fd); });
}

void ShowServer::handleTimer(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& c = it->second;
  c.timer = 0;
  if (!c.polled) {
    doDrop(fd);  // no request in time
    return;
  }
  // Progress is the client taking bytes: what the agent sent since the last
  // look, or a shorter queue of bytes the client has not read.
  int queued = 0;
  bool const known = ::ioctl(fd, SIOCOUTQ, &queued) == 0;
  if (c.sent != c.sentAtCheck || (known && std::size_t(queued) < c.queuedAtCheck)) {
    c.sentAtCheck = c.sent;
    c.queuedAtCheck = known ? std::size_t(queued) : SIZE_MAX;
    doTimer(fd, limits_.stallTimeout);
    return;
  }
  ++stalled_;
  doDrop(fd);
}

void ShowServer::doAccept() {
  while (clients_.size() < limits_.maxClients) {
    int const fd = ::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    Kiv::FileDesc conn(fd);
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != ::getuid()) continue;
    clients_[fd].fd = std::move(conn);
    doTimer(fd, requestTimeout);
    loop_.readableIs(fd, [this, fd] { doRead(fd); });
  }
  // Full: the rest wait in the listen queue until a client goes.
  loop_.readableDel(socket_.fd());
  accepting_ = false;
}

void ShowServer::doRead(int fd) {
  Client& c = clients_[fd];
  char buf[512];
  ssize_t const n = ::read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    doDrop(fd);
    return;
  }
  c.in.append(buf, static_cast<std::size_t>(n));
  std::size_t const nl = c.in.find('\n');
  if (nl == std::string::npos) {
    if (c.in.size() > 256) doDrop(fd);
    return;
  }
  std::string const request = c.in.substr(0, nl);
  loop_.readableDel(fd);
  if (request == "show json" || request == "show text") {
    std::string body = request == "show json" ? showJson(engine_) : showText(engine_);
    if (body.size() > limits_.maxAnswerBytes) {
      c.out = "error the answer would be " + std::to_string(body.size()) + " bytes, more than the " +
              std::to_string(limits_.maxAnswerBytes) + " the agent sends\n";
    } else {
      c.out = "ok " + std::to_string(body.size()) + "\n";
      c.out.reserve(c.out.size() + body.size());
      c.out += body;
    }
  } else {
    c.out = "error unknown request '" + request + "'\n";
  }
  doWrite(fd);
}

void ShowServer::doWrite(int fd) {
  Client& c = clients_[fd];
  while (c.sent < c.out.size()) {
    ssize_t const w = ::send(fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (w <= 0) {
      doDrop(fd);
      return;
    }
    c.sent += static_cast<std::size_t>(w);
  }
  if (c.sent == c.out.size()) {
    doDrop(fd);
    return;
  }
  if (c.polled) return;
  epoll_event ev{};
  ev.events = EPOLLOUT;
  ev.data.fd = fd;
  if (::epoll_ctl(writable_.fd(), EPOLL_CTL_ADD, fd, &ev) != 0) {
    doDrop(fd);
    return;
  }
  c.polled = true;
  // The bound is on a reader that takes nothing, not on a slow one: looked
  // at once per stallTimeout.
  int queued = 0;
  c.sentAtCheck = c.sent;
  c.queuedAtCheck = ::ioctl(fd, SIOCOUTQ, &queued) == 0 ? std::size_t(queued) : SIZE_MAX;
  doTimer(fd, limits_.stallTimeout);
}

void ShowServer::handleWritable() {
  epoll_event events[16];
  int const n = ::epoll_wait(writable_.fd(), events, 16, 0);
  for (int i = 0; i < n; ++i)
    if (clients_.count(events[i].data.fd)) doWrite(events[i].data.fd);
}

void ShowServer::doDrop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  if (loop_.readable(fd)) loop_.readableDel(fd);
  if (it->second.polled) ::epoll_ctl(writable_.fd(), EPOLL_CTL_DEL, fd, nullptr);
  if (it->second.timer != 0) loop_.timerDel(it->second.timer);
  clients_.erase(it);
  if (!accepting_ && clients_.size() < limits_.maxClients) {
    accepting_ = true;
    loop_.readableIs(socket_.fd(), [this] { doAccept(); });
  }
}

int showAnswer(int fd, std::ostream& out, std::ostream& err) {
  std::string answer;
  char buf[65536];
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      err << "mroute-agent: reading the agent's answer: " << std::strerror(errno) << "\n";
      return 1;
    }
    if (n == 0) break;
    answer.append(buf, std::size_t(n));
  }
  std::size_t const nl = answer.find('\n');
  std::string const head = answer.substr(0, nl);
  if (nl != std::string::npos && head.rfind("error ", 0) == 0) {
    err << "mroute-agent: the agent answered: " << head.substr(6) << "\n";
    return 1;
  }
  char* end = nullptr;
  unsigned long long const size = head.rfind("ok ", 0) == 0 ? std::strtoull(head.c_str() + 3, &end, 10) : 0;
  if (nl == std::string::npos || end == nullptr || *end != '\0') {
    err << "mroute-agent: the agent's answer is incomplete or not understood (" << answer.size()
        << " bytes, no header)\n";
    return 1;
  }
  std::size_t const got = answer.size() - nl - 1;
  if (got < size) {
    err << "mroute-agent: the agent's answer is incomplete: " << got << " of " << size << " bytes arrived\n";
    return 1;
  }
  if (got > size) {
    err << "mroute-agent: the agent's answer is longer than announced: " << got << " bytes, not " << size << "\n";
    return 1;
  }
  out.write(answer.data() + nl + 1, std::streamsize(got));
  return 0;
}

}  // namespace MrouteAgent
