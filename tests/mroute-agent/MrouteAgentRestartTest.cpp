// Kill and restart, while traffic flows: mroute-agent dies by SIGKILL, the
// kernel drops its forwarding entries with its routing socket, and a new
// agent rebuilds its routes from the applications' tables, which outlive
// it, so that the kernel forwards again. And the application killed
// instead: its tables stay, forwarding goes on, and its next run takes
// them over and applies the file's changes.
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
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/TestShell.h"

namespace {

std::string const kBin = BIN_DIR;

using TestShell::run;

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::size_t countLines(std::string const& text, std::regex const& re) {
  std::size_t n = 0;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) n += std::regex_search(line, re) ? 1 : 0;
  return n;
}

// Waits until the file has at least n lines that match.
bool waitLines(std::string const& path, std::string const& pattern, std::size_t n, double seconds = 5) {
  std::regex const re(pattern);
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (countLines(slurp(path), re) < n) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// A program run in a namespace, its output in files of the test's
// directory.
class Proc {
 public:
  Proc(std::string const& ns, std::vector<std::string> args, std::string const& out) : out_(out) {
    args.insert(args.begin(), {"ip", "netns", "exec", ns});
    pid_ = ::fork();
    if (pid_ == 0) {
      int const fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int const err = ::open((out + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || err < 0 || ::dup2(fd, 1) < 0 || ::dup2(err, 2) < 0) ::_exit(126);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execvp("ip", argv.data());
      ::_exit(127);
    }
  }
  ~Proc() { stop(SIGTERM); }
  // Sends sig and reaps the process; the exit status, or -1.
  int stop(int sig) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, sig);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  std::string const& out() const { return out_; }

 private:
  pid_t pid_ = -1;
  std::string out_;
};

class MrouteAgentRestart : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces";
    std::string const id = std::to_string(::getpid());
    char dirTemplate[] = "/dev/shm/mroute-restart.XXXXXX";
    ASSERT_NE(::mkdtemp(dirTemplate), nullptr);
    dir_ = dirTemplate;
    ::setenv("VORN_ROOT", (dir_ + "/vorn").c_str(), 1);
    ::setenv("MROUTE_AGENT_DIR", (dir_ + "/agent").c_str(), 1);
    // mroute-static's control socket: not the machine's /run/mroute-static.
    ::setenv("MROUTE_STATIC_DIR", (dir_ + "/static-control").c_str(), 1);
    // Not the machine's /run/kiv: an agent of the same name may run there.
    ::setenv("KIV_INTROSPECT_DIR", (dir_ + "/kiv").c_str(), 1);
    ::setenv("BRISKLOG_DIR", dir_.c_str(), 1);
    ::mkdir((dir_ + "/vorn").c_str(), 0700);
    ::mkdir((dir_ + "/agent").c_str(), 0700);
    s_ = "mrrS" + id;
    r_ = "mrrR" + id;
    a_ = "mrrA" + id;
    for (std::string const& ns : {s_, r_, a_}) {
      if (!run("ip netns add " + ns)) GTEST_SKIP() << "cannot create network namespaces (ip netns add failed)";
      made_.push_back(ns);
      ASSERT_TRUE(run("ip netns exec " + ns +
                      " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0"
                      " net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0"));
      ASSERT_TRUE(run("ip -n " + ns + " link set lo up"));
    }
    link("Ethernet1", s_, 1);
    link("Ethernet2", a_, 2);
    for (std::string const& ns : {s_, a_}) {
      std::string const ready = "ip -n " + ns + " -6 addr show dev eth0 scope link | grep -q fe80";
      for (int i = 0; i < 250 && !run(ready); ++i) ::usleep(20000);
      ASSERT_TRUE(run(ready)) << "no IPv6 link-local address in " << ns;
    }
    std::ofstream(dir_ + "/routes") << "default 10.1.0.2      239.1.1.1 Ethernet1 Ethernet2\n"
                                       "default 2001:db8:1::2 ff3e::1:1 Ethernet1 Ethernet2\n";
  }
  void TearDown() override {
    agent_.reset();
    static_.reset();
    sender_.reset();
    for (auto const& ns : made_) run("ip netns del " + ns);
    if (!dir_.empty()) run("rm -rf " + dir_);
  }

  void link(std::string const& intf, std::string const& peer, int n) {
    std::string const net = std::to_string(n);
    for (std::string const& step : {"ip link add " + intf + " netns " + r_ + " type veth peer name eth0 netns " + peer,
                                    "ip -n " + r_ + " addr add 10." + net + ".0.1/24 dev " + intf,
                                    "ip -n " + r_ + " addr add 2001:db8:" + net + "::1/64 dev " + intf + " nodad",
                                    "ip -n " + peer + " addr add 10." + net + ".0.2/24 dev eth0",
                                    "ip -n " + peer + " addr add 2001:db8:" + net + "::2/64 dev eth0 nodad",
                                    "ip -n " + r_ + " link set " + intf + " up", "ip -n " + peer + " link set eth0 up",
                                    "ip -n " + peer + " route add default via 10." + net + ".0.1",
                                    "ip -n " + peer + " -6 route add default via 2001:db8:" + net + "::1"})
      ASSERT_TRUE(run(step)) << step;
  }

  std::unique_ptr<Proc> startAgent(std::string const& name) {
    auto p = std::make_unique<Proc>(
        r_, std::vector<std::string>{kBin + "/mroute-agent", "run", "--intf", "Ethernet1,Ethernet2"},
        dir_ + "/" + name);
    EXPECT_TRUE(waitLines(p->out(), "^ready$", 1, 10)) << slurp(p->out() + ".err");
    return p;
  }

  // What the receiver counts while listening for `ms`, as "v4 v6".
  std::string window(int ms) {
    Proc recv(a_, {kBin + "/mcast-probe", "recv", "--group", "239.1.1.1,ff3e::1:1", "--intf", "eth0"}, dir_ + "/recv");
    EXPECT_TRUE(waitLines(recv.out() + ".err", "listening", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    recv.stop(SIGTERM);
    std::smatch m;
    std::string const line = slurp(recv.out());
    if (!std::regex_search(line, m, std::regex("239.1.1.1=(\\d+) ff3e::1:1=(\\d+)"))) return "no output: " + line;
    return std::string(m[1]) + " " + std::string(m[2]);
  }
  static bool flowing(std::string const& counts) { return std::regex_match(counts, std::regex("[1-9]\\d* [1-9]\\d*")); }

  std::string dir_, s_, r_, a_;
  std::vector<std::string> made_;
  std::unique_ptr<Proc> agent_, static_, sender_;
};

TEST_F(MrouteAgentRestart, KilledAgentRebuildsFromTheTablesAndTheKernelForwardsAgain) {
  agent_ = startAgent("agent1");
  static_ = std::make_unique<Proc>(
      r_, std::vector<std::string>{kBin + "/mroute-static", "--app", "static", "--file", dir_ + "/routes"},
      dir_ + "/static");
  ASSERT_TRUE(waitLines(agent_->out(), "^route default", 2)) << slurp(agent_->out());
  // One datagram per group every 5 ms for the whole test.
  sender_ =
      std::make_unique<Proc>(s_,
                             std::vector<std::string>{kBin + "/mcast-probe", "send", "--group", "239.1.1.1,ff3e::1:1",
                                                      "--count", "4000", "--interval-ms", "5", "--intf", "eth0"},
                             dir_ + "/sender");
  std::string const before = window(300);
  EXPECT_TRUE(flowing(before)) << before << "\n" << slurp(agent_->out());

  int const status = agent_->stop(SIGKILL);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  // With the routing socket gone the kernel has dropped the agent's
  // entries: nothing passes the router now.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(window(300), "0 0");

  agent_ = startAgent("agent2");
  EXPECT_TRUE(waitLines(agent_->out(),
                        "^route default \\(10\\.1\\.0\\.2, 239\\.1\\.1\\.1\\) static prio 1: "
                        "Ethernet1 -> Ethernet2$",
                        1));
  EXPECT_TRUE(waitLines(agent_->out(),
                        "^route default \\(2001:db8:1::2, ff3e::1:1\\) static prio 1: "
                        "Ethernet1 -> Ethernet2$",
                        1));
  std::string const after = window(300);
  EXPECT_TRUE(flowing(after)) << after << "\n" << slurp(agent_->out());

  // The new agent answers on the socket path its killed predecessor left.
  Proc show(r_, {kBin + "/mroute-agent", "show"}, dir_ + "/show");
  int const shown = show.stop(0);  // signal 0: just wait for it
  EXPECT_TRUE(WIFEXITED(shown) && WEXITSTATUS(shown) == 0) << slurp(show.out() + ".err");
  EXPECT_NE(slurp(show.out()).find("239.1.1.1"), std::string::npos) << slurp(show.out());
}

TEST_F(MrouteAgentRestart, KilledApplicationLeavesItsRoutesAndItsNextRunAppliesTheEditedFile) {
  agent_ = startAgent("agent-run");
  std::vector<std::string> const app = {kBin + "/mroute-static", "--app", "static", "--file", dir_ + "/routes"};
  static_ = std::make_unique<Proc>(r_, app, dir_ + "/static1");
  ASSERT_TRUE(waitLines(agent_->out(), "^route default", 2)) << slurp(agent_->out());
  sender_ =
      std::make_unique<Proc>(s_,
                             std::vector<std::string>{kBin + "/mcast-probe", "send", "--group", "239.1.1.1,ff3e::1:1",
                                                      "--count", "4000", "--interval-ms", "5", "--intf", "eth0"},
                             dir_ + "/sender");
  static_->stop(SIGKILL);
  std::string const orphaned = window(300);
  EXPECT_TRUE(flowing(orphaned)) << orphaned << "\n" << slurp(agent_->out());

  std::ofstream(dir_ + "/routes") << "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n";
  static_ = std::make_unique<Proc>(r_, app, dir_ + "/static2");
  EXPECT_TRUE(waitLines(static_->out(), "^static static: 1 routes \\(\\+0 -1 ~0\\)$", 1))
      << slurp(static_->out()) << slurp(static_->out() + ".err");
  EXPECT_TRUE(waitLines(agent_->out(), "^route default \\(2001:db8:1::2, ff3e::1:1\\) withdrawn$", 1))
      << slurp(agent_->out());
  std::string const after = window(300);
  EXPECT_TRUE(std::regex_match(after, std::regex("[1-9]\\d* 0"))) << after << "\n" << slurp(agent_->out());
}

}  // namespace
