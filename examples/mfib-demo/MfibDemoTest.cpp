// The demonstration across its processes: the whole run, and the agent
// alone with this test playing both publishers over the same pipes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

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

TEST(MfibDemoRunTest, ReportsOwnersWithEachTablesInterfacesAgreesAndLeavesNoFiles) {
  FILE* p = ::popen(MFIB_DEMO_PATH " run 2>&1", "r");
  ASSERT_NE(p, nullptr);
  std::string const out = readAll(::fileno(p));
  int const status = ::pclose(p);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;

  // static numbers its interfaces 201..208, pim 1..8: both must come out
  // as the same names, each resolved through the owner's own table.
  EXPECT_NE(out.find("~ default (10.0.0.1, 239.1.1.1)  pim     Vlan10 -> Ethernet1 Ethernet2 Ethernet8\n"),
            std::string::npos) << out;
  EXPECT_NE(out.find("~ default (10.0.0.1, 239.1.1.1)  static  Vlan10 -> Ethernet3  (was pim)\n"), std::string::npos)
      << out;
  EXPECT_NE(out.find("- default (10.0.0.3, 239.1.1.3)  withdrawn (was pim)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("~ red     (10.1.0.1, 239.2.2.1)  static  Vlan40 -> Ethernet2 Ethernet3  (was pim)\n"),
            std::string::npos) << out;
  EXPECT_NE(out.find("check default 3 keys against a brute-force pass over 2 tables: agree\n"), std::string::npos)
      << out;
  EXPECT_NE(out.find("check red     3 keys against a brute-force pass over 2 tables: agree\n"), std::string::npos)
      << out;
  EXPECT_EQ(out.find("MISMATCH"), std::string::npos) << out;

  std::string const marker = "tables under ";
  std::size_t const at = out.find(marker);
  ASSERT_NE(at, std::string::npos) << out;
  std::string const root = out.substr(at + marker.size(), out.find('\n', at) - at - marker.size());
  EXPECT_EQ(root.rfind("/dev/shm/mfib-demo.", 0), 0u) << root;
  EXPECT_NE(::access(root.c_str(), F_OK), 0) << root << " is still there";
}

// Both publishers played by the test: their four tables, and the pipes the
// agent expects at descriptors 3 to 6.
class AgentTest : public ::testing::Test {
 protected:
  Tables tables;  // the private root
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, tables.root.path());
  KivVorn::Mount mount{em};
  int report[2][2] = {};
  int go[2][2] = {};
  int output = -1;
  pid_t agent = -1;

  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    for (char const* vrf : MfibDemo::vrfs)
      for (MfibDemo::App const& app : MfibDemo::apps) {
        std::string const url = MfibDemo::tableUrl(vrf, app.name);
        mount.doMount(url, Status::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::writer));
        Kiv::Ptr<Status> t = table(vrf, app.name);
        ASSERT_NE(t, nullptr);
        for (unsigned n = 1; n <= MfibDemo::ethernets; ++n)
          t->oifIndexIntfIs(OifIndexIntf(OifIndex(static_cast<std::uint16_t>(app.oifBase + n)),
                                         Wirly::IntfId("Ethernet" + std::to_string(n))));
      }
  }

  void TearDown() override {
    if (agent > 0) {
      ::kill(agent, SIGKILL);
      ::waitpid(agent, nullptr, 0);
    }
  }

  Kiv::Ptr<Status> table(char const* vrf, char const* app) {
    return Kiv::ptrCast<Status>(mount.getEntity(MfibDemo::tableUrl(vrf, app)));
  }

  void publish(char const* vrf, char const* app, IpGenRouteKey const& k, unsigned priority, unsigned oif) {
    MfibDemo::Step const step{0, app, vrf, "0.0.0.0", "0.0.0.0", false, priority, "Vlan10", {oif}};
    Route r = MfibDemo::routeOf(step, *MfibDemo::appNamed(app));
    r.keyIs(k);
    table(vrf, app)->routePublish(r);
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
      ::close(report[i][1]);
      ::close(go[i][0]);
    }
    out = readAll(output);
    ::close(output);
    int status = 0;
    ::waitpid(agent, &status, 0);
    agent = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // Plays every round; `write(round)` makes the round's changes.
  template <class F>
  int playRounds(F write, std::string& out) {
    say(0, "ready");
    say(1, "ready");
    for (unsigned round; (round = awaitRound(0)) != 0;) {
      EXPECT_EQ(awaitRound(1), round);
      write(round);
      say(0, "round " + std::to_string(round));
      say(1, "round " + std::to_string(round));
    }
    return finish(out);
  }
};

TEST_F(AgentTest, FailsTheCheckWhenATieOfTheInitialPassIsNeverWrittenAgain) {
  IpGenRouteKey const tied = key(1), plain = key(2);
  publish("red", "pim", tied, 2, 1);
  publish("red", "static", tied, 2, 2);
  publish("default", "pim", plain, 2, 3);
  startAgent();
  std::string out;
  EXPECT_EQ(playRounds([&](unsigned round) { if (round == 2) publish("default", "static", plain, 1, 4); }, out), 1)
      << out;
  EXPECT_NE(out.find("MISMATCH red     (10.0.0.1, 239.1.0.1)"), std::string::npos) << out;
  EXPECT_NE(out.find("check red     1 keys against a brute-force pass over 2 tables: DISAGREE"), std::string::npos)
      << out;
  EXPECT_NE(out.find("check default 1 keys against a brute-force pass over 2 tables: agree"), std::string::npos)
      << out;
}

TEST_F(AgentTest, AgreesOnceTheTieIsWrittenAgainAndShowsItsOwnerChange) {
  IpGenRouteKey const tied = key(1);
  publish("red", "pim", tied, 2, 1);
  publish("red", "static", tied, 2, 2);
  startAgent();
  std::string out;
  EXPECT_EQ(playRounds([&](unsigned round) { if (round == 3) publish("red", "pim", tied, 2, 5); }, out), 0) << out;
  EXPECT_EQ(out.find("MISMATCH"), std::string::npos) << out;
  EXPECT_TRUE(out.find("red     (10.0.0.1, 239.1.0.1)  pim, then static") != std::string::npos ||
              out.find("red     (10.0.0.1, 239.1.0.1)  static, then pim") != std::string::npos)
      << out;
  EXPECT_NE(out.find("round 3:"), std::string::npos);
  std::string const round3 = out.substr(out.find("round 3:"));
  // Whichever table the initial pass left it with, the rewrite hands the
  // key to the first in the collection's order.
  EXPECT_NE(round3.find("~ red     (10.0.0.1, 239.1.0.1)"), std::string::npos) << out;
  EXPECT_NE(round3.find("(was "), std::string::npos) << out;
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

}  // namespace
