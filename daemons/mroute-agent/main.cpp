// mroute-agent: a multicast routing agent for one network namespace, built
// on the library: best routes from the applications' MFIB tables become
// kernel forwarding entries. See kUsage.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "Agent.h"
#include "DaemonConfig.h"
#include "Journal.h"
#include "MrouteVersion.h"
#include "ShowClient.h"
#include "Wirly/Sys.h"

namespace {

char const* const kUsage = R"(Usage:
  mroute-agent run [--config FILE] --intf IF[,IF...] [--name NAME] [--ipv4|--ipv6]
                   [--flow-log FILE] [--unrouted-rate R[/B]] [--unrouted-total-rate R[/B]]
                   [--drop-entry-max N]
  mroute-agent show [interfaces] [--json] [--name NAME] [--vrf VRF] [--family ipv4|ipv6]
                    [--group G[/LEN]] [--source S[/LEN]] [--intf NAME]
  mroute-agent --help | --version

run   programs the kernel's multicast forwarding cache of the current network
      namespace from the best routes that applications publish in their MFIB
      tables (found through the MFIB directory under $VORN_ROOT). Each
      configured interface becomes a VIF (IPv4) and a MIF (IPv6). An
      interface is named by its id (Ethernet1, Vlan100, ...), which is also
      its Linux name, or as ID=LINUXNAME. Prints one line per event on
      stdout and "ready" once set up; runs until SIGINT or SIGTERM.
        --config FILE    settings from FILE, one per line, named like the
                         options: "intf = Ethernet1,Ethernet2", "ipv4";
                         the command line overrides them
        --ipv4, --ipv6   program only that family (default both)
        --flow-log FILE  per installed flow: family, source, group, the
                         monotonic nanoseconds at which the agent learned of
                         it and installed it, and how it learned of it
      A packet of a flow that no route covers makes the kernel ask the
      agent, which then installs a drop entry so the kernel stops asking.
      Any local user can send to many such groups, so that work is bounded;
      reports past the bounds are only counted (see show). Flows that have
      a route are never bounded.
        --unrouted-rate R[/B]        such reports acted on per second per
                                     incoming interface, bursts of B
                                     (default 1000/1000)
        --unrouted-total-rate R[/B]  the same for all interfaces together
                                     (default 2000/2000)
        --drop-entry-max N           most drop entries held at once
                                     (default 8192); idle ones expire
show  lists what the running agent NAME holds, per VRF and route: (S, G),
      incoming and outgoing interfaces, state, uptime, owner, shared OIF
      set, kernel counters, RPF failures, failures; then the drop entries
      with their expiry and the agent's counters; a legend explains each
      column. Times are UTC. Exits 1 with a message when the answer is
      incomplete, 2 when the filter is refused.
        --json           the same as one JSON document (docs/mroute-agent.md)
      Filters, applied by the agent; all given must match:
        --vrf VRF        routes of that VRF
        --family F       ipv4 or ipv6
        --group G[/LEN]  routes whose group lies in G/LEN
        --source S[/LEN] routes (and entries of (*, G) routes) whose source
                         lies in S/LEN
        --intf NAME      routes with NAME (an id or Linux name) as incoming or
                         an outgoing interface
show interfaces
      the VIFs (IPv4) and MIFs (IPv6): number, interface id, Linux name and
      index, state, and the kernel's packet and byte counters in and out;
      takes --json, --vrf, --family and --intf

Environment: VORN_ROOT (the table root; default /run/vorn for root, else
$XDG_RUNTIME_DIR/vorn), MROUTE_AGENT_DIR (where the show socket lies;
default /run/mroute-agent, else $XDG_RUNTIME_DIR/mroute-agent),
KIV_INTROSPECT_DIR (kivctl's socket; default /run/kiv, else
$XDG_RUNTIME_DIR/kiv); each must belong to this user or root and be
writable by nobody else. MROUTE_AGENT_RCVBUF (bytes of the upcall queue; default 32 MiB),
MCAST_NO_NETLINK (relay IPv6 upcalls from the routing socket),
MROUTE_AGENT_IPV4_UPCALLS=socket (IPv4 upcalls from the routing socket even
where the kernel also reports them over netlink).

Exit status: 0 after a signal, 1 when set-up fails (no privilege, the kernel
table taken, an unknown interface, a directory another user owns, an agent
of the same name running), 2 for a usage error or a refused configuration
file.
)";

