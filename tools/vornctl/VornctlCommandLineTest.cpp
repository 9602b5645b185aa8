// vornctl as an operator runs it: a real process over tables this test
// writes, its exit status and what it prints.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "Kiv/EventLoop.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "tests/Vorn/VornTestUtil.h"

namespace {

using namespace Vorn::Multicast::Fib;

struct ToolRun {
  int status = -1;  // exit status, or -1 when the tool died of a signal
  std::string out;
  std::string err;
};

class VornctlCommandLineTest : public ::testing::Test {
 protected:
  ToolRun vornctl(std::string const& args) {
    std::string const errFile = root.file("stderr");
    std::string const cmd = std::string(VORNCTL_PATH) + " " + args + " 2>" + errFile;
    ToolRun r;
    FILE* p = ::popen(cmd.c_str(), "r");
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int const status = ::pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream e(errFile);
    std::stringstream ss;
    ss << e.rdbuf();
    r.err = ss.str();
    return r;
  }
  std::string rooted(std::string const& args) { return "--root " + root.path() + " " + args; }

  // An MFIB table as a publisher leaves it: two routes, indices 1-3 named.
  Kiv::Ptr<Status> mfibTable(std::string const& url) {
    Kiv::Ptr<Status> s = new Status(Kiv::Name(url));
    s->mountIs(root.path() + "/" + Vorn::fileNameOfUrl(url), Vorn::Status::Mode::writer);
    for (unsigned i = 1; i <= 3; ++i)
      s->oifIndexIntfIs(OifIndexIntf(OifIndex(i), Wirly::IntfId("Ethernet" + std::to_string(i))));
    Route a(Routing::Multicast::Fib::IpGenRouteKey("10.0.0.1/32", "239.1.1.1/32"));
    a.oifIs(OifIndex(1), true);
    a.oifIs(OifIndex(3), true);
    a.oifIs(OifIndex(9), true);
    s->routePublish(a);
    Route b(Routing::Multicast::Fib::IpGenRouteKey("10.0.0.2/32", "239.1.1.2/32"));
    b.oifIs(OifIndex(2), true);
    s->routePublish(b);
    return s;
  }

