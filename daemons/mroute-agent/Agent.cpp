#include "Agent.h"

#include <errno.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <map>
#include <string_view>

#include "AgentTrace.h"
#include "Journal.h"
#include "KernelMfc.h"
#include "Kiv/AttrServer.h"
#include "Kiv/Dir.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/PathTrust.h"
#include "Kiv/ServerSocket.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"
#include "LinkWatch.h"
#include "Mfib/MfibDir.h"
#include "Mfib/MfibDirSm.h"
#include "MrtNotify/MrtIcmpV6RelaySm.h"
#include "MrtNotify/MrtNotifySm.h"
#include "RouteEngine.h"
#include "RoutingSocketReader.h"
#include "Show.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"
#include "UpcallRecovery.h"
#include "Wirly/Pam.h"
#include "Wirly/Sys.h"

namespace MrouteAgent {

using namespace Routing::Multicast::Notify;
using Vorn::Multicast::Fib::MfibDir;
using Vorn::Multicast::Fib::MfibDirColl;

namespace {

constexpr double kRetryPeriod = 1.0;  // seconds between retries of refused entries
// A drop entry whose flow stopped this long ago goes (see expireDrops).
constexpr std::uint64_t kDropIdleNs = RouteEngine::dropIdleNs;
constexpr int kDropCheckEvery = 10;  // retry periods
// Receive buffer of the upcall sockets: a burst of reports must fit.
// MROUTE_AGENT_RCVBUF (bytes) overrides it, to measure the recovery of what
// a small queue loses.
constexpr int kUpcallRcvBuf = 32 << 20;
// Queue of the routing socket: the kernel holds a flow's first packet only
// if it could queue the flow's upcall here, so a burst must fit whole.
constexpr int kRoutingRcvBuf = 64 << 20;
// Every this many reports a batch looks at what is still queued; a report
// takes about this much of the queue (as the kernel counts it).
constexpr std::size_t kBatchCheck = 256;
constexpr std::size_t kReportBytes = 1024;
// A report waiting this long is taken up before newer ones (seconds).
constexpr double kMaxReportWaitS = 2.0;

int upcallRcvBuf() {
  char const* v = Wirly::Sys::sys().getenv("MROUTE_AGENT_RCVBUF");
  if (!v || !*v) return kUpcallRcvBuf;
  long const n = std::strtol(v, nullptr, 10);
  return n > 0 && n < (1l << 30) ? int(n) : kUpcallRcvBuf;
}

void setRcvBuf(int fd, int bytes) {
  Wirly::Sys& sys = Wirly::Sys::sys();
  if (sys.setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    sys.setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

// One no-cache report, as parsed.
struct NoCache {
  double seenAt;  // when it was parsed (the framework clock)
  Wirly::AddressFamily af;
  Wirly::IpGenAddr source;
  Wirly::IpGenAddr group;
  Wirly::IntfId intf;
};

// Hands each parsed upcall of one family on as its counter moves: no-cache
// reports to the batch, the others to the engine at once.
class UpcallWatch : public MrtNotifyPamManager::NotifieeConst {
 public:
  UpcallWatch(Kiv::Ptr<MrtNotifyPamManager> const& m, RouteEngine* engine, std::function<void(NoCache&&)> noCache)
      : NotifieeConst(m), engine_(engine), noCache_(std::move(noCache)) {}
  void onNoCacheCounter() override {
    auto const& m = *notifier()->noCacheMessage();
    noCache_({Kiv::System::currentTime(), notifier()->af(), m.source(), m.group(), m.intfId()});
  }
  void onWrongVifCounter() override {
    auto const& m = *notifier()->wrongVifMessage();
    engine_->handleWrongVif(notifier()->af(), m.source(), m.group(), m.intfId());
  }
  void onWholePktCounter() override {
    auto const& m = *notifier()->wholePktMessage();
    engine_->handleWholePkt(notifier()->af(), m.source(), m.group(), m.intfId());
  }

 private:
  RouteEngine* engine_;
  std::function<void(NoCache&&)> noCache_;
};

// A netlink receive error is a queue overflow: reports were lost.
class RxErrorWatch : public MrtNotifyNetlinkSocketPam::NotifieeConst {
 public:
  RxErrorWatch(Kiv::Ptr<MrtNotifyNetlinkSocketPam> const& p, std::function<void()> cb)
      : NotifieeConst(p), cb_(std::move(cb)) {}
  void onRxErrors() override { cb_(); }

 private:
  std::function<void()> cb_;
};

}  // namespace

std::string showSocketPath(std::string const& name) {
  return Kiv::PathTrust::runtimeDir("mroute-agent", "MROUTE_AGENT_DIR") + "/" + name + ".sock";
}

class AgentImpl {
 public:
  explicit AgentImpl(Agent::Options const& o) : opt_(o), journal_(Daemon::fdIsJournal(STDOUT_FILENO)) {}
  ~AgentImpl();
  int start();
  void run(std::function<bool()> const& stop);

 private:
  struct Family {
    Wirly::AddressFamily af;
    std::unique_ptr<KernelMfc> mfc;
    Kiv::Ptr<MrtNotifyPamManager> manager;
    Kiv::Ptr<MrtNotifySm> sm;
    std::unique_ptr<UpcallWatch> watch;
    std::unique_ptr<RxErrorWatch> errors;
    Kiv::Ptr<MrtIcmpV6RelaySm> relay;
    bool ownSocketUpcalls = false;  // IPv4 without netlink reports
    std::unique_ptr<RoutingSocketReader> routing;
    std::uint64_t notReports = 0;  // packets on the routing socket that were not reports
  };

  bool doIntfs();
  bool doDirectory();
  bool doKernel(Family& f);
  bool doSockets();
  bool doUpcalls(Family& f);
  void handleRoutingDatagram(Family& f, std::uint8_t const* data, std::size_t len);
  // Queues a no-cache report for the batch that ends this turn of the loop.
  void handleNoCache(NoCache&& r);
  void doNoCacheBatch();
  // Whether reports wait unread on a socket the batch is fed from.
  bool reportsWaiting() const;
  // Bytes the kernel holds queued on the report socket of af.
  std::size_t reportBytesQueued(Wirly::AddressFamily af) const;
  // Whether any upcall socket still holds datagrams.
  bool upcallsQueued() const;
  void emit(std::string const& line);
  // One line for what the upcall budget refused since the last one.
  void doBudgetLine();
  void handleLink(int ifIndex, bool up);
  std::string appNameOf(L3::VrfName const& vrf, Vorn::Multicast::Fib::Status const& table) const;

  Agent::Options opt_;
  bool journal_;  // stdout goes to the journal: every event line carries its priority
  Kiv::EventLoop loop_;
  std::vector<IntfConfig> intfs_;
  Kiv::Ptr<Stelo::EntityManager> em_;
  Kiv::Ptr<Kiv::Dir> dir_;
  Kiv::Ptr<Vorn::Multicast::Fib::MfibVornDir> vornDir_;
  std::unique_ptr<RouteEngine> engine_;
  Kiv::Ptr<Vorn::Multicast::Fib::MfibDirSm> dirSm_;
  std::vector<std::unique_ptr<Family>> families_;
  Kiv::EventLoop::TimerId flushTimer_ = 0;
  Kiv::EventLoop::TimerId retryTimer_ = 0;
  std::FILE* flowLog_ = nullptr;
  Kiv::Ptr<UpcallRecovery> recovery_;
  std::deque<NoCache> noCacheBatch_;  // oldest first
  Kiv::EventLoop::TimerId batchTimer_ = 0;
  std::uint64_t ticks_ = 0;
  std::uint64_t refusalsRetried_ = 0;  // the engine's refusal count at the last retry
  std::array<std::uint64_t, 3> budgetSeen_{};
  std::unique_ptr<LinkWatch> links_;
  std::unique_ptr<ShowServer> show_;
  Kiv::Ptr<Kiv::Dir> introspectRoot_;
  std::unique_ptr<Kiv::AttrServer> introspect_;
};

AgentImpl::~AgentImpl() {
  introspect_.reset();
  show_.reset();
  if (links_ && links_->fd() >= 0 && loop_.readable(links_->fd())) loop_.readableDel(links_->fd());
  links_.reset();
  recovery_ = nullptr;
  if (batchTimer_) loop_.timerDel(batchTimer_);
  if (flushTimer_) loop_.timerDel(flushTimer_);
  dirSm_ = nullptr;
  for (auto& f : families_) {
    if (f->mfc && f->mfc->fd() >= 0 && loop_.readable(f->mfc->fd())) loop_.readableDel(f->mfc->fd());
    f->relay = nullptr;
    f->routing.reset();
    f->errors.reset();
    f->watch.reset();
    f->sm = nullptr;
    f->manager = nullptr;
  }
  engine_.reset();
  families_.clear();
  if (flowLog_) std::fclose(flowLog_);
  Wirly::Pam::defaultEventLoopIs(nullptr);
}

void AgentImpl::emit(std::string const& line) {
  if (journal_) {
    // Work refused under load is what an operator must notice; the rest is
    // the ordinary course of events.
    bool const refused = line.starts_with("upcall budget:") || line.starts_with("drop entries at their maximum");
    std::fputs(Daemon::priorityPrefix(refused ? Daemon::Priority::warning : Daemon::Priority::info), stdout);
  }
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
}

bool AgentImpl::doIntfs() {
  std::uint16_t vif = 1;
  for (std::string const& spec : opt_.intfs) {
    std::size_t const eq = spec.find('=');
    std::string const idText = spec.substr(0, eq);
    std::string const linux = eq == std::string::npos ? spec : spec.substr(eq + 1);
    IntfConfig c;
    try {
      c.id = Wirly::IntfId(idText);
    } catch (std::exception const& e) {
      std::cerr << "mroute-agent: " << idText << " is not an interface name: " << e.what() << "\n";
      return false;
    }
    c.linuxName = linux;
    c.ifIndex = static_cast<int>(::if_nametoindex(linux.c_str()));
    if (c.ifIndex == 0) {
      std::cerr << "mroute-agent: unknown interface " << linux << " in this network namespace\n";
      return false;
    }
    if (vif >= KernelMfc::maxVifs) {
      std::cerr << "mroute-agent: at most " << KernelMfc::maxVifs - 1 << " interfaces\n";
      return false;
    }
    c.vif = vif++;
    intfs_.push_back(c);
  }
  if (intfs_.empty()) {
    std::cerr << "mroute-agent: no interface given (--intf)\n";
    return false;
  }
  return true;
}

std::string AgentImpl::appNameOf(L3::VrfName const& vrf, Vorn::Multicast::Fib::Status const& table) const {
  // The directory names the application that announced the table's URL.
  for (auto const& [app, entity] : *dir_) {
    auto appDir = Kiv::ptrCast<MfibDir>(entity);
    Kiv::Ptr<MfibDirColl> coll = appDir ? appDir->dirColl(vrf) : nullptr;
    if (coll && coll->vornUrl() == table.name().str()) return app.str();
  }
  return "?";
}

bool AgentImpl::doDirectory() {
  em_ = Stelo::EntityManager::entityManagerIs(&loop_);
  KivVorn::Mount mount(em_);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
  dir_ = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  if (!dir_) {
    std::cerr << "mroute-agent: cannot mount the MFIB directory under " << em_->root() << "\n";
    return false;
  }
  vornDir_ = Vorn::Multicast::Fib::mfibVornDirFactory();
  engine_ = std::make_unique<RouteEngine>(
      intfs_, vornDir_,
      [this](L3::VrfName const& v, Vorn::Multicast::Fib::Status const& t) { return appNameOf(v, t); });
  engine_->budget()->settingsIs(opt_.budget);
  engine_->sinkIs([this](std::string const& line) { emit(line); });
  engine_->flushRequestIs([this] {
    if (flushTimer_ == 0)
      flushTimer_ = loop_.timerIs(0, [this] {
        flushTimer_ = 0;
        engine_->flush();
      });
  });
  return true;
}

bool AgentImpl::doSockets() {
  std::string attrPath, showPath;
  try {
    attrPath = Kiv::AttrServer::defaultPath(opt_.name);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: no introspection socket: " << e.what() << "\n";
    return false;
  }
  try {
    showPath = showSocketPath(opt_.name);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: no show socket: " << e.what() << "\n";
    return false;
  }
  // One directory for both would have the second socket replace the first.
  if (attrPath == showPath) {
    std::cerr << "mroute-agent: the show socket and the introspection socket would both be " << showPath
              << ": give MROUTE_AGENT_DIR and KIV_INTROSPECT_DIR different directories\n";
    return false;
  }
  // Another agent of the same name (in another network namespace, say)
  // keeps its sockets: this one does not start.
  auto inUse = [this](Kiv::SocketInUseException const& e) {
    std::cerr << "mroute-agent: " << e.what() << ": an agent named '" << opt_.name
              << "' runs already; stop it or give this one another --name\n";
    return false;
  };
  try {
    introspect_ = std::make_unique<Kiv::AttrServer>(loop_, introspectRoot_, attrPath);
  } catch (Kiv::SocketInUseException const& e) {
    return inUse(e);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: no introspection socket: " << e.what() << "\n";
    return false;
  }
  try {
    show_ = std::make_unique<ShowServer>(loop_, *engine_, showPath);
  } catch (Kiv::SocketInUseException const& e) {
    return inUse(e);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: no show socket: " << e.what() << "\n";
    return false;
  }
  return true;
}

bool AgentImpl::doKernel(Family& f) {
  f.mfc = std::make_unique<KernelMfc>(f.af);
  try {
    f.mfc->open();
    for (IntfConfig const& c : intfs_) f.mfc->vifIs(c.vif, c.ifIndex);
  } catch (Kiv::ErrnoException const& e) {
    std::cerr << "mroute-agent: " << (f.af == Wirly::ipv4 ? "IPv4" : "IPv6") << ": " << e.call() << ": "
              << std::strerror(e.error());
    if (e.error() == EADDRINUSE) std::cerr << " (another agent owns the kernel's multicast routing table)";
    // The raw socket itself needs CAP_NET_RAW, the table on it CAP_NET_ADMIN.
    if (e.error() == EPERM || e.error() == EACCES)
      std::cerr << " (needs " << (e.call() == "socket" ? "CAP_NET_RAW" : "CAP_NET_ADMIN") << ": run as root)";
    std::cerr << "\n";
    return false;
  }
  engine_->mfcIs(f.af, f.mfc.get());
  return true;
}

void AgentImpl::handleRoutingDatagram(Family& f, std::uint8_t const* data, std::size_t len) {
  // The routing socket also receives the packets of its protocol that reach
  // this host (IPv4: every IGMP report, whose TTL of 1 reads as a no-cache
  // type). The kernel's own reports have a zero where a packet has its IP
  // protocol (IPv4, byte 9) or its ICMPv6 type (IPv6, byte 0).
  std::size_t const mbz = f.af == Wirly::ipv4 ? 9 : 0;
  if (len <= mbz || data[mbz] != 0) {
    ++f.notReports;
    KIV_TRACE(agentTrace(), 9, "routing socket: a packet, not a kernel report (" << len << " bytes), ignored");
    return;
  }
  Kiv::Ptr<Wirly::Pkt> pkt = Wirly::PktManager::global().newPkt(len);
  pkt->headDataIs(len);
  std::memcpy(pkt->data(), data, len);
  f.manager->readMrtMessage(pkt, engine_->kernelStatus(f.af));
}

void AgentImpl::handleNoCache(NoCache&& r) {
  Wirly::AddressFamily const af = r.af;
  noCacheBatch_.push_back(std::move(r));
  // A batch ends early once little is left queued behind it: then its
  // newest flows are at the head of the kernel's list anyway, and the
  // oldest need not wait for a steady stream to pause.
  if (noCacheBatch_.size() % kBatchCheck == 0 && reportBytesQueued(af) < kBatchCheck * kReportBytes) {
    doNoCacheBatch();
    return;
  }
  if (batchTimer_ == 0)
    batchTimer_ = loop_.timerIs(0, [this] {
      batchTimer_ = 0;
      doNoCacheBatch();
    });
}

void AgentImpl::doNoCacheBatch() {
  // Newest first: the kernel keeps its waiting flows newest first and
  // searches them from there when an entry is written, so any other order
  // walks past every flow still waiting, for every entry; and reports that
  // came since go first too, so a chunk at a time and then read again. A
  // report that has waited long goes first all the same: the kernel drops a
  // waiting flow's packet after about 10 s.
  std::size_t done = 0;
  while (!noCacheBatch_.empty()) {
    if (++done % kBatchCheck == 0 && reportsWaiting()) {
      if (batchTimer_ == 0)
        batchTimer_ = loop_.timerIs(0, [this] {
          batchTimer_ = 0;
          doNoCacheBatch();
        });
      return;
    }
    bool const late = Kiv::System::currentTime() - noCacheBatch_.front().seenAt > kMaxReportWaitS;
    NoCache const r = late ? std::move(noCacheBatch_.front()) : std::move(noCacheBatch_.back());
    if (late)
      noCacheBatch_.pop_front();
    else
      noCacheBatch_.pop_back();
    engine_->handleNoCache(r.af, r.source, r.group, r.intf);
  }
}

bool AgentImpl::reportsWaiting() const {
  std::vector<pollfd> fds;
  for (auto const& f : families_) {
    if (f->ownSocketUpcalls && f->mfc) fds.push_back({f->mfc->fd(), POLLIN, 0});
    if (f->manager && f->manager->pam() && f->manager->pam()->fileDesc())
      fds.push_back({f->manager->pam()->fileDesc()->fd(), POLLIN, 0});
  }
  return !fds.empty() && ::poll(fds.data(), fds.size(), 0) > 0;
}

std::size_t AgentImpl::reportBytesQueued(Wirly::AddressFamily af) const {
  for (auto const& f : families_) {
    if (f->af != af || !f->manager || !f->manager->pam() || !f->manager->pam()->fileDesc()) continue;
    std::uint32_t mem[SK_MEMINFO_VARS] = {};
    socklen_t len = sizeof mem;
    if (Wirly::Sys::sys().getsockopt(f->manager->pam()->fileDesc()->fd(), SOL_SOCKET, SO_MEMINFO, mem, &len) != 0)
      return 0;
    return mem[SK_MEMINFO_RMEM_ALLOC];
  }
  return 0;
}

bool AgentImpl::upcallsQueued() const {
  std::vector<pollfd> fds;
  for (auto const& f : families_) {
    if (f->mfc && f->routing) fds.push_back({f->mfc->fd(), POLLIN, 0});
    if (f->manager && f->manager->pam() && f->manager->pam()->fileDesc())
      fds.push_back({f->manager->pam()->fileDesc()->fd(), POLLIN, 0});
  }
  return !fds.empty() && ::poll(fds.data(), fds.size(), 0) > 0;
}

bool AgentImpl::doUpcalls(Family& f) {
  Wirly::NamespaceName const here;
  bool const noNetlink = Wirly::Sys::sys().getenv("MCAST_NO_NETLINK") != nullptr;
  f.manager = mrtNotifyPamManagerFactory(f.af, here);
  try {
    if (f.af == Wirly::ipv4) {
      // MROUTE_AGENT_IPV4_UPCALLS=socket takes the routing socket's reports
      // even where netlink has them: the path of kernels without them.
      char const* source = Wirly::Sys::sys().getenv("MROUTE_AGENT_IPV4_UPCALLS");
      bool const socketOnly = source != nullptr && std::string_view(source) == "socket";
      if (!socketOnly && MrtNotifyNetlinkSocketPam::kernelPublishesIpv4Reports(here)) {
        f.manager->ipv4NativeReportsIs(true);
        f.manager->useNetlinkIs(true);
      } else {
        f.ownSocketUpcalls = true;
      }
    }
    f.manager->optionsIs(nocache | wrongvif | wholepkt);
    f.watch =
        std::make_unique<UpcallWatch>(f.manager, engine_.get(), [this](NoCache&& r) { handleNoCache(std::move(r)); });
    if (!f.ownSocketUpcalls) {
      f.sm = mrtNotifySmFactory(f.manager, engine_->kernelStatus(f.af));
      // A review reads what is queued before any of it is installed (the
      // batch, newest first): with a backlog, installing oldest reports while
      // newer ones wait unread would walk the kernel's whole waiting list
      // for every entry. Without one, a review ends as soon as the queue is empty.
      f.sm->loopQuantumIs(0.5);
      f.sm->handleInitialized();
      if (f.manager->pam()->fileDesc()) setRcvBuf(f.manager->pam()->fileDesc()->fd(), upcallRcvBuf());
      // The kernel says ENOBUFS when the report queue overran.
      if (auto nl = Kiv::ptrCast<MrtNotifyNetlinkSocketPam>(f.manager->pam()))
        f.errors = std::make_unique<RxErrorWatch>(nl, [this, af = f.af] { recovery_->handleLoss(af); });
    }
    if (f.af == Wirly::ipv6 && noNetlink) {
      // The kernel is taken to have no IPv6 netlink reports: the relay reads
      // them from this agent's routing socket and re-sends them.
      f.relay = mrtIcmpV6RelaySmFactory("MrtIcmpV6Relay", here, engine_->kernelStatus(f.af));
      f.relay->loopQuantumIs(0.05);
      f.relay->mrtSkSdIs(f.mfc->fd());
    }
  } catch (Kiv::ErrnoException const& e) {
    std::cerr << "mroute-agent: " << (f.af == Wirly::ipv4 ? "IPv4" : "IPv6") << " upcalls: " << e.call() << ": "
              << std::strerror(e.error()) << "\n";
    return false;
  }
  recovery_->familyIs(f.af);
  if (!f.relay) {
    setRcvBuf(f.mfc->fd(), kRoutingRcvBuf);
    RoutingSocketReader::Datagram parse;
    if (f.ownSocketUpcalls)
      parse = [this, &f](std::uint8_t const* p, std::size_t n) { handleRoutingDatagram(f, p, n); };
    f.routing = std::make_unique<RoutingSocketReader>(f.mfc->fd(), parse);
    f.routing->dropsIs([this](std::uint64_t n) { recovery_->routingSocketDropsInc(n); });
    // Where it is the source of reports, a turn reads a backlog whole (as above).
    unsigned const batches = f.ownSocketUpcalls ? 1024 : 16;
    loop_.readableIs(f.mfc->fd(), [&f, batches] { f.routing->handleReadable(batches); });
  }
  return true;
}

int AgentImpl::start() {
  Wirly::Pam::defaultEventLoopIs(&loop_);
  if (!doIntfs()) return 1;
  if (!opt_.flowLog.empty()) {
    flowLog_ = std::fopen(opt_.flowLog.c_str(), "w");
    if (!flowLog_) {
      std::cerr << "mroute-agent: cannot write " << opt_.flowLog << ": " << std::strerror(errno) << "\n";
      return 1;
    }
  }
  if (!doDirectory()) return 1;
  // The sockets before the kernel: an agent of the same name that runs
  // already is named before this one touches anything of the kernel's.
  introspectRoot_ = Kiv::Dir::DirIs(opt_.name);
  if (!doSockets()) return 1;
  for (Wirly::AddressFamily af : {Wirly::ipv4, Wirly::ipv6}) {
    if ((af == Wirly::ipv4 && !opt_.ipv4) || (af == Wirly::ipv6 && !opt_.ipv6)) continue;
    families_.push_back(std::make_unique<Family>());
    families_.back()->af = af;
    if (!doKernel(*families_.back())) return 1;
  }
  recovery_ = UpcallRecovery::upcallRecoveryIs(
      "upcallRecovery", &loop_, [this](Wirly::AddressFamily af, Wirly::IpGenAddr const& s, Wirly::IpGenAddr const& g) {
        engine_->handleRecovered(af, s, g);
      });
  recovery_->pendingIs([this] { return upcallsQueued(); });
  for (auto& f : families_)
    if (!doUpcalls(*f)) return 1;
  if (flowLog_) {
    engine_->flowLogIs([this](Wirly::AddressFamily af, SgKey const& sg, KernelEntry const& e) {
      std::fprintf(flowLog_, "%s %s %s %llu %llu %s\n", af == Wirly::ipv4 ? "ipv4" : "ipv6", sg.source.str().c_str(),
                   sg.group.str().c_str(), static_cast<unsigned long long>(e.learnedNs),
                   static_cast<unsigned long long>(e.installedNs), e.recovered ? "recovered" : "upcall");
    });
  }
  // Flows the kernel held before this agent could hear of them, read while
  // the table holds nothing of this agent's: a dump's cost grows faster
  // than the table (the kernel walks it from the start for every part).
  recovery_->doScan();
  // The tables last: every route found now is programmed at once.
  dirSm_ = Vorn::Multicast::Fib::mfibDirSmFactory(dir_, vornDir_, em_);
  engine_->flush();
  introspectRoot_->entryIs("mfibDir", dir_);
  introspectRoot_->entryIs("mfibVornDir", vornDir_);
  introspectRoot_->entryIs("mfibDirSm", dirSm_);
  introspectRoot_->entryIs("mroute4", engine_->mrouteTableColl(Wirly::ipv4));
  introspectRoot_->entryIs("mroute6", engine_->mrouteTableColl(Wirly::ipv6));
  introspectRoot_->entryIs("kernelMfib4", engine_->kernelStatus(Wirly::ipv4));
  introspectRoot_->entryIs("kernelMfib6", engine_->kernelStatus(Wirly::ipv6));
  introspectRoot_->entryIs("upcallBudget", engine_->budget());
  introspectRoot_->entryIs("upcallRecovery", recovery_);
  for (auto& f : families_)
    if (f->manager) introspectRoot_->entryIs(f->af == Wirly::ipv4 ? "upcalls4" : "upcalls6", f->manager);
  links_ = std::make_unique<LinkWatch>([this](int ifIndex, bool up) { handleLink(ifIndex, up); });
  try {
    links_->open();
  } catch (Kiv::ErrnoException const& e) {
    std::cerr << "mroute-agent: no link events: " << e.call() << ": " << std::strerror(e.error()) << "\n";
    return 1;
  }
  loop_.readableIs(links_->fd(), [this] { links_->handleReadable(); });
  links_->handleReadable();
  emit("ready");
  std::fflush(stdout);
  return 0;
}

void AgentImpl::handleLink(int ifIndex, bool up) {
  for (IntfConfig const& c : intfs_)
    if (c.ifIndex == ifIndex) engine_->handleLink(c.id, up);
}

void AgentImpl::doBudgetLine() {
  UpcallBudget const& b = *engine_->budget();
  std::uint64_t const intf = b.overIntfBudgetReports(), total = b.overTotalBudgetReports(),
                      cap = b.dropEntryMaxRefusals();
  std::uint64_t const n = intf + total + cap - budgetSeen_[0] - budgetSeen_[1] - budgetSeen_[2];
  if (n == 0) return;
  emit("upcall budget: refused " + std::to_string(n) + " reports of flows without a route (interface " +
       std::to_string(intf - budgetSeen_[0]) + ", total " + std::to_string(total - budgetSeen_[1]) +
       ", drop entries at maximum " + std::to_string(cap - budgetSeen_[2]) + ")");
  budgetSeen_ = {intf, total, cap};
}

void AgentImpl::run(std::function<bool()> const& stop) {
  retryTimer_ = 0;
  // Once a second, and costing nothing while there is nothing to do: each
  // step below walks the entries only when some need it (a refusal since the
  // last retry, or one still refused; drop entries held).
  std::function<void()> retry = [this, &retry] {
    if (engine_->writeRefusals() != refusalsRetried_) {
      refusalsRetried_ = engine_->writeRefusals();
      engine_->retryFailed();  // a write refused again counts anew: retried next time
    }
    if (flowLog_) std::fflush(flowLog_);
    doBudgetLine();
    if (++ticks_ % kDropCheckEvery == 0 && engine_->budget()->dropEntries() != 0) engine_->expireDrops(kDropIdleNs);
    retryTimer_ = loop_.timerIs(kRetryPeriod, retry);
  };
  retryTimer_ = loop_.timerIs(kRetryPeriod, retry);
  // Event lines go out once per turn of the loop, before it waits again: a
  // burst of upcalls costs one write per turn instead of one per line, and
  // a reader still sees every line as soon as the turn that made it ends.
  while (!stop()) {
    loop_.runOnce(0.2);
    std::fflush(stdout);
  }
  loop_.timerDel(retryTimer_);
  if (flowLog_) std::fflush(flowLog_);
}

Agent::Agent(Options const& o) : impl_(std::make_unique<AgentImpl>(o)) {}
Agent::~Agent() = default;
int Agent::start() { return impl_->start(); }
void Agent::run(std::function<bool()> const& stop) { impl_->run(stop); }

}  // namespace MrouteAgent
