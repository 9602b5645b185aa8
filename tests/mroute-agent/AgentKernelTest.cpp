// The agent against the real kernel: namespaces S (sender), R (router, the
// agent), D1 and D2 (receivers), veths named as the agent's interfaces
// inside R:
//
//   S eth0 ==== Ethernet1 R Ethernet2 ==== eth0 D1
//                           Ethernet3 ==== eth0 D2
//
// This process publishes the routes (an MFIB table under a private
// VORN_ROOT) and runs mroute-agent in R. Needs root; skips with the reason
// otherwise.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/System.h"
#include "Mfib/MfibVorn.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"
#include "Wirly/NamespaceSocket.h"
#include "tests/TestShell.h"
#include "tests/Vorn/VornTestUtil.h"

namespace MrouteAgentKernel {

using namespace Vorn::Multicast::Fib;

using TestShell::run;

struct Fd {
  int fd;
  explicit Fd(int f = -1) : fd(f) {}
  Fd(Fd&& o) noexcept : fd(o.fd) { o.fd = -1; }
  Fd& operator=(Fd&& o) noexcept {
    std::swap(fd, o.fd);
    return *this;
  }
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

class Net {
 public:
  Net() {
    if (::geteuid() != 0) {
      skip_ = "needs root to create network namespaces";
      return;
    }
    std::string const id = std::to_string(::getpid());
    for (char const* role : {"S", "R", "D1", "D2"}) ns_.push_back(std::string("magt") + role + id);
    for (std::string const& n : ns_)
      if (!run("ip netns add " + n)) {
        skip_ = "cannot create network namespaces (ip netns add failed)";
        return;
      }
    std::string const sysctls =
        " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0"
        " net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0";
    std::vector<std::string> steps;
    for (std::string const& n : ns_) steps.push_back("ip netns exec " + n + sysctls);
    char const* nets[] = {"1", "2", "3"};
    for (int i = 0; i < 3; ++i) {
      std::string const peer = ns_[i == 0 ? 0 : i + 1], e = std::string("Ethernet") + nets[i];
      steps.push_back("ip link add " + e + " netns " + r() + " type veth peer name eth0 netns " + peer);
      steps.push_back("ip -n " + r() + " addr add 10." + nets[i] + ".0.1/24 dev " + e);
      steps.push_back("ip -n " + r() + " addr add 2001:db8:" + nets[i] + "::1/64 dev " + e + " nodad");
      steps.push_back("ip -n " + peer + " addr add 10." + nets[i] + ".0.2/24 dev eth0");
      steps.push_back("ip -n " + peer + " addr add 2001:db8:" + nets[i] + "::2/64 dev eth0 nodad");
      steps.push_back("ip -n " + r() + " link set " + e + " up");
      steps.push_back("ip -n " + peer + " link set eth0 up");
      steps.push_back("ip -n " + peer + " link set lo up");
      steps.push_back("ip -n " + peer + " route add default via 10." + std::string(nets[i]) + ".0.1");
      steps.push_back("ip -n " + peer + " -6 route add default via 2001:db8:" + nets[i] + "::1");
    }
    steps.push_back("ip -n " + r() + " link set lo up");
    for (auto const& s : steps)
      if (!run(s)) {
        failed_ = "topology step failed: " + s;
        return;
      }
  }
  ~Net() {
    for (std::string const& n : ns_) run("ip netns del " + n);
  }
  std::string const& skip() const { return skip_; }
  std::string const& failed() const { return failed_; }
  std::string const& s() const { return ns_[0]; }
  std::string const& r() const { return ns_[1]; }
  std::string const& d(int i) const { return ns_[1 + i]; }

 private:
  std::vector<std::string> ns_;
  std::string skip_, failed_;
};

#define NET(n)                                     \
  Net n;                                           \
  if (!n.skip().empty()) GTEST_SKIP() << n.skip(); \
  ASSERT_TRUE(n.failed().empty()) << n.failed()

// One application's MFIB table of the default VRF, published from here.
class Publisher {
 public:
  explicit Publisher(std::string const& root) : em_(Stelo::EntityManager::entityManagerIs(nullptr, root)) {
    KivVorn::Mount mount(em_);
    mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf("static"));
    dir_ = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
    if (!dir_) return;
    writer_ = mfibDirWriterFactory("static", dir_, vornDir_, em_);
    table_ = writer_->doAddVorn("default", "mfib/default/static");
    for (std::uint16_t n = 1; n <= 3; ++n)
      table_->oifIndexIntfIs(OifIndexIntf(OifIndex(n), Wirly::IntfId("Ethernet" + std::to_string(n))));
  }
  bool ok() const { return table_ != nullptr; }
  void route(IpGenRouteKey const& key, std::vector<std::uint16_t> oifs) {
    Route r(key);
    r.specialIntf1Is(Wirly::IntfId("Ethernet1"));
    for (std::uint16_t o : oifs) r.oifIs(OifIndex(o), true);
    r.priorityIs(RoutePriority(1));
    table_->routePublish(r);
  }

