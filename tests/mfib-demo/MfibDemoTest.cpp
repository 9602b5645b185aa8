// The demonstration across its processes: the whole run, and the agent
// alone with this test playing both publishers over the same pipes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <filesystem>

#include <cstdio>
#include <string>
#include <vector>

#include "Mfib/MfibVorn.h"
#include "Scenario.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"
#include "tests/Mfib/MfibTestUtil.h"

using namespace MfibTest;

namespace {

std::string readAll(int fd) {
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<std::size_t>(n));
  return out;
}

TEST(MfibDemoRunTest, ReportsDirectoryEventsAndOwnersWithEachTablesInterfacesAgreesAndLeavesNoFiles) {
  FILE* p = ::popen(MFIB_DEMO_PATH " run 2>&1", "r");
  ASSERT_NE(p, nullptr);
  std::string const out = readAll(::fileno(p));
  int const status = ::pclose(p);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;

  auto has = [&out](std::string const& line) { return out.find(line + "\n") != std::string::npos; };
  // static numbers its interfaces 201..208, pim 1..8, igmp with bit
  // indices: all must come out as the same names, each resolved through
  // the owner's own table.
  EXPECT_TRUE(has("~ default (10.0.0.1, 239.1.1.1)  pim     Vlan10 -> Ethernet1 Ethernet2 Ethernet8")) << out;
  EXPECT_TRUE(has("~ default (10.0.0.1, 239.1.1.1)  static  Vlan10 -> Ethernet3  (was pim)")) << out;
  EXPECT_TRUE(has("+ default (10.0.0.6, 239.1.1.6)  igmp    Vlan80 -> Ethernet3 Ethernet4")) << out;
  // Ties go to the table announced first, the same in every run.
  EXPECT_TRUE(has("+ red     (10.1.0.2, 239.2.2.2)  pim     Vlan50 -> Ethernet4  [tied: pim, static]")) << out;
  // The directory's events, each in its round.
  for (char const* line :
       {"* vrf blue: + table of static (mfib/blue/static)", "* vrf red: - table of pim (mfib/red/pim)",
        "* directory: igmp announced", "* vrf blue: + table of igmp (mfib/blue/igmp)",
        "* vrf red: collection removed, no table left", "* directory: static withdrawn"})
    EXPECT_TRUE(has(std::string("  ") + line)) << line << "\n" << out;
  EXPECT_LT(out.find("round 4:"), out.find("directory: igmp announced")) << out;
  EXPECT_TRUE(has("~ red     (10.1.0.2, 239.2.2.2)  static  Vlan50 -> Ethernet5  (was pim)")) << out;
  EXPECT_TRUE(has("  check default 3 keys against a brute-force pass over 2 tables: agree")) << out;
  EXPECT_TRUE(has("  check blue    1 keys against a brute-force pass over 1 tables: agree")) << out;
  EXPECT_EQ(out.find("check red"), std::string::npos) << out;
  EXPECT_EQ(out.find("MISMATCH"), std::string::npos) << out;

  std::string const marker = "tables under ";
  std::size_t const at = out.find(marker);
  ASSERT_NE(at, std::string::npos) << out;
  std::string const root = out.substr(at + marker.size(), out.find('\n', at) - at - marker.size());
  EXPECT_EQ(root.rfind("/dev/shm/mfib-demo.", 0), 0u) << root;
  EXPECT_NE(::access(root.c_str(), F_OK), 0) << root << " is still there";
}

