// What another local user cannot do to the agent through the file system:
// squat its directories, slip a table into its MFIB directory, or take over
// the sockets of a running agent by starting a second one of the same name.
// Each router is a network namespace with one interface, Ethernet1. Needs
// root; skips with the reason otherwise.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Mfib/MfibDir.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"
#include "tests/Kiv/OtherUser.h"
#include "tests/TestShell.h"

namespace MrouteAgentOwnership {

using KivTest::asUser;
using KivTest::kNobody;

using TestShell::run;

std::string slurp(std::string const& path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

using TestShell::shell;

class Routers {
 public:
  explicit Routers(int count) {
    if (::geteuid() != 0) {
      skip_ = "needs root to create network namespaces";
      return;
    }
    for (int i = 0; i < count; ++i) {
      std::string const ns = "magown" + std::to_string(i) + "-" + std::to_string(::getpid());
      if (!run("ip netns add " + ns)) {
        skip_ = "cannot create network namespaces (ip netns add failed)";
        return;
      }
      ns_.push_back(ns);
      if (!run("ip -n " + ns + " link add Ethernet1 type veth peer name peer1") ||
          !run("ip -n " + ns + " link set Ethernet1 up")) {
        skip_ = "cannot create a veth pair in a namespace";
        return;
      }
    }
  }
  ~Routers() {
    for (std::string const& n : ns_) run("ip netns del " + n);
  }
  std::string const& skip() const { return skip_; }
  std::string const& ns(int i) const { return ns_[std::size_t(i)]; }

 private:
  std::vector<std::string> ns_;
  std::string skip_;
};

#define ROUTERS(r, n) \
  Routers r(n);       \
  if (!r.skip().empty()) GTEST_SKIP() << r.skip()

// The agent's three directories under one scratch directory that is open to
// everyone and sticky, as /dev/shm is.
class AgentOwnershipTest : public testing::Test {
 protected:
  std::string vorn() const { return scratch_ / "vorn"; }
  std::string agentDir() const { return scratch_ / "agent"; }
  std::string kiv() const { return scratch_ / "kiv"; }
  std::string env() const {
    return "VORN_ROOT=" + vorn() + " MROUTE_AGENT_DIR=" + agentDir() + " KIV_INTROSPECT_DIR=" + kiv() + " ";
  }

  // mroute-agent run in ns, stdout and stderr into `out`.
  pid_t start(std::string const& ns, std::string const& out) {
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::setenv("VORN_ROOT", vorn().c_str(), 1);
      ::setenv("MROUTE_AGENT_DIR", agentDir().c_str(), 1);
      ::setenv("KIV_INTROSPECT_DIR", kiv().c_str(), 1);
      if (!std::freopen(out.c_str(), "w", stdout)) ::_exit(126);
      ::dup2(1, 2);
      ::execlp("ip", "ip", "netns", "exec", ns.c_str(), MROUTE_AGENT_PATH, "run", "--intf", "Ethernet1", nullptr);
      ::_exit(127);
    }
    return pid;
  }
  // The status and output of an agent that is expected to stop by itself.
  std::pair<int, std::string> runToEnd(std::string const& ns) {
    std::string const out = scratch_ / "run.out";
    pid_t const pid = start(ns, out);
    int st = 0;
    ::waitpid(pid, &st, 0);
    return {WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), slurp(out)};
  }
  bool waitReady(std::string const& out) {
    for (int i = 0; i < 500; ++i) {
      if (slurp(out).find("ready\n") != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  static int stop(pid_t pid) {
    ::kill(pid, SIGTERM);
    int st = 0;
    ::waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }

  KivTest::Scratch scratch_;
};

TEST_F(AgentOwnershipTest, ASecondAgentOfTheSameNameIsRefusedAndTheFirstStaysInspectable) {
  ROUTERS(routers, 2);
  std::string const firstOut = scratch_ / "first.out";
  pid_t const first = start(routers.ns(0), firstOut);
  ASSERT_TRUE(waitReady(firstOut)) << slurp(firstOut);

  // The natural set-up of one agent per namespace, with the default name.
  auto [rc, out] = runToEnd(routers.ns(1));
  EXPECT_EQ(rc, 1);
  EXPECT_EQ(out, "mroute-agent: introspection socket " + kiv() + "/mroute-agent.sock is in use by pid " +
                     std::to_string(first) +
                     ": an agent named 'mroute-agent' runs already; stop it or give this one another --name\n");

  // The first one still answers on both sockets.
  EXPECT_NE(shell(env() + MROUTE_AGENT_PATH " show").find("upcalls 0"), std::string::npos);
  EXPECT_NE(shell(env() + KIVCTL_PATH " --agent mroute-agent ls /").find("kernelMfib4"), std::string::npos);
  EXPECT_EQ(stop(first), 0);
  EXPECT_NE(::access((kiv() + "/mroute-agent.sock").c_str(), F_OK), 0);
  EXPECT_NE(::access((agentDir() + "/mroute-agent.sock").c_str(), F_OK), 0);
}

TEST_F(AgentOwnershipTest, DirectoriesMadeFirstByAnotherUserStopTheAgentWithOneLine) {
  ROUTERS(routers, 1);
  struct Case {
    std::string dir;
    std::string line;
  };
  std::string const owner = " is owned by uid 65534 (nobody), not by root: remove it or set ";
  std::vector<Case> const cases = {
      {vorn(), "mroute-agent: table root " + vorn() + owner + "VORN_ROOT to a directory you own\n"},
      {kiv(), "mroute-agent: no introspection socket: introspection socket directory " + kiv() + owner +
                  "KIV_INTROSPECT_DIR to a directory you own\n"},
      {agentDir(), "mroute-agent: no show socket: show socket directory " + agentDir() + owner +
                       "MROUTE_AGENT_DIR to a directory you own\n"},
  };
  for (Case const& c : cases) {
    ASSERT_EQ(asUser(kNobody, [&] { return std::to_string(::mkdir(c.dir.c_str(), 0777)); }), "0");
    auto [rc, out] = runToEnd(routers.ns(0));
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(out, c.line);
    // Nothing of the agent's went into it.
    EXPECT_EQ(shell("ls -A " + c.dir), "");
    ::rmdir(c.dir.c_str());
  }
  std::string const out = scratch_ / "ready.out";
  pid_t const agent = start(routers.ns(0), out);
  EXPECT_TRUE(waitReady(out)) << slurp(out);
  EXPECT_EQ(stop(agent), 0);
}

TEST_F(AgentOwnershipTest, AnMfibDirectoryEntryOfAnotherUserIsNotFollowed) {
  ROUTERS(routers, 1);
  using Vorn::Multicast::Fib::MfibDir;
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, vorn());
  KivVorn::Mount mount(em);
  mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf("static"));
  ASSERT_TRUE(mount.getEntity(MfibDir::sharedDirUrl));
  std::string const file = em->pathOfUrl("mfibdir/static");
  ASSERT_TRUE(run("cp " + file + " " + em->pathOfUrl("mfibdir/copy")));
  ASSERT_TRUE(run("cp " + file + " " + em->pathOfUrl("mfibdir/theirs")));
  ASSERT_EQ(::chown(em->pathOfUrl("mfibdir/theirs").c_str(), kNobody, kNobody), 0);

  std::string const out = scratch_ / "agent.out";
  pid_t const agent = start(routers.ns(0), out);
  ASSERT_TRUE(waitReady(out)) << slurp(out);
  std::string const entries = shell(env() + KIVCTL_PATH " --agent mroute-agent ls /mfibDir");
  EXPECT_NE(entries.find("static\t"), std::string::npos) << entries;
  EXPECT_NE(entries.find("copy\t"), std::string::npos) << entries;
  EXPECT_EQ(entries.find("theirs"), std::string::npos) << entries;
  EXPECT_EQ(stop(agent), 0);
}

}  // namespace MrouteAgentOwnership