  VornTest::PrivateRoot root;
};

TEST_F(VornctlCommandLineTest, DumpPrintsEachRouteOnceWithInterfaceNames) {
  auto table = mfibTable("mfib/default/pim");
  ToolRun r = vornctl(rooted("dump mfib/default/pim route"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "(10.0.0.1, 239.1.1.1) priority 0 version 1 oif {Ethernet1, Ethernet3, 9:unmapped}\n"
            "(10.0.0.2, 239.1.1.2) priority 0 version 1 oif {Ethernet2}\n");
  // The same records with typed fields: names where known, else the index.
  r = vornctl(rooted("dump mfib/default/pim route --json --limit 1"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"url\": \"mfib/default/pim\", \"type\": \"Vorn::Multicast::Fib::Status\", \"table\": \"route\", "
            "\"records\": [\n  {\"key\": {\"source\": \"10.0.0.1\", \"group\": \"239.1.1.1\"}, \"intf1\": null, "
            "\"intf2\": null, \"intf3\": null, \"intf4\": null, \"flags\": 0, \"priority\": 0, \"version\": 1, "
            "\"rpaIndex\": 0, \"oifs\": [\"Ethernet1\", \"Ethernet3\", 9]}]}\n");
  EXPECT_EQ(vornctl(rooted("dump mfib/default/pim route --limit 1")).out.find('\n') + 1,
            vornctl(rooted("dump mfib/default/pim route --limit 1")).out.size());

  // Through a bit mapper table instead: index 9 is named there.
  Kiv::Ptr<BitMapper::VornStatus> bm = new BitMapper::VornStatus(Kiv::Name("bm"));
  bm->mountIs(root.file("bm.vorn"), Vorn::Status::Mode::writer);
  bm->bitIndexMapIs(BitMapper::BitIndexMap(
      BitMapper::BitIndex(9), BitMapper::BitMapperKey(Wirly::IntfId("Vlan9"), Wirly::IpGenAddr()), 1, true));
  r = vornctl(rooted("dump mfib/default/pim route --bitmapper " + root.file("bm.vorn")));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("oif {1:unmapped, 3:unmapped, Vlan9}"), std::string::npos) << r.out;

  // Other tables print each record once too.
  r = vornctl(rooted("dump mfib/default/pim oifIndexIntf"));
  EXPECT_EQ(r.out, "oifIndex 1 intf Ethernet1\noifIndex 2 intf Ethernet2\noifIndex 3 intf Ethernet3\n");
  r = vornctl(rooted("dump mfib/default/pim oifIndexIntf --json --limit 1"));
  EXPECT_NE(r.out.find("\"records\": [\n  {\"oifIndex\": 1, \"intfId\": \"Ethernet1\"}]}"), std::string::npos) << r.out;
  r = vornctl(rooted("dump " + root.file("bm.vorn") + " bitIndexMap --json"));
  EXPECT_NE(r.out.find("{\"bitIndex\": 9, \"bitMapperKey\": {\"intfId\": \"Vlan9\", \"addr\": null}, \"refCount\": 1, "
                       "\"firstAlloc\": true}"),
            std::string::npos)
      << r.out << r.err;
}

TEST_F(VornctlCommandLineTest, MalformedCommandLinesNameTheirFault) {
  auto table = mfibTable("mfib/default/pim");
  struct Case {
    std::string args;
    std::string err;
  };
  for (Case const& c : {
           Case{rooted("dump mfib/default/pim route --limit -1"),
                "vornctl dump: --limit takes a whole number of 0 or more, not '-1'\n"},
           Case{rooted("dump mfib/default/pim route --limit 12x"),
                "vornctl dump: --limit takes a whole number of 0 or more, not '12x'\n"},
           Case{rooted("dump mfib/default/pim route --limit"), "vornctl dump: --limit needs a value\n"},
           Case{rooted("dump mfib/default/pim route --frobnicate 1"), "vornctl dump: unknown option --frobnicate\n"},
           Case{rooted("watch mfib/default/pim --seconds soon"),
                "vornctl watch: --seconds takes a number of seconds of 0 or more, not 'soon'\n"},
           Case{rooted("watch mfib/default/pim --count -3"),
                "vornctl watch: --count takes a whole number of 0 or more, not '-3'\n"},
           Case{"--root", "vornctl: --root needs a directory\n"},
       }) {
    ToolRun const r = vornctl(c.args);
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n') + 1), c.err) << c.args;
    EXPECT_EQ(r.err.find("sto"), std::string::npos) << r.err;
  }
  // A missing file is named as given, not with its suffix doubled.
  ToolRun const r = vornctl(rooted("show gone.vorn"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("gone.vorn)"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find(".vorn.vorn"), std::string::npos) << r.err;
}

TEST_F(VornctlCommandLineTest, ShowCountsOnlyLiveReadersAndPrintsUtc) {
  auto table = mfibTable("mfib/default/pim");
  std::string const path = root.path() + "/" + Vorn::fileNameOfUrl("mfib/default/pim");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t const child = ::fork();
  if (child == 0) {
    Kiv::Ptr<Status> reader = new Status(Kiv::Name("reader"));
    reader->mountIs(path, Vorn::Status::Mode::reader);
    Kiv::EventLoop loop;
    reader->followIs(&loop);
    char c = 1;
    if (::write(ready[1], &c, 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  char c;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ToolRun r = vornctl(rooted("show mfib/default/pim"));
  EXPECT_NE(r.out.find("readers      1 following"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Z\n"), std::string::npos) << r.out;
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  r = vornctl(rooted("show mfib/default/pim"));
  EXPECT_NE(r.out.find("readers      0 following"), std::string::npos) << r.out;
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(VornctlCommandLineTest, WatchGivesBackItsDoorbellOnSigterm) {
  auto table = mfibTable("mfib/default/pim");
  std::string const cmd = std::string(VORNCTL_PATH) + " " + rooted("watch mfib/default/pim");
  pid_t const child = ::fork();
  if (child == 0) {
    ::execl("/bin/sh", "sh", "-c", ("exec " + cmd + " >/dev/null").c_str(), nullptr);
    ::_exit(127);
  }
  auto following = [&] { return vornctl(rooted("show mfib/default/pim")).out; };
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (following().find("readers      1 following") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_NE(following().find("readers      1 following"), std::string::npos);
  ::kill(child, SIGTERM);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  // The slot is free again and its doorbell file is gone.
  EXPECT_EQ(table->region()->header()->bells[0].pid.load(), 0u);
  DIR* d = ::opendir(root.path().c_str());
  ASSERT_NE(d, nullptr);
  while (dirent* e = ::readdir(d)) EXPECT_EQ(std::string(e->d_name).find(".bell."), std::string::npos) << e->d_name;
  ::closedir(d);
}

TEST_F(VornctlCommandLineTest, WatchPrintsRouteChangesInTheirPlainForm) {
  auto table = mfibTable("mfib/default/pim");
  std::string const cmd = std::string(VORNCTL_PATH) + " " + rooted("watch mfib/default/pim --count 2 --seconds 10");
  FILE* out = ::popen(cmd.c_str(), "r");
  ASSERT_NE(out, nullptr);
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (vornctl(rooted("show mfib/default/pim")).out.find("readers      1 following") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  Route c(Routing::Multicast::Fib::IpGenRouteKey("10.0.0.3/32", "239.1.1.3/32"));
  c.oifIs(OifIndex(2), true);
  table->routePublish(c);
  // The deletion only once the route has been printed: a reader that
  // wakes late would find it gone already.
  std::string lines;
  char buf[512];
  if (std::fgets(buf, sizeof buf, out)) lines += buf;
  table->routeDel(c.key());
  while (std::fgets(buf, sizeof buf, out)) lines += buf;
  EXPECT_EQ(::pclose(out), 0);
  EXPECT_EQ(lines,
            "route: (10.0.0.3, 239.1.1.3) priority 0 version 1 oif {Ethernet2}\n"
            "route: (10.0.0.3, 239.1.1.3) deleted\n");
}

TEST_F(VornctlCommandLineTest, VersionIsPrinted) {
  ToolRun const r = vornctl("--version");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("vornctl (libmroute) ", 0), 0u) << r.out;
}

}  // namespace
