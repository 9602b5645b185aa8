// An agent that reads the publishers' MFIB tables: one MfibVornColl and one
// OrderRouteSm per VRF, driven by its own event loop, a view of each best
// route with its interfaces resolved through the owning table, and at the
// end a check of every ordered collection against a brute-force pass.
#include <unistd.h>

#include <cerrno>
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
#include "Kiv/EventLoop.h"
#include "Mfib/MfibVorn.h"
#include "Mfib/RouteIntfIteratorConst.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"

namespace MfibDemo {

using namespace Vorn::Multicast::Fib;

namespace {

constexpr double kRoundPause = 0.15;     // seconds between two rounds
constexpr double kReplyTimeout = 10.0;   // for a publisher to answer

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

  struct Vrf {
    std::string name;
    Kiv::Ptr<MfibVornColl> coll;
    Kiv::Ptr<RouteOrderedCollection> ordered;
    Kiv::Ptr<OrderRouteSm> sm;
    std::map<Status const*, std::string> appOf;
    std::unique_ptr<OrderedWatch> orderedWatch;
    std::vector<std::unique_ptr<TableWatch>> tableWatches;
    std::map<IpGenRouteKey, View> shown;
  };

  void handleReport(Publisher& p);
  bool waitFor(char const* what, std::function<bool(Publisher const&)> const& done);
  bool doMountTables();
  void doStartRound(unsigned round);
  View viewOf(Vrf& vrf, IpGenRouteKey const& key) const;
  std::string interfacesOf(Status const* table, IpGenRouteKey const& key) const;
  void printChanges();
  bool printCheck(bool final);

  Kiv::EventLoop loop_;
  Kiv::Ptr<Stelo::EntityManager> em_;
  KivVorn::Mount mount_;
  std::vector<Publisher> publishers_;
  std::vector<std::unique_ptr<Vrf>> vrfs_;
  std::set<std::pair<Vrf*, IpGenRouteKey>> dirty_;
  std::uint64_t orderedUpdates_ = 0;
  std::uint64_t tableChanges_ = 0;
};

Agent::Agent(std::vector<AgentPublisher> const& publishers)
    : em_(Stelo::EntityManager::entityManagerIs(&loop_)), mount_(em_) {
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
    if (line == "ready") p.ready = true;
    else if (line.rfind("round ", 0) == 0) p.round = static_cast<unsigned>(std::stoul(line.substr(6)));
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
    std::cerr << "mfib-demo agent: publisher " << p.wiring.app->name
              << (p.gone ? " went away" : " did not answer") << " while waiting for " << what << "\n";
    return false;
  }
  return true;
}

bool Agent::doMountTables() {
  for (char const* name : vrfs) {
    auto vrf = std::make_unique<Vrf>();
    vrf->name = name;
    vrf->coll = mfibVornCollFactory(L3::VrfName(name));
    for (Publisher const& p : publishers_) {
      std::string const url = tableUrl(name, p.wiring.app->name);
      mount_.doMount(url, Status::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::mfibReader));
      Kiv::Ptr<Status const> table = Kiv::ptrCast<Status>(mount_.getEntity(url));
      if (!table) {
        std::cerr << "mfib-demo agent: cannot mount " << url << " under " << em_->root() << "\n";
        return false;
      }
      vrf->coll->vornPtrIs(table.ptr(), table);
      vrf->appOf[table.ptr()] = p.wiring.app->name;
    }
    vrf->ordered = RouteOrderedCollection::create();
    vrf->sm = orderRouteSmFactory(vrf->coll, vrf->ordered);  // runs the initial pass
    vrf->orderedWatch = std::make_unique<OrderedWatch>(vrf->ordered, this, vrf.get());
    for (auto const& [key, table] : vrf->coll->vornPtrMap())
      vrf->tableWatches.push_back(std::make_unique<TableWatch>(table, this, vrf.get()));
    vrfs_.push_back(std::move(vrf));
  }
  return true;
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
  if (dirty_.empty()) std::cout << "  (no change)\n";
  for (auto const& [vrf, key] : dirty_) {
    View const now = viewOf(*vrf, key);
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
}