volatile sig_atomic_t stopRequested = 0;
void onSignal(int) { stopRequested = 1; }

// Inside a user namespace (an unprivileged run under `unshare -Urn`) the
// kernel refuses SO_RCVBUFFORCE, which the library's report sockets ask for;
// everything else they need works there. The agent asks for the same size
// with SO_RCVBUF instead, which the kernel caps at rmem_max.
class UserNamespaceSys : public Wirly::Sys {
 public:
  explicit UserNamespaceSys(Wirly::Sys& next) : next_(next) {}
  int setsockopt(int fd, int level, int name, void const* value, socklen_t len) override {
    int const rc = next_.setsockopt(fd, level, name, value, len);
    if (rc != 0 && errno == EPERM && level == SOL_SOCKET && name == SO_RCVBUFFORCE)
      return next_.setsockopt(fd, level, SO_RCVBUF, value, len);
    return rc;
  }
  int socket(int d, int t, int p) override { return next_.socket(d, t, p); }
  int bind(int fd, sockaddr const* a, socklen_t l) override { return next_.bind(fd, a, l); }
  ssize_t recvmsg(int fd, msghdr* m, int f) override { return next_.recvmsg(fd, m, f); }
  ssize_t recv(int fd, void* b, size_t l, int f) override { return next_.recv(fd, b, l, f); }
  ssize_t sendmsg(int fd, msghdr const* m, int f) override { return next_.sendmsg(fd, m, f); }
  int close(int fd) override { return next_.close(fd); }
  char const* getenv(char const* n) override { return next_.getenv(n); }
  int ioctl(int fd, unsigned long r, void* a) override { return next_.ioctl(fd, r, a); }
  int getsockopt(int fd, int level, int name, void* v, socklen_t* l) override {
    return next_.getsockopt(fd, level, name, v, l);
  }

 private:
  Wirly::Sys& next_;
};

// "R" or "R/B" (B defaults to R); false on anything else.
bool parseRate(char const* text, MrouteAgent::UpcallBudget::Rate& out) {
  if (!text) return false;
  char* end = nullptr;
  double const rate = std::strtod(text, &end);
  if (end == text || !(rate >= 0) || rate > 1e9) return false;
  double burst = rate;
  if (*end == '/') {
    char const* b = end + 1;
    burst = std::strtod(b, &end);
    if (end == b || !(burst >= 0) || burst > 1e9) return false;
  }
  if (*end != '\0') return false;
  out = {rate, burst};
  return true;
}

bool isCount(std::string_view v) {
  return !v.empty() && v.size() <= 10 && v.find_first_not_of("0123456789") == std::string_view::npos &&
         std::stoull(std::string(v)) <= 0xffffffffu;
}

bool isRate(std::string_view v) {
  MrouteAgent::UpcallBudget::Rate r;
  return parseRate(std::string(v).c_str(), r);
}

// What --config FILE may set: run's options.
Daemon::ConfigOption const kRunSettings[] = {
    {"intf"},
    {"name", true, 0, [](std::string_view v) { return v.find('/') == std::string_view::npos; }},
    {"ipv4", false, 1},
    {"ipv6", false, 1},
    {"flow-log"},
    {"unrouted-rate", true, 0, isRate},
    {"unrouted-total-rate", true, 0, isRate},
    {"drop-entry-max", true, 0, isCount},
};

