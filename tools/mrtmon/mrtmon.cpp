// mrtmon: shows the kernel's multicast routing upcalls live, as the library
// parses them. See kUsage below.
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"
#include "MrouteVersion.h"
#include "MrtNotify/MrtNotifySm.h"
#include "Wirly/NamespaceSocket.h"

namespace {

using namespace Routing::Multicast::Notify;

char const* const kUsage = R"(Usage: mrtmon [options]

Opens the library's upcall receiving socket in a network namespace and
prints every multicast routing upcall as it is parsed: its kind, the
interface it arrived on, source, group and, for a whole packet, the length
of the data packet. Counters are printed on stderr at exit.

Options:
  -n, --netns NAME      network namespace (default: the current one)
  -f, --family FAMILY   ipv4 or ipv6 (default ipv6)
  -s, --source SOURCE   where upcalls are read:
                          native  the kernel's netlink cache reports
                                  (default; IPv4 needs a kernel that has them)
                          relay   the user-socket relay group, where a relay
                                  re-sends them ("MCAST_NO_NETLINK" kernels)
                          socket  IPv4 only: the routing socket's
                                  notification options (platform kernels)
  -o, --options LIST    kinds to receive, comma-separated: nocache,
                        wrongvif, wholepkt (default all three)
      --trust-uid UID   also hear relayed reports sent by this uid
                        (repeatable); by default only root's and the
                        user's own are heard
      --table N         hear the kernel's IPv4 reports of multicast routing
                        table N only (default 253, the default table)
      --vif N=INTF      name the interface of VIF/MIF N (repeatable), as the
                        agent's kernel status would; other indices are named
                        as the kernel names them in the namespace
                        (/proc/net/ip_mr_vif, ip6_mr_vif: the default table),
                        or print as "vifN" where it does not
  -j, --json            one JSON object per line instead of text
  -c, --count N         exit after N upcalls
  -t, --timeout S       exit after S seconds
  -h, --help            show this text
      --version         print the version

Text lines: <kind> intf <interface> src <source> grp <group> len <bytes>.
JSON lines: {"kind":..,"intf":..,"src":..,"grp":..,"len":..}.
Datagrams from senders not heard (on the kernel's group anyone but the
kernel), of another table, or malformed are dropped before parsing and
counted in the counters line ("untrusted", "othertable", "malformed").
Exit status: 0 on a normal end (count, timeout, SIGINT/SIGTERM), 1 when the
socket cannot be opened, 2 for a usage error.
)";

volatile sig_atomic_t stopRequested = 0;
void onSignal(int) { stopRequested = 1; }

// The kernel's default multicast routing table (RT_TABLE_DEFAULT).
constexpr std::uint32_t kDefaultTable = 253;

double monotonicNow() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// The kernel's own VIF/MIF table of the namespace: index to interface name,
// read from the descriptor of /proc/thread-self/net/ip_mr_vif (ip6_mr_vif)
// opened inside it. VIFs come and go while mrtmon runs, so the table is read
// again when it is older than a second or does not know an index.
class KernelVifNames {
 public:
  KernelVifNames(Wirly::NamespaceName const& ns, Wirly::AddressFamily af, std::uint32_t table) {
    // The kernel lists the VIFs of its default table only.
    if (table != kDefaultTable) {
      std::cerr << "mrtmon: the kernel lists the interfaces of its default table only; indices of table " << table
                << " without --vif print as vifN\n";
      return;
    }
    char const* const path = af == Wirly::ipv4 ? "/proc/thread-self/net/ip_mr_vif" : "/proc/thread-self/net/ip6_mr_vif";
    fd_ = Wirly::namespaceOpen(ns, path, O_RDONLY);
    if (fd_ < 0)
      std::cerr << "mrtmon: cannot read the kernel's interface table (" << path << ": " << std::strerror(errno)
                << "); indices without --vif print as vifN\n";
  }
  ~KernelVifNames() {
    if (fd_ >= 0) ::close(fd_);
  }
  KernelVifNames(KernelVifNames const&) = delete;
  KernelVifNames& operator=(KernelVifNames const&) = delete;

  // The kernel's name of index vif, or "" when it has none.
  std::string name(unsigned vif) {
    if (fd_ < 0) return std::string();
    if (monotonicNow() - readAt_ > 1.0 || names_.find(vif) == names_.end()) doRead();
    auto const it = names_.find(vif);
    return it == names_.end() ? std::string() : it->second;
  }

 private:
  // Lines "<index> <name> <counters...>" after one header line.
  void doRead() {
    readAt_ = monotonicNow();
    names_.clear();
    std::string text;
    char buf[4096];
    if (::lseek(fd_, 0, SEEK_SET) != 0) return;
    for (ssize_t n; (n = ::read(fd_, buf, sizeof buf)) > 0;) text.append(buf, std::size_t(n));
    std::size_t at = text.find('\n');
    while (at != std::string::npos && at + 1 < text.size()) {
      std::size_t const end = text.find('\n', at + 1);
      std::string const line = text.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
      unsigned index = 0;
      char name[64] = {};
      if (std::sscanf(line.c_str(), "%u %63s", &index, name) == 2) names_[index] = name;
      at = end;
    }
  }

