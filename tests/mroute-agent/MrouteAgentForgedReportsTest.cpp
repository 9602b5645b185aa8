// mroute-agent in relay mode ("MCAST_NO_NETLINK" set: its IPv6 upcalls
// travel over the user-socket relay group, where any local process may
// send) while a process running as uid 65534 in the router namespace sends
// forged, randomly mutated and flooding cache reports to that group. The
// agent stays up, installs no kernel entry for any of them, counts them,
// and a real flow still gets its entry.
//
//   source eth0 ==== Ethernet1 [router] Ethernet2 ==== eth0 receiver
//
// Needs root for the namespaces; skips with the reason without it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/MrtNotify/ForgedReports.h"
#include "tests/TestShell.h"

namespace {

std::string const kBin = BIN_DIR;

using TestShell::run;

using TestShell::shell;

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool waitFor(std::string const& path, std::string const& text, double seconds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (slurp(path).find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

class MrouteAgentForgedReports : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces";
    std::string const id = std::to_string(::getpid());
    char dirTemplate[] = "/dev/shm/mroute-forged.XXXXXX";
    ASSERT_NE(::mkdtemp(dirTemplate), nullptr);
    dir_ = dirTemplate;
    for (char const* sub : {"/vorn", "/agent", "/kiv"}) ::mkdir((dir_ + sub).c_str(), 0700);
    ::setenv("VORN_ROOT", (dir_ + "/vorn").c_str(), 1);
    ::setenv("MROUTE_AGENT_DIR", (dir_ + "/agent").c_str(), 1);
    ::setenv("KIV_INTROSPECT_DIR", (dir_ + "/kiv").c_str(), 1);
    ::setenv("BRISKLOG_DIR", dir_.c_str(), 1);
    s_ = "mrfS" + id;
    r_ = "mrfR" + id;
    a_ = "mrfA" + id;
    for (std::string const& ns : {s_, r_, a_}) {
      if (!run("ip netns add " + ns)) GTEST_SKIP() << "cannot create network namespaces (ip netns add failed)";
      made_.push_back(ns);
      ASSERT_TRUE(
          run("ip netns exec " + ns + " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0"));
      ASSERT_TRUE(run("ip -n " + ns + " link set lo up"));
    }
    link("Ethernet1", s_, 1);
    link("Ethernet2", a_, 2);
  }
  void TearDown() override {
    stopAgent();
    for (auto const& ns : made_) run("ip netns del " + ns);
    if (!dir_.empty()) run("rm -rf " + dir_);
  }

  void link(std::string const& intf, std::string const& peer, int n) {
    std::string const net = std::to_string(n);
    for (std::string const& step : {"ip link add " + intf + " netns " + r_ + " type veth peer name eth0 netns " + peer,
                                    "ip -n " + r_ + " addr add 2001:db8:" + net + "::1/64 dev " + intf + " nodad",
                                    "ip -n " + peer + " addr add 2001:db8:" + net + "::2/64 dev eth0 nodad",
                                    "ip -n " + r_ + " link set " + intf + " up", "ip -n " + peer + " link set eth0 up",
                                    "ip -n " + peer + " -6 route add default via 2001:db8:" + net + "::1"})
      ASSERT_TRUE(run(step)) << step;
  }

  void startAgent() {
    out_ = dir_ + "/agent.out";
    pid_ = ::fork();
    if (pid_ == 0) {
      int const fd = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int const err = ::open((out_ + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || err < 0 || ::dup2(fd, 1) < 0 || ::dup2(err, 2) < 0) ::_exit(126);
      ::setenv("MCAST_NO_NETLINK", "1", 1);
      std::string const agent = kBin + "/mroute-agent";
      ::execlp("ip", "ip", "netns", "exec", r_.c_str(), agent.c_str(), "run", "--ipv6", "--intf", "Ethernet1,Ethernet2",
               "--name", "forged-test", static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  bool agentAlive() {
    int st = 0;
    return pid_ > 0 && ::waitpid(pid_, &st, WNOHANG) == 0;
  }
  int stopAgent() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    int st = 0;
    ::waitpid(pid_, &st, 0);
    pid_ = -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
  std::string kivctl(std::string const& path) {
    return shell("KIV_INTROSPECT_DIR=" + dir_ + "/kiv " + kBin + "/kivctl --agent forged-test get " + path);
  }

  std::string dir_, s_, r_, a_, out_;
  std::vector<std::string> made_;
  pid_t pid_ = -1;
};

TEST_F(MrouteAgentForgedReports, AgentSurvivesForgedReportsAndInstallsNothingForThem) {
  startAgent();
  ASSERT_TRUE(waitFor(out_, "ready\n", 10)) << slurp(out_) << slurp(out_ + ".err");

  // Every forged report names flows of 2001:db8:66::/64 or ff3e::66:*.
  auto messages = ForgedReports::attackSet(Wirly::ipv6);
  auto const random = ForgedReports::mutations(ForgedReports::noCache(Wirly::ipv6, 7), 2000, 20);
  messages.insert(messages.end(), random.begin(), random.end());
  {
    ForgedReports::Forger forger(r_, NETLINK_USERSOCK, 0, 1u << 30, messages, 20000);
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!forger.finished() && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(forger.exitCode(), 0) << "the forger could not send as uid 65534";
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));

  ASSERT_TRUE(agentAlive()) << slurp(out_ + ".err");
  EXPECT_EQ(slurp(out_).find("2001:db8:66:"), std::string::npos) << "an upcall of a forged report was acted on";
  std::string const entries = shell("ip -n " + r_ + " -6 mroute show");
  EXPECT_EQ(entries.find("2001:db8:66:"), std::string::npos) << entries;
  unsigned long const untrusted = std::strtoul(kivctl("/upcalls6/pam/rxUntrustedDrops").c_str(), nullptr, 10);
  EXPECT_GT(untrusted, 0u) << kivctl("/upcalls6/pam");
  EXPECT_EQ(kivctl("/upcalls6/noCacheCounter"), "0\n");

  // A real flow without a route gets its (drop) entry, through the relay.
  std::string const send = "ip netns exec " + s_ + " " + kBin +
                           "/mcast-probe send --group ff3e::77:1 --count 3 --interval-ms 100 --intf eth0";
  ASSERT_TRUE(run(send));
  EXPECT_TRUE(waitFor(out_, "install (2001:db8:1::2, ff3e::77:1) drop", 5)) << slurp(out_);
  EXPECT_NE(shell("ip -n " + r_ + " -6 mroute show").find("(2001:db8:1::2,ff3e::77:1)"), std::string::npos);
  EXPECT_EQ(stopAgent(), 0) << slurp(out_ + ".err");
}

}  // namespace
