// A route added to a running mroute-static from the command line reaches
// the kernel through a running mroute-agent, and its removal takes the
// kernel's entry away:
//
//   source eth0 ==== Ethernet1 [router: mroute-agent] Ethernet2 ==== eth0 receiver
//
// Needs root for the namespaces; skips with the reason without it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/TestShell.h"

namespace {

using TestShell::run;
using TestShell::shell;

// A program run in the background, its output in a file.
class Proc {
 public:
  Proc(std::vector<std::string> args, std::string const& out) {
    pid_ = ::fork();
    if (pid_ == 0) {
      int const fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || ::dup2(fd, 1) < 0 || ::dup2(fd, 2) < 0) ::_exit(126);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~Proc() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
};

// Polls until `what` matches, for up to five seconds.
bool eventually(std::function<std::string()> const& what, std::string const& pattern) {
  std::regex const re(pattern);
  for (int i = 0; i < 250; ++i) {
    if (std::regex_search(what(), re)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(StaticKernel, ARouteAddedAtRunTimeReachesTheKernelThroughTheAgent) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces";
  std::string const id = std::to_string(::getpid());
  std::string const s = "mskS" + id, r = "mskR" + id, d = "mskD" + id;
  char tmpl[] = "/dev/shm/mroute-static-kernel.XXXXXX";
  ASSERT_NE(::mkdtemp(tmpl), nullptr);
  std::string const dir = tmpl;
  std::vector<std::string> made;
  struct Cleanup {
    std::vector<std::string>& made;
    std::string dir;
    ~Cleanup() {
      for (auto const& ns : made) run("ip netns del " + ns);
      run("rm -rf " + dir);
    }
  } cleanup{made, dir};
  for (std::string const& ns : {s, r, d}) {
    if (!run("ip netns add " + ns)) GTEST_SKIP() << "cannot create network namespaces (ip netns add failed)";
    made.push_back(ns);
  }
  int n = 0;
  for (std::string const& peer : {s, d}) {
    std::string const net = std::to_string(++n), intf = "Ethernet" + net;
    for (std::string const& step :
         {"ip link add " + intf + " netns " + r + " type veth peer name eth0 netns " + peer,
          "ip -n " + r + " addr add 10." + net + ".0.1/24 dev " + intf, "ip -n " + r + " link set " + intf + " up",
          "ip -n " + peer + " addr add 10." + net + ".0.2/24 dev eth0", "ip -n " + peer + " link set eth0 up"})
      ASSERT_TRUE(run(step)) << step;
  }
  for (char const* sub : {"/vorn", "/agent", "/kiv", "/static"}) ASSERT_EQ(::mkdir((dir + sub).c_str(), 0700), 0);
  ::setenv("VORN_ROOT", (dir + "/vorn").c_str(), 1);
  ::setenv("MROUTE_AGENT_DIR", (dir + "/agent").c_str(), 1);
  ::setenv("KIV_INTROSPECT_DIR", (dir + "/kiv").c_str(), 1);
  ::setenv("MROUTE_STATIC_DIR", (dir + "/static").c_str(), 1);
  ::setenv("BRISKLOG_DIR", dir.c_str(), 1);
  std::ofstream(dir + "/routes") << "# filled at run time\n";

  Proc agent({"ip", "netns", "exec", r, MROUTE_AGENT_PATH, "run", "--intf", "Ethernet1,Ethernet2", "--ipv4"},
             dir + "/agent.log");
  ASSERT_TRUE(eventually([&] { return slurp(dir + "/agent.log"); }, "(^|\n)ready\n")) << slurp(dir + "/agent.log");
  Proc app({MROUTE_STATIC_PATH, "--app", "static", "--file", dir + "/routes"}, dir + "/static.log");
  ASSERT_TRUE(eventually([&] { return slurp(dir + "/static.log"); }, "^static static: 0 routes"))
      << slurp(dir + "/static.log");

  std::string const cli = std::string(MROUTE_STATIC_PATH) + " ";
  EXPECT_EQ(run(cli + "add default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2"), true);
  auto mroutes = [&] { return shell("ip -n " + r + " mroute show"); };
  // An (S, G) route is programmed before any packet.
  EXPECT_TRUE(eventually(mroutes, "\\(10\\.1\\.0\\.2, ?239\\.1\\.1\\.1\\) +Iif: Ethernet1 +Oifs: Ethernet2"))
      << mroutes() << slurp(dir + "/agent.log");
  EXPECT_EQ(run(cli + "del default 10.1.0.2 239.1.1.1"), true);
  EXPECT_TRUE(
      eventually([&] { return std::regex_search(mroutes(), std::regex("239\\.1\\.1\\.1")) ? "" : "gone"; }, "gone"))
      << mroutes();
  EXPECT_EQ(slurp(dir + "/routes"), "# filled at run time\n");
}

}  // namespace