  int fd_ = -1;
  double readAt_ = -1e9;
  std::map<unsigned, std::string> names_;
};

// Indices without a --vif name get an id outside every interface kind, so
// that the parser has one and the printer can say which index it was.
constexpr std::uint64_t standInMark = 0xFE00000000000000ull;

std::string intfText(Wirly::IntfId id, KernelVifNames& kernel) {
  if ((id.value() & 0xFF00000000000000ull) == standInMark) {
    unsigned const vif = unsigned(id.value() & 0xFFFF);
    std::string name = kernel.name(vif);
    return name.empty() ? "vif" + std::to_string(vif) : name;
  }
  return id.empty() ? std::string("-") : id.name();
}

struct Options {
  Wirly::NamespaceName netNs;
  Wirly::AddressFamily af = Wirly::ipv6;
  std::string source = "native";
  std::uint32_t kinds = nocache | wrongvif | wholepkt;
  bool json = false;
  std::optional<std::uint64_t> count;
  std::optional<double> timeout;
  std::vector<std::uint32_t> trustUids;
  std::optional<std::uint32_t> table;
  Kiv::Ptr<Routing::KernelMfib::Status> status = Routing::KernelMfib::Status::statusIs("mrtmon");
};

int usageError(std::string const& what) {
  std::cerr << "mrtmon: " << what << "\nTry 'mrtmon --help'.\n";
  return 2;
}

// Prints each upcall when its counter moves.
class Printer : public MrtNotifyPamManager::NotifieeConst {
 public:
  Printer(Kiv::Ptr<MrtNotifyPamManager> const& m, bool json, KernelVifNames& kernel)
      : NotifieeConst(m), json_(json), kernel_(kernel) {}
  void onNoCacheCounter() override { print("nocache", *notifier()->noCacheMessage()); }
  void onWrongVifCounter() override { print("wrongvif", *notifier()->wrongVifMessage()); }
  void onWholePktCounter() override { print("wholepkt", *notifier()->wholePktMessage()); }
  std::uint64_t printed() const { return printed_; }

 private:
  void print(char const* kind, Wirly::MrtMessage const& m) {
    auto const pkt = m.rcvdPkt();
    std::size_t const len = pkt ? pkt->len() : 0;
    std::string const intf = intfText(m.intfId(), kernel_);
    if (json_) {
      std::printf("{\"kind\":\"%s\",\"intf\":%s,\"src\":\"%s\",\"grp\":\"%s\",\"len\":%zu}\n", kind,
                  Kiv::jsonString(intf).c_str(), m.source().str().c_str(), m.group().str().c_str(), len);
    } else {
      std::printf("%-8s intf %s src %s grp %s len %zu\n", kind, intf.c_str(), m.source().str().c_str(),
                  m.group().str().c_str(), len);
    }
    std::fflush(stdout);
    ++printed_;
  }
  bool json_;
  KernelVifNames& kernel_;
  std::uint64_t printed_ = 0;
};

