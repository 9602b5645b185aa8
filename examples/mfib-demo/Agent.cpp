// An agent that finds the publishers' MFIB tables through the MFIB directory
// alone: it mirrors the shared directory, MfibDirSm mounts what is announced
// into one MfibVornColl per VRF, and the agent runs one OrderRouteSm per VRF
// as collections come and go, driven by its own event loop. It shows each
// directory event, each best route with its interfaces resolved through the
// owning table (or its bit mapper table), and at the end checks every
// ordered collection against a brute-force pass.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "BestRouteCheck.h"
#include "Demo.h"
#include "Kiv/AttrServer.h"
#include "Kiv/EventLoop.h"
#include "Mfib/MfibDirSm.h"
#include "Mfib/MfibVorn.h"
#include "Mfib/RouteIntfIteratorConst.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"

namespace MfibDemo {

using namespace Vorn::Multicast::Fib;

namespace {

constexpr double kRoundPause = 0.15;    // seconds between two rounds
constexpr double kReplyTimeout = 10.0;  // for a publisher to answer
// Set (to a number of seconds, or 0), the agent serves introspection from
// its start and goes on serving that long after the last round.
constexpr char const* kIntrospectEnv = "MFIB_DEMO_INTROSPECT";
constexpr char const* kIntrospectName = "mfib-demo-agent";

std::string prefixText(Wirly::IpGenPrefix const& p) {
  std::ostringstream os;
  os << p.address();
  if (p.len() != (p.af() == Wirly::ipv4 ? 32 : 128)) os << "/" << unsigned(p.len());
  return os.str();
}

std::string keyText(IpGenRouteKey const& k) {
  return "(" + prefixText(k.source()) + ", " + prefixText(k.group()) + ")";
}

// What the agent shows of one key: who owns it and where it goes.
struct View {
  std::string owner;  // empty: the key has no best route
  std::string line;   // owner, interfaces and notes
  bool operator==(View const&) const = default;
};

class Agent {
 public:
  explicit Agent(std::vector<AgentPublisher> const& publishers);
  int run();

 private:
  struct Publisher {
    AgentPublisher wiring;
    std::string pending;
    bool ready = false;
    bool gone = false;
    bool stopped = false;  // said so; its going away is expected
    unsigned round = 1;
  };

  struct Vrf;

  class OrderedWatch : public RouteOrderedCollection::NotifieeConst {
   public:
    OrderedWatch(Kiv::Ptr<RouteOrderedCollection const> const& c, Agent* agent, Vrf* vrf)
        : RouteOrderedCollection::NotifieeConst(c), agent_(agent), vrf_(vrf) {}
    void onRoute(IpGenRouteKey key) override {
      ++agent_->orderedUpdates_;
      agent_->dirty_.insert({vrf_, key});
    }

   private:
    Agent* agent_;
    Vrf* vrf_;
  };

  // Route changes that leave the owner alone (new interfaces, a loser's
  // update) reach the agent only through the tables.
  class TableWatch : public Status::NotifieeConst {
   public:
    TableWatch(Kiv::Ptr<Status const> const& t, Agent* agent, Vrf* vrf)
        : Status::NotifieeConst(t), agent_(agent), vrf_(vrf) {}
    void onRoute(IpGenRouteKey key) override {
      ++agent_->tableChanges_;
      agent_->dirty_.insert({vrf_, key});
    }

   private:
    Agent* agent_;
    Vrf* vrf_;
  };

  // Tables entering and leaving a VRF's collection.
  class CollWatch : public MfibVornColl::NotifieeConst {
   public:
    CollWatch(Kiv::Ptr<MfibVornColl const> const& c, Agent* agent, Vrf* vrf)
        : MfibVornColl::NotifieeConst(c), agent_(agent), vrf_(vrf) {}
    void onVornPtr(Status const* key) override { agent_->handleTable(*vrf_, key); }

   private:
    Agent* agent_;
    Vrf* vrf_;
  };

