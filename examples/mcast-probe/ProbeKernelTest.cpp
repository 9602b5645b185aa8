// The tool end to end between two network namespaces joined by a veth pair:
// what one sends on the link the other counts, per group and family, and a
// group it did not join is not counted.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool run(std::string const& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

class Link : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces";
    std::string const id = std::to_string(::getpid());
    a_ = "probeA" + id;
    b_ = "probeB" + id;
    if (!run("ip netns add " + a_) || !run("ip netns add " + b_)) GTEST_SKIP() << "cannot create network namespaces";
    for (std::string const& step :
         {// Without duplicate address detection the link-local addresses
          // are usable at once (a tentative one makes IPv6 sends fail).
          "ip netns exec " + a_ + " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0",
          "ip netns exec " + b_ + " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0",
          "ip link add eth0 netns " + a_ + " type veth peer name eth0 netns " + b_,
          "ip -n " + a_ + " addr add 10.9.0.1/24 dev eth0", "ip -n " + b_ + " addr add 10.9.0.2/24 dev eth0",
          // IPv6 delivers nothing locally while lo is down.
          "ip -n " + a_ + " link set lo up", "ip -n " + b_ + " link set lo up", "ip -n " + a_ + " link set eth0 up",
          "ip -n " + b_ + " link set eth0 up"})
      ASSERT_TRUE(run(step)) << step;
    // A veth's carrier, and with it IPv6 on the link, comes up a moment
    // after the link is set up.
    for (std::string const& ns : {a_, b_}) {
      std::string const ready = "ip -n " + ns + " -6 addr show dev eth0 scope link | grep -q fe80";
      for (int i = 0; i < 200 && !run(ready); ++i) ::usleep(10000);
      ASSERT_TRUE(run(ready)) << "no IPv6 link-local address in " << ns;
    }
  }
  void TearDown() override {
    if (!a_.empty()) run("ip netns del " + a_);
    if (!b_.empty()) run("ip netns del " + b_);
  }
  std::string a_, b_;
};

std::string output(std::string const& cmd) {
  std::string out;
  if (FILE* p = ::popen(cmd.c_str(), "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    ::pclose(p);
  }
  return out;
}

TEST_F(Link, ReceiverCountsWhatTheSenderSentPerGroupAndFamily) {
  std::string const tool = MCAST_PROBE_PATH;
  std::string const log = "/tmp/mcast-probe-test." + std::to_string(::getpid());
  // The receiver joins 239.9.9.1 and ff3e::9:1 only; 239.9.9.2 reaches
  // the link but nobody asked for it.
  std::string const recv = "ip netns exec " + b_ + " " + tool +
                           " recv --group 239.9.9.1,ff3e::9:1 --intf eth0 --seconds 3 >" + log + " 2>" + log + ".err &";
  ASSERT_TRUE(run(recv));
  for (int i = 0; i < 50 && output("cat " + log + ".err").find("listening") == std::string::npos; ++i) ::usleep(20000);
  std::string const sent = output("ip netns exec " + a_ + " " + tool +
                                  " send --group 239.9.9.1,ff3e::9:1,239.9.9.2 --count 4 --interval-ms 1 --intf eth0");
  EXPECT_EQ(sent, "sent 239.9.9.1=4 ff3e::9:1=4 239.9.9.2=4 total=12\n");
  ::usleep(200000);  // the last datagrams cross the link
  run("ip netns pids " + b_ + " | xargs -r kill -TERM");
  for (int i = 0; i < 100 && output("cat " + log).empty(); ++i) ::usleep(20000);
  EXPECT_EQ(output("cat " + log), "recv eth0 239.9.9.1=4 ff3e::9:1=4 total=8\n");
  std::remove(log.c_str());
  std::remove((log + ".err").c_str());
}

}  // namespace