 private:
  Kiv::Ptr<Stelo::EntityManager> em_;
  Kiv::Ptr<Kiv::Dir> dir_;
  Kiv::Ptr<MfibVornDir> vornDir_ = mfibVornDirFactory();
  Kiv::Ptr<MfibDirWriter> writer_;
  Kiv::Ptr<Status> table_;
};

using TestShell::shell;

// mroute-agent run in R. A thread reads its stdout line by line, so that
// the agent never blocks on a full pipe while the test waits for it.
class AgentProcess {
 public:
  AgentProcess(Net const& net, std::string const& root, std::string const& dir, std::vector<std::string> extra,
               std::vector<std::string> env = {}) {
    int p[2];
    if (::pipe(p) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(p[1], 1);
      ::close(p[0]);
      ::setenv("VORN_ROOT", root.c_str(), 1);
      ::setenv("MROUTE_AGENT_DIR", dir.c_str(), 1);
      // The introspection socket has the agent's name too: its own directory.
      std::string const kiv = dir + "/kiv";
      ::mkdir(kiv.c_str(), 0700);
      ::setenv("KIV_INTROSPECT_DIR", kiv.c_str(), 1);
      for (std::string const& e : env) ::putenv(::strdup(e.c_str()));
      std::vector<std::string> args = {
          "ip",     "netns",     "exec", net.r(), MROUTE_AGENT_PATH, "run", "--intf", "Ethernet1,Ethernet2,Ethernet3",
          "--name", "agent-test"};
      args.insert(args.end(), extra.begin(), extra.end());
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execvp("ip", argv.data());
      ::_exit(127);
    }
    ::close(p[1]);
    reader_ = std::thread([this, fd = p[0]] {
      std::string pending;
      char buf[65536];
      for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) {
        pending.append(buf, std::size_t(n));
        std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1))
          lines_.push_back(pending.substr(0, nl));
      }
      ::close(fd);
    });
  }
  ~AgentProcess() { stop(); }
  // Its CPU time so far (user and system), in seconds.
  double cpuSeconds() const {
    std::string const stat = shell("cat /proc/" + std::to_string(pid_) + "/stat");
    std::istringstream in(stat.substr(stat.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && in >> field; ++i)
      if (i >= 14) ticks += std::stod(field);
    return ticks / double(::sysconf(_SC_CLK_TCK));
  }
  int stop() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int st = 0;
      ::waitpid(pid_, &st, 0);
      pid_ = -1;
      status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    if (reader_.joinable()) reader_.join();
    return status_;
  }
  // Waits until `done` holds for the lines so far, or `seconds` passed.
  bool waitUntil(std::function<bool(std::vector<std::string> const&)> const& done, double seconds) {
    double const end = Kiv::System::currentTime() + seconds;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (done(lines_)) return true;
      }
      if (Kiv::System::currentTime() >= end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  bool waitFor(std::string const& line, double seconds = 5) {
    return waitUntil(
        [&](std::vector<std::string> const& ls) { return std::find(ls.begin(), ls.end(), line) != ls.end(); }, seconds);
  }
  std::size_t count(std::string const& prefix, std::string const& suffix) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t n = 0;
    for (std::string const& l : lines_)
      n += l.rfind(prefix, 0) == 0 && l.size() >= suffix.size() &&
           l.compare(l.size() - suffix.size(), suffix.size(), suffix) == 0;
    return n;
  }
  std::string dump() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string s;
    for (std::string const& l : lines_) s += l + "\n";
    return s;
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

int ifIndex(std::string const& ns, char const* name) {
  Fd s(Wirly::namespaceSocket(Wirly::NamespaceName(ns), AF_INET, SOCK_DGRAM, 0));
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
  if (s.fd < 0 || ::ioctl(s.fd, SIOCGIFINDEX, &ifr) < 0) return -1;
  return ifr.ifr_ifindex;
}