  // VRF collections appearing and going.
  class VornDirWatch : public MfibVornDir::NotifieeConst {
   public:
    VornDirWatch(Kiv::Ptr<MfibVornDir const> const& d, Agent* agent) : MfibVornDir::NotifieeConst(d), agent_(agent) {}
    void onVornColl(L3::VrfName vrf) override { agent_->handleVrf(vrf); }

   private:
    Agent* agent_;
  };

  // Applications appearing in the directory and leaving it.
  class AppWatch : public Kiv::Dir::NotifieeConst {
   public:
    AppWatch(Kiv::Ptr<Kiv::Dir const> const& d, Agent* agent) : Kiv::Dir::NotifieeConst(d), agent_(agent) {}
    void onEntityPtr(Kiv::Name name) override {
      agent_->events_.push_back("directory: " + name.str() + (notifier()->entity(name) ? " announced" : " withdrawn"));
    }

   private:
    Agent* agent_;
  };

  struct Vrf {
    std::string name;
    Kiv::Ptr<MfibVornColl> coll;
    Kiv::Ptr<RouteOrderedCollection> ordered;
    Kiv::Ptr<OrderRouteSm> sm;
    std::map<Status const*, std::string> appOf;
    std::unique_ptr<OrderedWatch> orderedWatch;
    std::unique_ptr<CollWatch> collWatch;
    std::map<Status const*, std::unique_ptr<TableWatch>> tableWatches;
    std::map<IpGenRouteKey, View> shown;
    bool gone = false;
  };

  void handleReport(Publisher& p);
  bool waitFor(char const* what, std::function<bool(Publisher const&)> const& done);
  bool doStart();
  void handleVrf(L3::VrfName const& name);
  void handleTable(Vrf& vrf, Status const* key);
  std::string appOfTable(Vrf const& vrf, Status const& table) const;
  void doStartRound(unsigned round);
  View viewOf(Vrf& vrf, IpGenRouteKey const& key) const;
  std::string interfacesOf(Status const* table, IpGenRouteKey const& key) const;
  void printChanges();
  bool printCheck();