// Both publishers played by the test: each announces its tables in the
// MFIB directory as an application process would, and answers the agent
// over the pipes it expects at descriptors 3 to 6.
class AgentTest : public ::testing::Test {
 protected:
  struct Player {
    char const* name;
    Kiv::Ptr<Stelo::EntityManager> em;
    Kiv::Ptr<Kiv::Dir> dir;
    Kiv::Ptr<MfibDirWriter> writer;
  };
  Tables tables;  // the private root
  Player players[2] = {{"pim", nullptr, nullptr, nullptr}, {"static", nullptr, nullptr, nullptr}};
  int report[2][2] = {};
  int go[2][2] = {};
  int output = -1;
  pid_t agent = -1;

  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    for (Player& p : players) {
      p.em = Stelo::EntityManager::entityManagerIs(nullptr, tables.root.path());
      KivVorn::Mount mount(p.em);
      mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf(p.name));
      p.dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
      ASSERT_TRUE(p.dir);
      p.writer = mfibDirWriterFactory(p.name, p.dir, mfibVornDirFactory(), p.em);
    }
  }

  void TearDown() override {
    if (agent > 0) {
      ::kill(agent, SIGKILL);
      ::waitpid(agent, nullptr, 0);
    }
  }

  // Announces the VRF's table of player i with its interface numbering.
  Kiv::Ptr<Status> announce(int i, char const* vrf) {
    Kiv::Ptr<Status> t = players[i].writer->doAddVorn(vrf, MfibDemo::tableUrl(vrf, players[i].name));
    MfibDemo::App const& app = *MfibDemo::appNamed(players[i].name);
    for (unsigned n = 1; n <= MfibDemo::ethernets; ++n)
      t->oifIndexIntfIs(OifIndexIntf(OifIndex(static_cast<std::uint16_t>(app.oifBase + n)),
                                     Wirly::IntfId("Ethernet" + std::to_string(n))));
    return t;
  }

  void publish(int i, char const* vrf, IpGenRouteKey const& k, unsigned priority, unsigned oif) {
    MfibDemo::Step const step{0, players[i].name, vrf, "0.0.0.0", "0.0.0.0", false, priority, "Vlan10", {oif}};
    Route r = MfibDemo::routeOf(step, *MfibDemo::appNamed(players[i].name));
    r.keyIs(k);
    players[i].writer->mfibVorn(MfibDemo::tableUrl(vrf, players[i].name))->routePublish(r);
  }

  bool introspect = false;

  // kivctl's answer (stdout and stderr) against the agent.
  std::string kivctl(std::string const& args) {
    std::string const cmd =
        "KIV_INTROSPECT_DIR=" + tables.root.path() + " " KIVCTL_PATH " --agent mfib-demo-agent " + args + " 2>&1";
    FILE* p = ::popen(cmd.c_str(), "r");
    std::string out = readAll(::fileno(p));
    ::pclose(p);
    return out;
  }

  void startAgent() {
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(::pipe(report[i]) == 0 && ::pipe(go[i]) == 0);
    // Placed at 3..6 in the child from copies above that range.
    std::vector<int> const childEnds = {report[0][0], go[0][1], report[1][0], go[1][1]};
    std::vector<int> high;
    for (int fd : childEnds) high.push_back(::fcntl(fd, F_DUPFD, 64));
    agent = ::fork();
    ASSERT_GE(agent, 0);
    if (agent == 0) {
      ::dup2(out[1], 1);
      ::dup2(out[1], 2);
      for (std::size_t i = 0; i < high.size(); ++i) ::dup2(high[i], 3 + static_cast<int>(i));
      for (int fd = 7; fd < 1024; ++fd) ::close(fd);
      ::setenv("VORN_ROOT", tables.root.path().c_str(), 1);
      ::setenv("BRISKLOG_DIR", tables.root.path().c_str(), 1);
      if (introspect) {
        ::setenv("MFIB_DEMO_INTROSPECT", "0", 1);
        ::setenv("KIV_INTROSPECT_DIR", tables.root.path().c_str(), 1);
      }
      ::execl(MFIB_DEMO_PATH, "mfib-demo", "agent", "pim", "static", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int fd : high) ::close(fd);
    for (int fd : childEnds) ::close(fd);
    ::close(out[1]);
    output = out[0];
  }

  void say(int app, std::string const& line) {
    std::string const text = line + "\n";
    ASSERT_EQ(::write(report[app][1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // The round the agent asks for, or 0 once it is done with us.
  unsigned awaitRound(int app) {
    unsigned char r = 0;
    return ::read(go[app][0], &r, 1) == 1 ? r : 0;
  }
  // Closes our ends; the agent's output and exit code.
  int finish(std::string& out) {
    for (int i = 0; i < 2; ++i) {
      if (report[i][1] >= 0) ::close(report[i][1]);
      ::close(go[i][0]);
    }
    out = readAll(output);
    ::close(output);
    int status = 0;
    ::waitpid(agent, &status, 0);
    agent = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

TEST_F(AgentTest, FindsTablesOnlyThroughTheDirectoryAndFollowsThemComingAndGoing) {
  IpGenRouteKey const tied = key(1), blue = key(2);
  announce(0, "red");
  announce(1, "red");
  publish(1, "red", tied, 2, 2);  // static's first: the order of announcing decides, not of writing
  publish(0, "red", tied, 2, 1);
  startAgent();
  say(0, "ready");
  say(1, "ready");
  bool staticStopped = false;
  for (unsigned round; (round = awaitRound(0)) != 0;) {
    if (!staticStopped) {
      EXPECT_EQ(awaitRound(1), round);
    }
    if (round == 2) {
      announce(1, "blue");
      publish(1, "blue", blue, 1, 3);
    }
    if (round == 3) players[0].writer->doDelVorn("red", MfibDemo::tableUrl("red", "pim"));
    if (round == 4) {
      players[1].writer->doDelVorn("red", MfibDemo::tableUrl("red", "static"));
      players[1].writer->doDelVorn("blue", MfibDemo::tableUrl("blue", "static"));
      players[1].dir->entryDel("static");
      say(1, "stopped 4");
      ::close(report[1][1]);
      report[1][1] = -1;
      staticStopped = true;
    }
    say(0, "round " + std::to_string(round));
    if (round < 4) say(1, "round " + std::to_string(round));
  }
  std::string out;
  EXPECT_EQ(finish(out), 0) << out;
  std::size_t const round2 = out.find("round 2:"), round3 = out.find("round 3:"), round4 = out.find("round 4:");
  ASSERT_TRUE(round2 != std::string::npos && round3 != std::string::npos && round4 != std::string::npos) << out;
  EXPECT_LT(out.find("* vrf red: + table of pim (mfib/red/pim)"), out.find("* vrf red: + table of static")) << out;
  EXPECT_LT(out.find("+ red     (10.0.0.1, 239.1.0.1)  pim     Vlan10 -> Ethernet1  [tied: pim, static]"), round2)
      << out;
  EXPECT_GT(out.find("* vrf blue: + table of static (mfib/blue/static)"), round2) << out;
  EXPECT_GT(out.find("+ blue    (10.0.0.2, 239.1.0.1)  static  Vlan10 -> Ethernet3"), round2) << out;
  EXPECT_GT(out.find("~ red     (10.0.0.1, 239.1.0.1)  static  Vlan10 -> Ethernet2  (was pim)"), round3) << out;
  EXPECT_GT(out.find("* directory: static withdrawn"), round4) << out;
  EXPECT_GT(out.find("- blue    (10.0.0.2, 239.1.0.1)  withdrawn (was static)"), round4) << out;
  EXPECT_NE(out.find("* vrf red: collection removed, no table left"), std::string::npos) << out;
  EXPECT_EQ(out.find("MISMATCH"), std::string::npos) << out;
}

TEST_F(AgentTest, GivesUpAtOnceWhenAPublisherLeaves) {
  startAgent();
  say(0, "ready");
  ::close(report[1][1]);  // static is gone before it is ready
  report[1][1] = -1;
  std::string out;
  EXPECT_EQ(finish(out), 1) << out;
  EXPECT_NE(out.find("publisher static went away while waiting for its first routes"), std::string::npos) << out;
}

TEST_F(AgentTest, KivctlInspectsTheRunningAgent) {
  announce(0, "red");
  publish(0, "red", key(1), 2, 1);
  introspect = true;
  startAgent();
  say(0, "ready");
  say(1, "ready");
  // Asked for round 2, the agent waits for answers in its loop, and serves.
  ASSERT_EQ(awaitRound(0), 2u);
  ASSERT_EQ(awaitRound(1), 2u);
  EXPECT_EQ(kivctl("ls /"),
            "mfibDir\tentry\tKiv::Dir\tro\nmfibDirSm\tentry\tVorn::Multicast::Fib::MfibDirSm\tro\n"
            "mfibVornDir\tentry\tVorn::Multicast::Fib::MfibVornDir\tro\n");
  // Plain values; the collection's entries follow its count.
  EXPECT_THAT(kivctl("get /mfibVornDir/vornColl/red"),
              ::testing::MatchesRegex("vrfName\tred\nvornPtr\t1 entry\n  [^\t]+\tmfib/red/pim\n"));
  EXPECT_EQ(kivctl("--raw get /mfibVornDir/vornColl/red"), "vrfName\t'red'\nvornPtr\t1 entries\n");
  EXPECT_EQ(kivctl("get /mfibDir/pim/dirColl/red/vornUrl"), "mfib/red/pim\n");
  EXPECT_EQ(kivctl("get /mfibDirSm/initialized"), "true\n");
  EXPECT_EQ(kivctl("set /mfibDirSm/initialized False"),
            "kivctl: Vorn::Multicast::Fib::MfibDirSm::initialized is read-only\n");
  for (int i = 0; i < 2; ++i) {
    say(i, "stopped 2");
    ::close(report[i][1]);
    report[i][1] = -1;
  }
  std::string out;
  finish(out);
  EXPECT_NE(out.find("introspection on " + tables.root.path() + "/mfib-demo-agent.sock"), std::string::npos) << out;
  EXPECT_FALSE(std::filesystem::exists(tables.root.path() + "/mfib-demo-agent.sock"));
}

}  // namespace
