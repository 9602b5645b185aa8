// The configuration file: what a line may say, what is refused with its
// place, and the command line winning over the file, in process and through
// both daemons.
#include "DaemonConfig.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/Vorn/VornTestUtil.h"

namespace Daemon {
namespace {

using Args = std::vector<std::string>;

std::vector<ConfigOption> const kOptions = {
    {"intf"},
    {"count", true, 0, [](std::string_view v) { return v.find_first_not_of("0123456789") == std::string_view::npos; }},
    {"ipv4", false, 1},
    {"ipv6", false, 1},
    {"once", false},
};

TEST(DaemonConfig, LinesBecomeOptionsInTheFilesOrder) {
  std::istringstream in(
      "# comment\n"
      "\n"
      "  intf =  Ethernet1, Ethernet2  \r\n"
      "count=12\n"
      "ipv4\n"
      "ipv6 = no\n"
      "once = yes\n"
      "intf = Vlan100=br0.100\n");
  ConfigFile const f = configRead(in, "agent.conf", kOptions);
  EXPECT_TRUE(f.errors.empty());
  // The value is the rest of the line: inner spaces and '=' stay.
  EXPECT_EQ(f.args,
            (Args{"--intf", "Ethernet1, Ethernet2", "--count", "12", "--ipv4", "--once", "--intf", "Vlan100=br0.100"}));
}

TEST(DaemonConfig, EveryBadLineIsReportedWithItsPlace) {
  std::istringstream in(
      "intf = Ethernet1\n"
      "intff = Ethernet2\n"
      "count = 1x\n"
      "intf =\n"
      "ipv4 = maybe\n"
      "--count = 3\n"
      "count\n");
  ConfigFile const f = configRead(in, "/etc/mroute/agent.conf", kOptions);
  EXPECT_EQ(
      f.errors,
      (Args{"/etc/mroute/agent.conf:2: unknown setting 'intff'", "/etc/mroute/agent.conf:3: bad value '1x' for 'count'",
            "/etc/mroute/agent.conf:4: 'intf' needs a value",
            "/etc/mroute/agent.conf:5: 'ipv4' takes yes or no, not 'maybe'",
            "/etc/mroute/agent.conf:6: unknown setting '--count'", "/etc/mroute/agent.conf:7: 'count' needs a value"}));
}

class DaemonConfigMerge : public ::testing::Test {
 protected:
  std::string const file_ = "/tmp/daemon-config-test-" + std::to_string(::getpid()) + ".conf";
  void TearDown() override { std::remove(file_.c_str()); }
  bool merge(std::string const& text, Args& args, std::string& err) {
    std::ofstream(file_) << text;
    std::ostringstream e;
    bool const ok = configMerge(args, kOptions, "prog", e);
    err = e.str();
    return ok;
  }
};

TEST_F(DaemonConfigMerge, TheCommandLineWinsOptionByOptionAndGroupByGroup) {
  Args args{"--count", "7", "--config", file_, "--ipv6"};
  std::string err;
  ASSERT_TRUE(merge("intf = Ethernet1\nintf = Ethernet2\ncount = 3\nipv4\nonce\n", args, err)) << err;
  // The file's count and its ipv4 (same group as the command line's ipv6)
  // are left out; both of its intf lines stay, before the command line.
  EXPECT_EQ(args, (Args{"--intf", "Ethernet1", "--intf", "Ethernet2", "--once", "--count", "7", "--ipv6"}));

  args = {"--config", file_, "--intf", "Ethernet9"};
  ASSERT_TRUE(merge("intf = Ethernet1\nintf = Ethernet2\n", args, err));
  EXPECT_EQ(args, (Args{"--intf", "Ethernet9"}));
}

TEST_F(DaemonConfigMerge, NothingChangesWithoutConfigAndABadFileIsRefusedWhole) {
  Args args{"--count", "7"};
  std::string err;
  EXPECT_TRUE(configMerge(args, kOptions, "prog", std::cerr));
  EXPECT_EQ(args, (Args{"--count", "7"}));

  args = {"--config", file_};
  EXPECT_FALSE(merge("intf = Ethernet1\nbogus\n", args, err));
  EXPECT_EQ(err, file_ + ":2: unknown setting 'bogus'\nprog: " + file_ + " refused\n");

  args = {"--config", "/nonexistent/agent.conf"};
  std::ostringstream e;
  EXPECT_FALSE(configMerge(args, kOptions, "prog", e));
  EXPECT_EQ(e.str(), "prog: cannot read /nonexistent/agent.conf: No such file or directory\n");

  args = {"--count", "1", "--config"};
  e.str("");
  EXPECT_FALSE(configMerge(args, kOptions, "prog", e));
  EXPECT_EQ(e.str(), "prog: --config needs a file\n");
}

// Runs a command line through the shell; the exit status, stdout and stderr.
int run(std::string const& cmd, std::string& out, std::string& err) {
  std::string const errFile = "/tmp/daemon-config-test-" + std::to_string(::getpid()) + ".err";
  FILE* p = ::popen((cmd + " 2>" + errFile).c_str(), "r");
  char buf[512];
  out.clear();
  while (std::fgets(buf, sizeof buf, p)) out += buf;
  int const status = ::pclose(p);
  std::ifstream e(errFile);
  err.assign(std::istreambuf_iterator<char>(e), {});
  std::remove(errFile.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(DaemonConfigProgram, BothDaemonsReadTheFileAndRefuseBadLinesBeforeDoingAnything) {
  VornTest::PrivateRoot root;
  std::string const base = root.path() + "/../daemon-config-" + std::to_string(::getpid());
  std::string const routes = base + ".routes", conf = base + ".conf";
  std::ofstream(routes) << "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n";
  std::string const env = "VORN_ROOT=" + root.path() + " ";
  std::string out, err;

  std::ofstream(conf) << "# the static application\napp = static\nfile = " << routes << "\nonce\n";
  EXPECT_EQ(run(env + MROUTE_STATIC_PATH + " --config " + conf, out, err), 0) << err;
  EXPECT_EQ(out, "static static: 1 routes (+1 -0 ~0)\n");
  EXPECT_EQ(run(env + MROUTE_STATIC_PATH + " --config " + conf + " --app pim", out, err), 0) << err;
  EXPECT_EQ(out, "static pim: 1 routes (+1 -0 ~0)\n");

  std::ofstream(conf) << "app = static\nfile = " << routes << "\nonce = sometimes\n";
  EXPECT_EQ(run(env + MROUTE_STATIC_PATH + " --config " + conf, out, err), 2);
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, conf + ":3: 'once' takes yes or no, not 'sometimes'\nmroute-static: " + conf + " refused\n");

  // The agent refuses its file before it needs any privilege.
  std::ofstream(conf) << "intf = Ethernet1\nunrouted-rate = fast\ndrop-entry-max = -1\n";
  EXPECT_EQ(run(env + MROUTE_AGENT_PATH + " run --config " + conf, out, err), 2);
  EXPECT_EQ(err, conf + ":2: bad value 'fast' for 'unrouted-rate'\n" + conf +
                     ":3: bad value '-1' for 'drop-entry-max'\nmroute-agent: " + conf + " refused\n");
  std::remove(conf.c_str());
  std::remove(routes.c_str());
}

}  // namespace
}  // namespace Daemon