int parseArgs(int argc, char** argv, Options& o) {
  bool named[65536] = {};
  for (int i = 1; i < argc; ++i) {
    std::string_view const a = argv[i];
    auto value = [&](char const* name) -> char const* {
      if (i + 1 >= argc) return nullptr;
      (void)name;
      return argv[++i];
    };
    if (a == "-h" || a == "--help") {
      std::cout << kUsage;
      std::exit(0);
    } else if (a == "--version") {
      std::cout << "mrtmon (libmroute) " << MROUTE_VERSION << '\n';
      std::exit(0);
    } else if (a == "-j" || a == "--json") {
      o.json = true;
    } else if (a == "-n" || a == "--netns") {
      char const* v = value("--netns");
      if (!v) return usageError("--netns needs a name");
      o.netNs = Wirly::NamespaceName(v);
    } else if (a == "-f" || a == "--family") {
      char const* v = value("--family");
      if (!v || (std::string_view(v) != "ipv4" && std::string_view(v) != "ipv6"))
        return usageError("--family is ipv4 or ipv6");
      o.af = std::string_view(v) == "ipv4" ? Wirly::ipv4 : Wirly::ipv6;
    } else if (a == "-s" || a == "--source") {
      char const* v = value("--source");
      if (!v || (std::string_view(v) != "native" && std::string_view(v) != "relay" && std::string_view(v) != "socket"))
        return usageError("--source is native, relay or socket");
      o.source = v;
    } else if (a == "-o" || a == "--options") {
      char const* v = value("--options");
      if (!v) return usageError("--options needs a list");
      o.kinds = 0;
      std::string_view rest = v;
      while (!rest.empty()) {
        std::size_t const comma = rest.find(',');
        std::string_view const k = rest.substr(0, comma);
        if (k == "nocache")
          o.kinds |= nocache;
        else if (k == "wrongvif")
          o.kinds |= wrongvif;
        else if (k == "wholepkt")
          o.kinds |= wholepkt;
        else
          return usageError("unknown kind '" + std::string(k) + "'");
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
      }
    } else if (a == "--vif") {
      char const* v = value("--vif");
      std::string_view const s = v ? v : "";
      std::size_t const eq = s.find('=');
      std::string const index(s.substr(0, eq == std::string_view::npos ? 0 : eq));
      char* end = nullptr;
      unsigned long const n = std::strtoul(index.c_str(), &end, 10);
      if (eq == std::string_view::npos || index.empty() || *end || n > 65535) return usageError("--vif is N=INTF");
      try {
        o.status->vifIntfIs(std::uint16_t(n), Wirly::IntfId(s.substr(eq + 1)));
      } catch (std::exception const& e) {
        return usageError("--vif " + std::string(s) + ": " + e.what());
      }
      named[n] = true;
    } else if (a == "--trust-uid" || a == "--table") {
      char const* v = value(a.data());
      char* end = nullptr;
      unsigned long const n = v ? std::strtoul(v, &end, 10) : 0;
      if (!v || !*v || *end || n > 0xFFFFFFFEul) return usageError(std::string(a) + " needs a number");
      if (a == "--table")
        o.table = std::uint32_t(n);
      else
        o.trustUids.push_back(std::uint32_t(n));
    } else if (a == "-c" || a == "--count") {
      char const* v = value("--count");
      char* end = nullptr;
      unsigned long long const n = v ? std::strtoull(v, &end, 10) : 0;
      if (!v || *end || n == 0) return usageError("--count needs a positive number");
      o.count = n;
    } else if (a == "-t" || a == "--timeout") {
      char const* v = value("--timeout");
      char* end = nullptr;
      double const s = v ? std::strtod(v, &end) : 0;
      if (!v || *end || !(s > 0)) return usageError("--timeout needs a positive number of seconds");
      o.timeout = s;
    } else {
      return usageError("unknown argument '" + std::string(a) + "'");
    }
  }
  if (o.source == "socket" && o.af != Wirly::ipv4) return usageError("--source socket is for ipv4");
  // The kernel's VIF/MIF indices are below 32; give the rest stand-ins.
  for (std::uint16_t n = 0; n < 32; ++n)
    if (!named[n]) o.status->vifIntfIs(n, Wirly::IntfId(standInMark | n));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (int const rc = parseArgs(argc, argv, o)) return rc;
  if (o.source == "relay")
    ::setenv("MCAST_NO_NETLINK", "1", 1);
  else
    ::unsetenv("MCAST_NO_NETLINK");

  Kiv::EventLoop loop;
  Wirly::Pam::defaultEventLoopIs(&loop);
  auto manager = mrtNotifyPamManagerFactory(o.af, o.netNs);
  if (o.af == Wirly::ipv4 && o.source != "socket") {
    manager->ipv4NativeReportsIs(o.source == "native");
    manager->useNetlinkIs(true);
  }
  manager->optionsIs(o.kinds);
  for (std::uint32_t uid : o.trustUids) manager->trustedUidIs(uid, true);
  if (o.table) manager->mrtTableIs(*o.table);
  KernelVifNames kernel(o.netNs, o.af, o.table.value_or(kDefaultTable));
  Printer printer(manager, o.json, kernel);
  auto sm = mrtNotifySmFactory(manager, o.status);
  try {
    sm->handleInitialized();
  } catch (Kiv::ErrnoException const& e) {
    std::cerr << "mrtmon: cannot open the upcall socket: " << e.call() << ": " << std::strerror(e.error()) << '\n';
    return 1;
  }
  if (!manager->pam()->enabled()) {
    std::cerr << "mrtmon: the upcall socket declined to start (see --source)\n";
    return 1;
  }
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  std::cerr << "mrtmon: listening for " << o.af << " upcalls (" << o.source << ")"
            << (o.netNs.isDefault() ? std::string() : " in " + o.netNs.str()) << std::endl;

  timespec start;
  ::clock_gettime(CLOCK_MONOTONIC, &start);
  auto elapsed = [&] {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec - start.tv_sec) + double(now.tv_nsec - start.tv_nsec) / 1e9;
  };
  while (!stopRequested && !(o.count && printer.printed() >= *o.count) && !(o.timeout && elapsed() >= *o.timeout)) {
    double wait = 0.2;
    if (o.timeout) wait = std::min(wait, std::max(0.0, *o.timeout - elapsed()));
    loop.runOnce(wait);
  }
  std::cerr << "mrtmon: nocache " << manager->noCacheCounter() << " wrongvif " << manager->wrongVifCounter()
            << " wholepkt " << manager->wholePktCounter() << " datagrams " << manager->pam()->rxPktCount();
  if (auto const* nl = dynamic_cast<MrtNotifyNetlinkSocketPam const*>(manager->pam().ptr()))
    std::cerr << " rxErrors " << nl->rxErrors() << " untrusted " << nl->rxUntrustedDrops() << " othertable "
              << nl->rxOtherTableDrops() << " malformed " << nl->rxMalformedDrops();
  std::cerr << std::endl;
  sm = nullptr;
  manager = nullptr;
  Wirly::Pam::defaultEventLoopIs(nullptr);
  return 0;
}