int usageError(std::string const& what) {
  std::cerr << "mroute-agent: " << what << "\nTry 'mroute-agent --help'.\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usageError("a command is needed");
  std::string_view const cmd = argv[1];
  if (cmd == "--help" || cmd == "-h") {
    std::cout << kUsage;
    return 0;
  }
  if (cmd == "--version") {
    std::cout << "mroute-agent (libmroute) " << MROUTE_VERSION << '\n';
    return 0;
  }
  // The configuration file's settings go before the command line's.
  std::vector<std::string> args(argv + 2, argv + argc);
  if (cmd == "run" && !Daemon::configMerge(args, kRunSettings, "mroute-agent", std::cerr)) return 2;
  std::vector<char*> merged{argv[0], argv[1]};
  for (std::string& a : args) merged.push_back(a.data());
  argc = static_cast<int>(merged.size());
  argv = merged.data();

  MrouteAgent::Agent::Options o;
  bool json = false;
  bool interfaces = false;
  std::vector<std::string> filterWords;  // show's, checked by showMain
  bool onlyV4 = false, onlyV6 = false;
  for (int i = 2; i < argc; ++i) {
    std::string_view const a = argv[i];
    auto value = [&]() -> char const* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (cmd == "show" && a == "interfaces" && !interfaces) {
      interfaces = true;
    } else if (cmd == "show" &&
               (a == "--vrf" || a == "--family" || a == "--group" || a == "--source" || a == "--intf")) {
      char const* v = value();
      if (!v) return usageError(std::string(a) + " needs a value");
      filterWords.insert(filterWords.end(), {std::string(a), v});
    } else if (a == "--intf" && cmd == "run") {
      char const* v = value();
      if (!v) return usageError("--intf needs a list");
      std::string_view rest = v;
      while (!rest.empty()) {
        std::size_t const comma = rest.find(',');
        if (comma != 0) o.intfs.emplace_back(rest.substr(0, comma));
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
      }
    } else if (a == "--name") {
      char const* v = value();
      if (!v || !*v || std::strchr(v, '/')) return usageError("--name needs a name without '/'");
      o.name = v;
    } else if (a == "--ipv4" && cmd == "run") {
      onlyV4 = true;
    } else if (a == "--ipv6" && cmd == "run") {
      onlyV6 = true;
    } else if (a == "--flow-log" && cmd == "run") {
      char const* v = value();
      if (!v) return usageError("--flow-log needs a file");
      o.flowLog = v;
    } else if (a == "--unrouted-rate" && cmd == "run") {
      if (!parseRate(value(), o.budget.perIntf)) return usageError("--unrouted-rate needs RATE or RATE/BURST");
    } else if (a == "--unrouted-total-rate" && cmd == "run") {
      if (!parseRate(value(), o.budget.total)) return usageError("--unrouted-total-rate needs RATE or RATE/BURST");
    } else if (a == "--drop-entry-max" && cmd == "run") {
      char const* v = value();
      char* end = nullptr;
      unsigned long const n = v ? std::strtoul(v, &end, 10) : 0;
      if (!v || end == v || *end != '\0' || *v == '-' || n > 0xffffffffu)
        return usageError("--drop-entry-max needs a count");
      o.budget.dropEntryMax = static_cast<std::uint32_t>(n);
    } else if (a == "--json" && cmd == "show") {
      json = true;
    } else if (a == "--help" || a == "-h") {
      std::cout << kUsage;
      return 0;
    } else {
      return usageError("unknown argument '" + std::string(a) + "'");
    }
  }
  if (onlyV4 || onlyV6) {
    o.ipv4 = onlyV4;
    o.ipv6 = onlyV6;
  }
  if (cmd == "show") return MrouteAgent::showMain(o.name, interfaces, json, filterWords);
  if (cmd != "run") return usageError("unknown command '" + std::string(cmd) + "'");
  if (o.intfs.empty()) return usageError("run needs --intf");

  // Under systemd: set-up failures at error priority, traces at their level's.
  Daemon::journalStreamIs(std::cerr, STDERR_FILENO, Daemon::Priority::err);
  Daemon::journalTraceIs();

  struct sigaction sa {};
  sa.sa_handler = onSignal;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  UserNamespaceSys userNamespaceSys(Wirly::Sys::sys());
  Wirly::SysOverride useIt(&userNamespaceSys);
  try {
    MrouteAgent::Agent agent(o);
    if (int const rc = agent.start()) return rc;
    agent.run([] { return stopRequested != 0; });
  } catch (std::exception const& e) {
    // Set-up that the agent does not check itself (the table root, the
    // directory mount): still a clear message and status 1, not an abort.
    std::cerr << "mroute-agent: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