// A UDP socket in a receiver's namespace, joined to groups on eth0.
Fd receiver(std::string const& ns, std::vector<std::string> const& groups, bool v6) {
  Fd s(Wirly::namespaceSocket(Wirly::NamespaceName(ns), v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  int const eth0 = ifIndex(ns, "eth0");
  int const one = 1;
  ::setsockopt(s.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (v6) {
    // IPv6 only: an IPv4 receiver may hold the same port.
    ::setsockopt(s.fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(5000);
    if (::bind(s.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return Fd();
    for (std::string const& g : groups) {
      ipv6_mreq m{};
      ::inet_pton(AF_INET6, g.c_str(), &m.ipv6mr_multiaddr);
      m.ipv6mr_interface = unsigned(eth0);
      ::setsockopt(s.fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &m, sizeof m);
    }
  } else {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(5000);
    if (::bind(s.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return Fd();
    for (std::string const& g : groups) {
      ip_mreqn m{};
      ::inet_pton(AF_INET, g.c_str(), &m.imr_multiaddr);
      m.imr_ifindex = eth0;
      ::setsockopt(s.fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m);
    }
  }
  return s;
}

// Datagrams that arrive within `seconds` (reading stops at the first quiet 0.3 s after some came).
int received(Fd const& s, double seconds) {
  int n = 0;
  double const end = Kiv::System::currentTime() + seconds;
  while (Kiv::System::currentTime() < end) {
    pollfd p{s.fd, POLLIN, 0};
    if (::poll(&p, 1, n ? 300 : 100) <= 0) {
      if (n) break;
      continue;
    }
    char buf[2048];
    while (::recv(s.fd, buf, sizeof buf, 0) > 0) ++n;
  }
  return n;
}

// Sends `count` datagrams from S to each group, as fast as one socket per family can.
void send(Net const& net, std::vector<std::string> const& groups, int count) {
  Wirly::NamespaceName const ns(net.s());
  Fd v4(Wirly::namespaceSocket(ns, AF_INET, SOCK_DGRAM, 0));
  Fd v6(Wirly::namespaceSocket(ns, AF_INET6, SOCK_DGRAM, 0));
  int const hops = 8;
  int const eth0 = ifIndex(net.s(), "eth0");
  ::setsockopt(v4.fd, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
  ::setsockopt(v6.fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops);
  ::setsockopt(v6.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &eth0, sizeof eth0);
  for (std::string const& g : groups) {
    if (g.find(':') != std::string::npos) {
      sockaddr_in6 to{};
      to.sin6_family = AF_INET6;
      to.sin6_port = htons(5000);
      ::inet_pton(AF_INET6, g.c_str(), &to.sin6_addr);
      for (int i = 0; i < count; ++i) ::sendto(v6.fd, "data", 4, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    } else {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(5000);
      ::inet_pton(AF_INET, g.c_str(), &to.sin_addr);
      for (int i = 0; i < count; ++i) ::sendto(v4.fd, "data", 4, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
  }
}

class AgentKernelTest;
std::string recoveryCounters(AgentKernelTest const& t);

// A counter of kivctl's JSON ("name": value), 0 when absent.
std::uint64_t counter(std::string const& json, std::string const& name) {
  std::size_t const at = json.find("\"" + name + "\": ");
  return at == std::string::npos ? 0 : std::stoull(json.substr(at + name.size() + 4));
}

class AgentKernelTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = root_.path() + "-agent";
    ::mkdir(dir_.c_str(), 0700);
  }
  void TearDown() override { VornTest::PrivateRoot::removeAll(dir_); }

 public:
  std::string root() const { return root_.path(); }
  std::string const& dir() const { return dir_; }

 protected:
  VornTest::PrivateRoot root_;
  std::string dir_;
};

// The running agent's recovery counters, as kivctl reads them.
std::string recoveryCounters(AgentKernelTest const& t) {
  return shell("KIV_INTROSPECT_DIR=" + t.dir() + "/kiv " + KIVCTL_PATH +
               " --agent agent-test --json get /upcallRecovery");
}

TEST_F(AgentKernelTest, ForwardsWhatTheTablesSayAndFollowsRouteAndLinkChanges) {
  NET(net);
  Publisher pub(root_.path());
  ASSERT_TRUE(pub.ok());
  pub.route(IpGenRouteKey("10.1.0.2", "239.1.1.1"), {2});
  pub.route(IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr("::"), 0), Wirly::IpGenPrefix("ff3e::1:1")), {3});

  AgentProcess agent(net, root_.path(), dir_, {});
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();
  // The (S, G) is in the kernel before any packet; the (*, G) waits for one.
  EXPECT_TRUE(agent.waitFor("install (10.1.0.2, 239.1.1.1) Ethernet1 -> Ethernet2")) << agent.dump();
  EXPECT_TRUE(agent.waitFor("route default (*, ff3e::1:1) static prio 1: Ethernet1 -> Ethernet3")) << agent.dump();

  Fd d1 = receiver(net.d(1), {"239.1.1.1"}, false);
  Fd d2v4 = receiver(net.d(2), {"239.1.1.1"}, false);
  Fd d2v6 = receiver(net.d(2), {"ff3e::1:1"}, true);
  // The first packet of the (*, G) waits in the kernel for its entry (the
  // kernel queues only a few such packets per flow; the rest follow it).
  send(net, {"239.1.1.1", "ff3e::1:1"}, 1);
  EXPECT_TRUE(agent.waitFor("upcall nocache (2001:db8:1::2, ff3e::1:1) on Ethernet1")) << agent.dump();
  EXPECT_TRUE(agent.waitFor("install (2001:db8:1::2, ff3e::1:1) Ethernet1 -> Ethernet3")) << agent.dump();
  send(net, {"239.1.1.1", "ff3e::1:1"}, 4);
  EXPECT_EQ(received(d1, 2), 5);
  EXPECT_EQ(received(d2v6, 2), 5);
  EXPECT_EQ(received(d2v4, 0.3), 0);

  // The route moves to Ethernet3: forwarding follows.
  pub.route(IpGenRouteKey("10.1.0.2", "239.1.1.1"), {3});
  EXPECT_TRUE(agent.waitFor("install (10.1.0.2, 239.1.1.1) Ethernet1 -> Ethernet3")) << agent.dump();
  send(net, {"239.1.1.1"}, 3);
  EXPECT_EQ(received(d2v4, 2), 3);
  EXPECT_EQ(received(d1, 0.3), 0);

  std::string const show = shell("MROUTE_AGENT_DIR=" + dir_ + " " + MROUTE_AGENT_PATH + " show --name agent-test");
  EXPECT_NE(show.find("(10.1.0.2, 239.1.1.1)  Iif: Ethernet1  Oifs: Ethernet3  State: installed  Uptime: "),
            std::string::npos)
      << show;
  EXPECT_NE(show.find("Owner: static prio 1  Oif set: "), std::string::npos) << show;
  EXPECT_NE(show.find("Packets: 8  Bytes: "), std::string::npos) << show;
  std::string const json =
      shell("MROUTE_AGENT_DIR=" + dir_ + " " + MROUTE_AGENT_PATH + " show --json --name agent-test");
  EXPECT_NE(json.find("\"source\": \"2001:db8:1::2\", \"group\": \"ff3e::1:1\", \"installed\": true, \"packets\": "),
            std::string::npos)
      << json;

  // kivctl reads the same agent by name: its interfaces and its route model.
  std::string const kivctl = "KIV_INTROSPECT_DIR=" + dir_ + "/kiv " + KIVCTL_PATH + " --agent agent-test ";
  std::string const vifs = shell(kivctl + "--json get /kernelMfib4/vifIntf");
  EXPECT_NE(vifs.find("\"3\": \"Ethernet3\""), std::string::npos) << vifs;
  std::string const tables = shell(kivctl + "ls /mroute4");
  EXPECT_NE(tables.find("vrfMrouteTable"), std::string::npos) << tables;

  // Ethernet3 goes down: both entries use it, and only they are rewritten.
  ASSERT_TRUE(run("ip -n " + net.r() + " link set Ethernet3 down"));
  EXPECT_TRUE(agent.waitFor("link Ethernet3 down: reprogrammed 2 of 2 entries")) << agent.dump();
  ASSERT_TRUE(run("ip -n " + net.r() + " link set Ethernet3 up"));
  EXPECT_TRUE(agent.waitFor("link Ethernet3 up: reprogrammed 2 of 2 entries")) << agent.dump();
  EXPECT_EQ(agent.stop(), 0);
}

TEST_F(AgentKernelTest, EveryFlowOfABurstIsInstalledEvenWhenReportsAreLost) {
  NET(net);
  Publisher pub(root_.path());
  ASSERT_TRUE(pub.ok());
  // A tiny report queue loses most of a burst: what is lost must come back
  // from the kernel's unresolved list.
  // The burst is the subject, not the upcall budget: room for all of it.
  AgentProcess agent(net, root_.path(), dir_,
                     {"--ipv4", "--unrouted-rate", "100000", "--unrouted-total-rate", "100000"},
                     {"MROUTE_AGENT_RCVBUF=2048"});
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();
  constexpr int flows = 2000;
  std::vector<std::string> groups;
  for (int i = 0; i < flows; ++i)
    groups.push_back("239.9." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1));
  send(net, groups, 1);
  double const end = Kiv::System::currentTime() + 5;
  while (agent.count("install (10.1.0.2, 239.9.", " drop") < std::size_t(flows) && Kiv::System::currentTime() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(agent.count("install (10.1.0.2, 239.9.", " drop"), std::size_t(flows));
  std::string const json =
      shell("MROUTE_AGENT_DIR=" + dir_ + " " + MROUTE_AGENT_PATH + " show --json --name agent-test");
  std::size_t const at = json.find("\"recovered\": ", json.rfind("\"upcalls\""));
  ASSERT_NE(at, std::string::npos) << json.substr(json.size() > 300 ? json.size() - 300 : 0);
  std::size_t const recovered = std::stoul(json.substr(at + 13));
  EXPECT_GT(recovered, 0u) << "the small queue lost nothing: the recovery went untested";
  EXPECT_EQ(shell("ip netns exec " + net.r() + " ip mroute show | grep -ic unresolved"), "0\n");
  // The overrun was the kernel's signal; each scan it caused found flows.
  std::string const rec = recoveryCounters(*this);
  EXPECT_GT(counter(rec, "lossSignals"), 0u) << rec;
  EXPECT_GE(counter(rec, "scans"), 2u) << rec;  // the start-up scan and at least one after the loss
  EXPECT_GE(counter(rec, "flowsFound"), recovered) << rec;
  EXPECT_EQ(agent.stop(), 0);
}

// With thousands of entries installed and nothing lost, a new flow costs its
// report and its entry: the kernel's table is not read (only the start-up
// scan ever ran), then or in the seconds after.
TEST_F(AgentKernelTest, ANewFlowAmongThousandsOfEntriesReadsNoTable) {
  NET(net);
  Publisher pub(root_.path());
  ASSERT_TRUE(pub.ok());
  constexpr int installed = 3000;
  for (int i = 0; i < installed; ++i)
    pub.route(IpGenRouteKey("10.1.0.2", "239.50." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1)), {2});
  pub.route(IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr("0.0.0.0"), 0), Wirly::IpGenPrefix("239.51.0.1")), {2});
  AgentProcess agent(net, root_.path(), dir_, {"--ipv4"});
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();
  ASSERT_TRUE(agent.waitUntil(
      [&](std::vector<std::string> const& lines) {
        return std::count_if(lines.begin(), lines.end(), [](std::string const& l) {
                 return l.rfind("install (10.1.0.2, 239.50.", 0) == 0;
               }) >= installed;
      },
      20));
  std::string const before = recoveryCounters(*this);
  ASSERT_EQ(counter(before, "scans"), 1u) << before;
  send(net, {"239.51.0.1"}, 1);
  EXPECT_TRUE(agent.waitFor("install (10.1.0.2, 239.51.0.1) Ethernet1 -> Ethernet2")) << agent.dump();
  // Long enough for a periodic look to have happened.
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  std::string const after = recoveryCounters(*this);
  EXPECT_EQ(counter(after, "scans"), 1u) << after;
  EXPECT_EQ(counter(after, "lossSignals"), 0u) << after;
  EXPECT_EQ(agent.stop(), 0);
}

}  // namespace MrouteAgentKernel

namespace MrouteAgentKernel {

// With "MCAST_NO_NETLINK" the kernel's IPv6 reports are taken to be missing:
// the agent's relay reads them from its routing socket and re-sends them on
// the user-socket group, where the agent's own upcall reader hears them.
TEST_F(AgentKernelTest, IPv6UpcallsAreRelayedWhenNetlinkReportsAreSaidMissing) {
  NET(net);
  Publisher pub(root_.path());
  ASSERT_TRUE(pub.ok());
  pub.route(IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr("::"), 0), Wirly::IpGenPrefix("ff3e::2:2")), {2});
  AgentProcess agent(net, root_.path(), dir_, {"--ipv6"}, {"MCAST_NO_NETLINK=1"});
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();
  Fd d1 = receiver(net.d(1), {"ff3e::2:2"}, true);
  send(net, {"ff3e::2:2"}, 1);
  EXPECT_TRUE(agent.waitFor("upcall nocache (2001:db8:1::2, ff3e::2:2) on Ethernet1")) << agent.dump();
  EXPECT_TRUE(agent.waitFor("install (2001:db8:1::2, ff3e::2:2) Ethernet1 -> Ethernet2")) << agent.dump();
  send(net, {"ff3e::2:2"}, 2);
  EXPECT_EQ(received(d1, 2), 3);
  EXPECT_EQ(agent.stop(), 0);
}

// Kernels without IPv4 netlink reports: the agent reads the routing
// socket's own reports (igmpmsg) and parses them the same way.
TEST_F(AgentKernelTest, IPv4UpcallsFromTheRoutingSocketWhereNetlinkHasNone) {
  NET(net);
  Publisher pub(root_.path());
  ASSERT_TRUE(pub.ok());
  pub.route(IpGenRouteKey(Wirly::IpGenPrefix(Wirly::IpGenAddr("0.0.0.0"), 0), Wirly::IpGenPrefix("239.3.3.3")), {2});
  AgentProcess agent(net, root_.path(), dir_, {"--ipv4"}, {"MROUTE_AGENT_IPV4_UPCALLS=socket"});
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();
  Fd d1 = receiver(net.d(1), {"239.3.3.3"}, false);
  send(net, {"239.3.3.3", "239.3.3.4"}, 1);
  EXPECT_TRUE(agent.waitFor("upcall nocache (10.1.0.2, 239.3.3.3) on Ethernet1")) << agent.dump();
  EXPECT_TRUE(agent.waitFor("install (10.1.0.2, 239.3.3.3) Ethernet1 -> Ethernet2")) << agent.dump();
  EXPECT_TRUE(agent.waitFor("install (10.1.0.2, 239.3.3.4) drop")) << agent.dump();
  send(net, {"239.3.3.3"}, 2);
  EXPECT_EQ(received(d1, 2), 3);
  EXPECT_EQ(agent.stop(), 0);
}

}  // namespace MrouteAgentKernel

namespace MrouteAgentKernel {

// A process of uid/gid 65534 in namespace ns that sends one datagram to each
// of `groups` groups (239.100.0.0 upwards, or ff3e::100:0 upwards), round
// after round, until killed: real multicast that no route covers, each
// group a new flow for the kernel to ask about.
pid_t unprivilegedFlood(std::string const& ns, int groups, bool v6) {
  std::string const nsPath = "/run/netns/" + ns;
  pid_t const pid = ::fork();
  if (pid != 0) return pid;
  int const nsFd = ::open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (nsFd < 0 || ::setns(nsFd, CLONE_NEWNET) != 0) ::_exit(120);
  if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
    ::_exit(121);
  int const s = ::socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
  int const hops = 8;
  if (v6) {
    ::setsockopt(s, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops);
    unsigned const eth0 = ::if_nametoindex("eth0");
    ::setsockopt(s, IPPROTO_IPV6, IPV6_MULTICAST_IF, &eth0, sizeof eth0);
  } else {
    ::setsockopt(s, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
  }
  for (;;) {
    for (int i = 0; i < groups; ++i) {
      if (v6) {
        sockaddr_in6 to{};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(5000);
        ::inet_pton(AF_INET6, "ff3e::100:0", &to.sin6_addr);
        to.sin6_addr.s6_addr[14] = std::uint8_t(i >> 8);
        to.sin6_addr.s6_addr[15] = std::uint8_t(i);
        to.sin6_addr.s6_addr[13] = std::uint8_t(i >> 16);
        ::sendto(s, "flood", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
      } else {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(5000);
        to.sin_addr.s_addr = htonl((239u << 24) | (100u << 16) | std::uint32_t(i));
        ::sendto(s, "flood", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
      }
    }
  }
}

std::uint64_t monotonicNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1000000000ull + std::uint64_t(ts.tv_nsec);
}

// learnedNs and installedNs of each flow of the flow log, by group.
std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> flowTimes(std::string const& flowLog) {
  std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> out;
  std::istringstream in(shell("cat " + flowLog));
  std::string fam, src, grp, how;
  unsigned long long learned = 0, installed = 0;
  while (in >> fam >> src >> grp >> learned >> installed >> how) out[grp] = {learned, installed};
  return out;
}

double median(std::vector<double> v) {
  if (v.empty()) return -1;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Real multicast to thousands of unrouted groups from an unprivileged user
// of the sender's namespace, while routed flows start: the agent stays up,
// holds at most its cap of drop entries, and a routed flow's first packet
// gets its entry about as fast as without the flood.
void floodWhileRealFlowsStart(AgentKernelTest& t, bool v6, std::vector<std::string> env) {
  NET(net);
  Publisher pub(t.root());
  ASSERT_TRUE(pub.ok());
  constexpr int reps = 7;
  auto groupOf = [&](int k) {
    return v6 ? "ff3e::200:" + std::to_string(k + 1) : "239.200.0." + std::to_string(k + 1);
  };
  Wirly::IpGenAddr const any(v6 ? "::" : "0.0.0.0");
  for (int k = 0; k < 2 * reps; ++k)
    pub.route(IpGenRouteKey(Wirly::IpGenPrefix(any, 0), Wirly::IpGenPrefix(Wirly::IpGenAddr(groupOf(k)))), {2});
  std::string const flowLog = t.dir() + "/flows";
  constexpr int dropMax = 1000;
  AgentProcess agent(net, t.root(), t.dir(),
                     {v6 ? "--ipv6" : "--ipv4", "--flow-log", flowLog, "--drop-entry-max", std::to_string(dropMax)},
                     env);
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();

  // The first packet of a routed flow, and when it left.
  std::map<std::string, std::uint64_t> sentNs;
  Fd sock(Wirly::namespaceSocket(Wirly::NamespaceName(net.s()), v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0));
  int const hops = 8;
  int const eth0 = ifIndex(net.s(), "eth0");
  ::setsockopt(sock.fd, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
  ::setsockopt(sock.fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops);
  ::setsockopt(sock.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &eth0, sizeof eth0);
  auto startFlow = [&](int k) {
    std::string const g = groupOf(k);
    sockaddr_storage to{};
    socklen_t len;
    if (v6) {
      auto* a = reinterpret_cast<sockaddr_in6*>(&to);
      a->sin6_family = AF_INET6;
      a->sin6_port = htons(5000);
      ::inet_pton(AF_INET6, g.c_str(), &a->sin6_addr);
      len = sizeof *a;
    } else {
      auto* a = reinterpret_cast<sockaddr_in*>(&to);
      a->sin_family = AF_INET;
      a->sin_port = htons(5000);
      ::inet_pton(AF_INET, g.c_str(), &a->sin_addr);
      len = sizeof *a;
    }
    sentNs[g] = monotonicNs();
    ::sendto(sock.fd, "real", 4, 0, reinterpret_cast<sockaddr*>(&to), len);
  };
  for (int k = 0; k < reps; ++k) {
    startFlow(k);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  double const cpuBefore = agent.cpuSeconds();
  pid_t const flood = unprivilegedFlood(net.s(), 60000, v6);
  ASSERT_GT(flood, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  for (int k = reps; k < 2 * reps; ++k) {
    startFlow(k);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
  }
  ::kill(flood, SIGKILL);
  double const cpuFlood = agent.cpuSeconds() - cpuBefore;
  int st = 0;
  ::waitpid(flood, &st, 0);
  EXPECT_TRUE(WIFSIGNALED(st)) << "the flooding process failed to start: exit " << WEXITSTATUS(st);
  EXPECT_TRUE(agent.waitUntil(
      [&](std::vector<std::string> const& lines) {
        return std::count_if(lines.begin(), lines.end(), [](std::string const& l) {
                 return l.rfind("install (", 0) == 0 && l.find("-> Ethernet2") != std::string::npos;
               }) >= 2 * reps;
      },
      5))
      << agent.dump().substr(0, 4000);

  std::string const json =
      shell("MROUTE_AGENT_DIR=" + t.dir() + " " + MROUTE_AGENT_PATH + " show --json --name agent-test");
  // kivctl reads the same counters by name.
  std::string const budget =
      shell("KIV_INTROSPECT_DIR=" + t.dir() + "/kiv " + KIVCTL_PATH + " --agent agent-test --json get /upcallBudget");
  EXPECT_NE(budget.find("\"dropEntries\": " + std::to_string(dropMax)), std::string::npos) << budget;
  std::size_t const kernelDrops = std::stoul(
      "0" + shell("ip netns exec " + net.r() + " ip " + (v6 ? "-6 " : "") + "mroute show | grep -vic unresolved"));
  EXPECT_EQ(agent.stop(), 0) << "the agent did not survive the flood";
  std::size_t const drops = agent.count("install (", " drop");
  EXPECT_LE(drops, std::size_t(dropMax));
  EXPECT_LE(kernelDrops, std::size_t(dropMax + 2 * reps));
  EXPECT_GT(drops, 0u) << "no unrouted flow reached the agent: the flood did not run";

  // Sent -> installed, and the part of it spent before the agent had the
  // report (the kernel and the report queue).
  auto const times = flowTimes(flowLog);
  std::vector<double> quiet, flooded, quietQueue, floodedQueue;
  for (int k = 0; k < 2 * reps; ++k) {
    auto it = times.find(groupOf(k));
    ASSERT_NE(it, times.end()) << groupOf(k) << " never got its entry";
    std::uint64_t const sent = sentNs[groupOf(k)];
    (k < reps ? quiet : flooded).push_back(double(it->second.second - sent) / 1e6);
    (k < reps ? quietQueue : floodedQueue).push_back(double(it->second.first - sent) / 1e6);
  }
  auto list = [](std::vector<double> const& v) {
    std::string out;
    char buf[32];
    for (double ms : v) {
      std::snprintf(buf, sizeof buf, " %.3f", ms);
      out += buf;
    }
    return out;
  };
  std::printf("%s first packet -> kernel entry, ms: quiet%s (median %.3f); flooded%s (median %.3f)\n",
              v6 ? "IPv6" : "IPv4", list(quiet).c_str(), median(quiet), list(flooded).c_str(), median(flooded));
  std::printf("  of which before the agent read the report: quiet median %.3f, flooded median %.3f\n",
              median(quietQueue), median(floodedQueue));
  std::printf("  drop entries: %zu installed by the agent, %zu resolved entries in the kernel\n", drops, kernelDrops);
  std::size_t const at = json.rfind("\"upcalls\"");
  std::size_t const upcalls = at == std::string::npos ? 0 : std::stoul(json.substr(at + 11));
  std::printf("  agent CPU during the flood: %.0f ms for %zu upcalls\n", cpuFlood * 1e3, upcalls);
  std::printf("  show: %s", json.substr(at == std::string::npos ? 0 : at).c_str());
  EXPECT_LT(median(flooded), 50.0);
}

TEST_F(AgentKernelTest, AnUnprivilegedFloodOfUnroutedGroupsDoesNotDelayARoutedFlow) {
  floodWhileRealFlowsStart(*this, false, {});
}

// The same with IPv6 reports that the agent's relay reads from its routing
// socket and re-sends to itself.
TEST_F(AgentKernelTest, AnUnprivilegedFloodDoesNotDelayARoutedFlowThroughTheRelay) {
  floodWhileRealFlowsStart(*this, true, {"MCAST_NO_NETLINK=1"});
}

}  // namespace MrouteAgentKernel

namespace MrouteAgentKernel {

// show's filters among 200 routes of both families, run in the agent, and
// its interface table's counters against real traffic.
TEST_F(AgentKernelTest, ShowFindsExactlyTheRoutesItsFilterNamesAndCountsPerInterface) {
  NET(net);
  Publisher pub(root_.path());
  ASSERT_TRUE(pub.ok());
  // Group i of each family goes out of Ethernet2 when i is a multiple of 3,
  // else out of Ethernet3.
  auto v4 = [](int i) { return "239.10." + std::to_string(i / 100) + "." + std::to_string(i % 100 + 1); };
  auto v6 = [](int i) { return "ff3e::10:" + std::to_string(i + 1); };
  auto oif = [](int i) { return std::uint16_t(i % 3 == 0 ? 2 : 3); };
  constexpr int perFamily = 100;
  for (int i = 0; i < perFamily; ++i) {
    pub.route(IpGenRouteKey("10.1.0.2", v4(i)), {oif(i)});
    pub.route(IpGenRouteKey("2001:db8:1::2", v6(i)), {oif(i)});
  }
  AgentProcess agent(net, root_.path(), dir_, {});
  ASSERT_TRUE(agent.waitFor("ready")) << agent.dump();
  EXPECT_TRUE(agent.waitUntil(
      [](std::vector<std::string> const& ls) {
        return std::count_if(ls.begin(), ls.end(), [](std::string const& l) { return l.rfind("install (", 0) == 0; }) >=
               2 * perFamily;
      },
      10))
      << agent.dump();
  std::string const cmd = "MROUTE_AGENT_DIR=" + dir_ + " " + MROUTE_AGENT_PATH + " show --name agent-test ";
  // The groups of the routes a JSON answer lists, in order.
  auto groups = [](std::string const& json) {
    std::vector<std::string> out;
    for (std::size_t at = json.find("\"app\": "); at != std::string::npos; at = json.find("\"app\": ", at + 1)) {
      std::size_t const g = json.rfind("\"group\": \"", at) + 10;
      out.push_back(json.substr(g, json.find('"', g) - g));
    }
    return out;
  };
  auto expected = [&](bool ipv6, auto const& pick) {
    std::vector<std::string> out;
    for (int i = 0; i < perFamily; ++i)
      if (pick(i)) out.push_back(ipv6 ? v6(i) : v4(i));
    std::sort(out.begin(), out.end(),
              [&](std::string const& a, std::string const& b) { return Wirly::IpGenAddr(a) < Wirly::IpGenAddr(b); });
    return out;
  };

  std::string json = shell(cmd + "--json --family ipv6 --intf Ethernet2");
  EXPECT_EQ(groups(json), expected(true, [&](int i) { return oif(i) == 2; })) << json.substr(0, 2000);
  EXPECT_NE(json.find("\"routesShown\": 34, \"routesHeld\": 200, "), std::string::npos) << json.substr(0, 2000);
  // Every record states its VRF and family: the 34 routes and their entries.
  std::size_t records = 0;
  for (std::size_t at = json.find("\"vrf\": \"default\", \"family\": \"ipv6\""); at != std::string::npos;
       at = json.find("\"vrf\": \"default\", \"family\": \"ipv6\"", at + 1))
    ++records;
  EXPECT_EQ(records, 68u);

  json = shell(cmd + "--json --group 239.10.0.0/26 --source 10.1.0.0/16");
  EXPECT_EQ(groups(json), expected(false, [&](int i) { return i < 63; }));
  EXPECT_EQ(groups(shell(cmd + "--json --vrf default --group ff3e::10:20 --intf Ethernet3")),
            std::vector<std::string>{"ff3e::10:20"});
  EXPECT_EQ(groups(shell(cmd + "--json --group ff3e::10:1f --intf Ethernet3")), std::vector<std::string>{});
  EXPECT_EQ(groups(shell(cmd + "--json --vrf red")), std::vector<std::string>{});

  std::string const text = shell(cmd + "--group 239.10.0.7");
  EXPECT_NE(text.find("; 1 of 200 routes, 0 of 0 drop entries\n\nVRF default\n(10.1.0.2, 239.10.0.7)  Iif: Ethernet1  "
                      "Oifs: Ethernet2  State: installed  Uptime: 00:00:0"),
            std::string::npos)
      << text;
  EXPECT_EQ(shell(cmd + "--family ipv5 2>&1; echo status $?"),
            "mroute-agent: --family: 'ipv5' is neither ipv4 nor ipv6\nTry 'mroute-agent --help'.\nstatus 2\n");

  // The interface table: Ethernet1 receives what the source sends, Ethernet2
  // sends group 0 on, Ethernet3 stays quiet; counters move by exactly that.
  auto counter = [&](char const* family, char const* intf, char const* name) {
    std::string const j = shell(cmd + "interfaces --json --family " + family + " --intf " + intf);
    std::size_t const at = j.find(std::string("\"") + name + "\": ");
    return at == std::string::npos ? ~0ull : std::stoull(j.substr(at + std::strlen(name) + 4));
  };
  struct Seen {
    unsigned long long in1, out2, out3;
  };
  auto look = [&](char const* family) {
    return Seen{counter(family, "Ethernet1", "packetsIn"), counter(family, "Ethernet2", "packetsOut"),
                counter(family, "Ethernet3", "packetsOut")};
  };
  Seen const before4 = look("ipv4"), before6 = look("ipv6");
  ASSERT_NE(before4.in1, ~0ull) << shell(cmd + "interfaces --json");
  send(net, {v4(0), v6(0)}, 10);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  Seen const after4 = look("ipv4"), after6 = look("ipv6");
  EXPECT_EQ(after4.in1 - before4.in1, 10u);
  EXPECT_EQ(after4.out2 - before4.out2, 10u);
  EXPECT_EQ(after4.out3 - before4.out3, 0u);
  EXPECT_EQ(after6.in1 - before6.in1, 10u);
  EXPECT_EQ(after6.out2 - before6.out2, 10u);
  EXPECT_EQ(after6.out3 - before6.out3, 0u);
  std::string const table = shell(cmd + "interfaces --intf Ethernet2");
  EXPECT_NE(table.find("\nipv4      2  Ethernet2  Ethernet2  "), std::string::npos) << table;
  EXPECT_NE(table.find("  up  "), std::string::npos) << table;
  EXPECT_EQ(agent.stop(), 0);
}

}  // namespace MrouteAgentKernel