// Compares every ordered collection with the brute-force choice. Before
// any change only tied keys may differ (the initial pass keeps the last
// tied table); at the end nothing may.
bool Agent::printCheck(bool final) {
  bool ok = true;
  std::vector<std::string> tieNotes;
  for (auto const& vrf : vrfs_) {
    std::vector<Mismatch> const wrong = mismatches(*vrf->ordered, bestRoutes(*vrf->coll));
    for (Mismatch const& m : wrong) {
      std::ostringstream head;
      head << std::left << std::setw(8) << vrf->name << std::setw(23) << keyText(m.key);
      bool const tie = m.ordered != nullptr && m.expected != nullptr && topTables(*vrf->coll, m.key).size() > 1;
      if (tie && !final) {
        tieNotes.push_back(head.str() + vrf->appOf.at(m.ordered) + ", then " + vrf->appOf.at(m.expected));
        continue;
      }
      ok = false;
      std::cout << "  MISMATCH " << head.str() << "ordered collection: "
                << (m.ordered ? vrf->appOf.at(m.ordered) : "none")
                << ", tables: " << (m.expected ? vrf->appOf.at(m.expected) : "none") << "\n";
    }
    if (final)
      std::cout << "  check " << std::left << std::setw(8) << vrf->name << vrf->ordered->routes()
                << " keys against a brute-force pass over " << vrf->coll->vornPtrs() << " tables: "
                << (wrong.empty() ? "agree" : "DISAGREE") << "\n";
  }
  if (!tieNotes.empty()) {
    std::cout << "  the initial pass gives a tied key to the last tied table; the first (in the\n"
              << "  collection's order) takes it over at the key's next change:\n";
    for (std::string const& n : tieNotes) std::cout << "    " << n << "\n";
  }
  return ok;
}

void Agent::doStartRound(unsigned round) {
  unsigned char const byte = static_cast<unsigned char>(round);
  for (Publisher& p : publishers_)
    if (::write(p.wiring.goFd, &byte, 1) != 1) p.gone = true;
}

int Agent::run() {
  for (Publisher& p : publishers_) loop_.readableIs(p.wiring.reportFd, [this, &p] { handleReport(p); });
  if (!waitFor("its first routes", [](Publisher const& p) { return p.ready; })) return 1;
  if (!doMountTables()) return 1;

  std::cout << "round 1: " << roundTitle(1) << "\n"
            << "  the agent mounts " << vrfs_.size() * publishers_.size()
            << " tables, one collection per VRF, and runs the initial pass:\n";
  for (auto const& vrf : vrfs_)
    for (auto const& [key, owner] : vrf->ordered->routeMap()) dirty_.insert({vrf.get(), key});
  printChanges();
  bool const initialOk = printCheck(false);

  for (unsigned round = 2; round <= rounds; ++round) {
    loop_.runUntil([] { return false; }, kRoundPause);
    std::cout << "round " << round << ": " << roundTitle(round) << "\n";
    doStartRound(round);
    if (!waitFor("a round", [round](Publisher const& p) { return p.round >= round; })) return 1;
    // The publishers rang every doorbell before they answered: what is
    // ready now is the rest of the round.
    while (loop_.runOnce(0) > 0) {
    }
    printChanges();
    std::cout.flush();
  }

  std::cout << "final routes:\n";
  for (auto const& vrf : vrfs_)
    for (auto const& [key, view] : vrf->shown)
      std::cout << "    " << std::left << std::setw(8) << vrf->name << std::setw(23) << keyText(key) << view.line
                << "\n";
  std::cout << "  heard " << tableChanges_ << " route changes in the tables, " << orderedUpdates_
            << " updates of the ordered collections\n";
  bool const ok = printCheck(true) && initialOk;
  for (Publisher& p : publishers_) ::close(p.wiring.goFd);  // the publishers withdraw and leave
  return ok ? 0 : 1;
}

}  // namespace

int agentMain(std::vector<AgentPublisher> const& publishers) {
  Agent agent(publishers);
  return agent.run();
}

}  // namespace MfibDemo