  Kiv::EventLoop loop_;
  Kiv::Ptr<Stelo::EntityManager> em_;
  std::vector<Publisher> publishers_;
  Kiv::Ptr<Kiv::Dir> dir_;
  Kiv::Ptr<MfibVornDir> vornDir_ = mfibVornDirFactory();
  std::unique_ptr<AppWatch> appWatch_;
  std::unique_ptr<VornDirWatch> vornDirWatch_;
  Kiv::Ptr<MfibDirSm> dirSm_;
  std::map<std::string, std::unique_ptr<Vrf>> vrfs_;  // by name; gone ones until they are shown
  std::vector<std::unique_ptr<Vrf>> retired_;
  std::vector<std::string> events_;
  std::set<std::pair<Vrf*, IpGenRouteKey>> dirty_;
  std::uint64_t orderedUpdates_ = 0;
  std::uint64_t tableChanges_ = 0;
  // Live introspection, when MFIB_DEMO_INTROSPECT asks for it: what the
  // agent holds, served from its loop under the name kIntrospectName.
  Kiv::Ptr<Kiv::Dir> introspectRoot_;
  std::unique_ptr<Kiv::AttrServer> introspect_;
};

Agent::Agent(std::vector<AgentPublisher> const& publishers) : em_(Stelo::EntityManager::entityManagerIs(&loop_)) {
  for (AgentPublisher const& p : publishers) {
    publishers_.emplace_back();
    publishers_.back().wiring = p;
  }
}

void Agent::handleReport(Publisher& p) {
  char buf[256];
  ssize_t const n = ::read(p.wiring.reportFd, buf, sizeof buf);
  if (n < 0) {
    if (errno == EINTR || errno == EAGAIN) return;
    std::cerr << "mfib-demo agent: read from " << p.wiring.app->name << ": " << std::strerror(errno) << "\n";
  }
  if (n <= 0) {
    p.gone = true;
    loop_.readableDel(p.wiring.reportFd);
    return;
  }
  p.pending.append(buf, static_cast<std::size_t>(n));
  for (std::size_t eol; (eol = p.pending.find('\n')) != std::string::npos; p.pending.erase(0, eol + 1)) {
    std::string const line = p.pending.substr(0, eol);
    if (line == "ready") {
      p.ready = true;
    } else if (line.rfind("round ", 0) == 0) {
      p.round = static_cast<unsigned>(std::stoul(line.substr(6)));
    } else if (line.rfind("stopped ", 0) == 0) {
      p.round = static_cast<unsigned>(std::stoul(line.substr(8)));
      p.stopped = true;
    }
  }
}

bool Agent::waitFor(char const* what, std::function<bool(Publisher const&)> const& done) {
  auto all = [&] {
    for (Publisher const& p : publishers_)
      if (!done(p) && !p.gone) return false;
    return true;
  };
  loop_.runUntil(all, kReplyTimeout);
  for (Publisher const& p : publishers_) {
    if (done(p)) continue;
    std::cerr << "mfib-demo agent: publisher " << p.wiring.app->name << (p.gone ? " went away" : " did not answer")
              << " while waiting for " << what << "\n";
    return false;
  }
  return true;
}

// Everything the agent knows comes from here: the directory's mirror, and
// MfibDirSm mounting what it announces.
bool Agent::doStart() {
  KivVorn::Mount mount(em_);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
  dir_ = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
  if (!dir_) {
    std::cerr << "mfib-demo agent: cannot mount the MFIB directory under " << em_->root() << "\n";
    return false;
  }
  for (auto const& [name, entity] : *dir_) events_.push_back("directory: " + name.str() + " announced");
  appWatch_ = std::make_unique<AppWatch>(dir_, this);
  vornDirWatch_ = std::make_unique<VornDirWatch>(vornDir_, this);
  dirSm_ = mfibDirSmFactory(dir_, vornDir_, em_);
  if (std::getenv(kIntrospectEnv) != nullptr) {
    introspectRoot_ = Kiv::Dir::DirIs("mfib-demo-agent");
    introspectRoot_->entryIs("mfibDir", dir_);
    introspectRoot_->entryIs("mfibVornDir", vornDir_);
    introspectRoot_->entryIs("mfibDirSm", dirSm_);
    try {
      introspect_ =
          std::make_unique<Kiv::AttrServer>(loop_, introspectRoot_, Kiv::AttrServer::defaultPath(kIntrospectName));
    } catch (std::exception const& e) {
      std::cerr << "mfib-demo agent: no introspection: " << e.what() << "\n";
      return false;
    }
    std::cerr << "mfib-demo agent: introspection on " << introspect_->path() << " (kivctl --agent " << kIntrospectName
              << " ls /)\n";
  }
  return true;
}

void Agent::handleVrf(L3::VrfName const& name) {
  if (Kiv::Ptr<MfibVornColl> coll = vornDir_->vornColl(name)) {
    auto vrf = std::make_unique<Vrf>();
    vrf->name = name.str();
    vrf->coll = coll;
    vrf->ordered = RouteOrderedCollection::create();
    // On an empty collection: every table enters afterwards, one at a time,
    // and each of its keys is decided by the collection's own rule.
    vrf->sm = orderRouteSmFactory(coll, vrf->ordered);
    vrf->orderedWatch = std::make_unique<OrderedWatch>(vrf->ordered, this, vrf.get());
    vrf->collWatch = std::make_unique<CollWatch>(coll, this, vrf.get());
    events_.push_back("vrf " + vrf->name + ": new collection");
    vrfs_[vrf->name] = std::move(vrf);
    return;
  }
  auto it = vrfs_.find(name.str());
  if (it == vrfs_.end()) return;
  events_.push_back("vrf " + it->first + ": collection removed, no table left");
  it->second->gone = true;
  it->second->collWatch = nullptr;
  retired_.push_back(std::move(it->second));
  vrfs_.erase(it);
}

std::string Agent::appOfTable(Vrf const& vrf, Status const& table) const {
  // The directory names the application that announced the table's URL.
  for (auto const& [app, entity] : *dir_) {
    auto appDir = Kiv::ptrCast<MfibDir>(entity);
    Kiv::Ptr<MfibDirColl> coll = appDir ? appDir->dirColl(vrf.name) : nullptr;
    if (coll && coll->vornUrl() == table.name().str()) return app.str();
  }
  return "?";
}

void Agent::handleTable(Vrf& vrf, Status const* key) {
  Kiv::Ptr<Status const> table = vrf.coll->vornPtr(key);
  auto markKeys = [&](Status const& t) {
    try {
      Vorn::IterHint hint;
      IpGenRouteKey k;
      Route r;
      for (bool more = t.routeTable().first(k, r, hint); more; more = t.routeTable().next(k, k, r, hint))
        dirty_.insert({&vrf, k});
    } catch (Pelto::CorruptionDetectedException const& e) {
      t.routeTable().corruptionDetected(e.what());
    }
  };
  if (table) {
    std::string const app = appOfTable(vrf, *table);
    vrf.appOf[key] = app;
    vrf.tableWatches[key] = std::make_unique<TableWatch>(table, this, &vrf);
    events_.push_back("vrf " + vrf.name + ": + table of " + app + " (" + table->name().str() + ")");
    markKeys(*table);
    return;
  }
  auto watch = vrf.tableWatches.find(key);
  if (watch == vrf.tableWatches.end()) return;
  Kiv::Ptr<Status const> left = watch->second->notifier();
  events_.push_back("vrf " + vrf.name + ": - table of " + vrf.appOf[key] + " (" + left->name().str() + ")");
  vrf.tableWatches.erase(watch);
  markKeys(*left);
  // The ordering machine leaves a departed table's keys where they are:
  // the agent hands each to the best table left, or drops it.
  std::vector<IpGenRouteKey> owned;
  for (auto const& [k, owner] : vrf.ordered->routeMap())
    if (owner == key) owned.push_back(k);
  for (IpGenRouteKey const& k : owned) {
    if (Status const* best = vrf.coll->vornKey(k))
      vrf.ordered->routeIs(k, best);
    else
      vrf.ordered->routeDel(k);
  }
}
std::string Agent::interfacesOf(Status const* table, IpGenRouteKey const& key) const {
  // A walk that meets a rewritten route ends early; read it again.
  for (int attempt = 0;; ++attempt) {
    Route const route = safeRoute(*table, key);
    if (route == Route()) return "(no route in the owner's table)";
    std::string in, out;
    RouteIntfIteratorConst it(table, route);
    for (it.next(); !it.done(); it.next()) {
      std::string& to = it.role() == RouteIntfRole::oif ? out : in;
      to += (to.empty() ? "" : " ") + it.intfId().name();
      if (it.role() != RouteIntfRole::oif && it.role() != RouteIntfRole::specialIntf1) {
        std::ostringstream role;
        role << "(" << it.role() << ")";
        to += role.str();
      }
    }
    if (!it.mappingMissing()) return in + " -> " + out;
    if (attempt == 3 || safeRoute(*table, key).version() == route.version())
      return in + " -> " + out + " (an index did not resolve)";
  }
}

View Agent::viewOf(Vrf& vrf, IpGenRouteKey const& key) const {
  std::optional<Status const*> const owner = vrf.ordered->route(key);
  if (!owner || *owner == nullptr) return {};
  View v;
  v.owner = vrf.appOf.at(*owner);
  std::ostringstream os;
  os << std::left << std::setw(7) << v.owner << " " << interfacesOf(*owner, key);
  std::vector<Status const*> const top = topTables(*vrf.coll, key);
  if (top.size() > 1) {
    os << "  [tied:";
    for (Status const* t : top) os << (t == top.front() ? " " : ", ") << vrf.appOf.at(t);
    os << "]";
  }
  v.line = os.str();
  return v;
}

void Agent::printChanges() {
  for (std::string const& e : events_) std::cout << "  * " << e << "\n";
  events_.clear();
  if (dirty_.empty()) std::cout << "  (no route change)\n";
  for (auto const& [vrf, key] : dirty_) {
    View const now = vrf->gone ? View() : viewOf(*vrf, key);
    auto it = vrf->shown.find(key);
    View const before = it == vrf->shown.end() ? View() : it->second;
    if (now == before) continue;
    std::ostringstream head;
    head << std::left << std::setw(8) << vrf->name << std::setw(23) << keyText(key);
    if (now.owner.empty()) {
      std::cout << "  - " << head.str() << "withdrawn (was " << before.owner << ")\n";
      vrf->shown.erase(key);
      continue;
    }
    std::cout << "  " << (before.owner.empty() ? "+ " : "~ ") << head.str() << now.line;
    if (!before.owner.empty() && before.owner != now.owner) std::cout << "  (was " << before.owner << ")";
    std::cout << "\n";
    vrf->shown[key] = now;
  }
  dirty_.clear();
  retired_.clear();
}

// Compares every ordered collection with the brute-force choice.
bool Agent::printCheck() {
  bool ok = true;
  for (auto const& [name, vrf] : vrfs_) {
    std::vector<Mismatch> const wrong = mismatches(*vrf->ordered, bestRoutes(*vrf->coll));
    for (Mismatch const& m : wrong) {
      ok = false;
      std::cout << "  MISMATCH " << std::left << std::setw(8) << vrf->name << std::setw(23) << keyText(m.key)
                << "ordered collection: " << (m.ordered ? vrf->appOf.at(m.ordered) : "none")
                << ", tables: " << (m.expected ? vrf->appOf.at(m.expected) : "none") << "\n";
    }
    std::cout << "  check " << std::left << std::setw(8) << vrf->name << vrf->ordered->routes()
              << " keys against a brute-force pass over " << vrf->coll->vornPtrs()
              << " tables: " << (wrong.empty() ? "agree" : "DISAGREE") << "\n";
  }
  return ok;
}

void Agent::doStartRound(unsigned round) {
  unsigned char const byte = static_cast<unsigned char>(round);
  for (Publisher& p : publishers_)
    if (!p.stopped && !p.gone && ::write(p.wiring.goFd, &byte, 1) != 1) p.gone = true;
}

int Agent::run() {
  for (Publisher& p : publishers_) loop_.readableIs(p.wiring.reportFd, [this, &p] { handleReport(p); });
  if (!waitFor("its first routes", [](Publisher const& p) { return p.ready; })) return 1;

  std::cout << "round 1: " << roundTitle(1) << "\n"
            << "  the agent mirrors the MFIB directory and mounts what it announces:\n";
  if (!doStart()) return 1;
  printChanges();
  std::cout << "  (ties: a VRF's tables are kept in the order they entered its collection, which is\n"
            << "  the order they were announced in; among tables tied at the top priority the first wins)\n";

  for (unsigned round = 2; round <= rounds; ++round) {
    loop_.runUntil([] { return false; }, kRoundPause);
    std::cout << "round " << round << ": " << roundTitle(round) << "\n";
    doStartRound(round);
    if (!waitFor("a round", [round](Publisher const& p) { return p.round >= round || p.stopped; })) return 1;
    // The publishers rang every doorbell and renamed every new table into
    // place before they answered: what is ready now is the rest of the
    // round (a table mounted on the way is read whole when it enters).
    while (loop_.runOnce(0) > 0) {
    }
    printChanges();
    std::cout.flush();
  }

  std::cout << "final routes:\n";
  for (auto const& [name, vrf] : vrfs_)
    for (auto const& [key, view] : vrf->shown)
      std::cout << "    " << std::left << std::setw(8) << vrf->name << std::setw(23) << keyText(key) << view.line
                << "\n";
  std::cout << "  heard " << tableChanges_ << " route changes in the tables, " << orderedUpdates_
            << " updates of the ordered collections\n";
  bool const ok = printCheck();
  if (char const* linger = std::getenv(kIntrospectEnv); linger != nullptr && introspect_) {
    std::cout.flush();
    loop_.runUntil([] { return false; }, std::strtod(linger, nullptr));
  }
  for (Publisher& p : publishers_) ::close(p.wiring.goFd);  // the publishers withdraw and leave
  return ok ? 0 : 1;
}

}  // namespace

int agentMain(std::vector<AgentPublisher> const& publishers) {
  Agent agent(publishers);
  return agent.run();
}

}  // namespace MfibDemo
