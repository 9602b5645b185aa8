// kivctl against a live agent process: the child serves a bit mapper, an
// MFIB directory and a route model from its event loop, the test runs the
// real kivctl.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "BitMapper/BitMapper.h"
#include "Kiv/AttrServer.h"
#include "Kiv/Dir.h"
#include "Kiv/EventLoop.h"
#include "Mfib/MfibVorn.h"
#include "MrouteLib/MrouteLib.h"
#include "Schema/KernelMfibStatus.h"

namespace {

struct Outcome {
  int status;
  std::string out;
};

Outcome kivctl(std::string const& args) {
  std::string cmd = std::string(KIVCTL_PATH) + " " + args + " 2>&1";
  FILE* p = ::popen(cmd.c_str(), "r");
  Outcome r{-1, {}};
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = ::pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

class KivctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kivctl-test.XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir = tmpl;
    ::setenv("KIV_INTROSPECT_DIR", dir.c_str(), 1);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(ready[0]);
      serve(ready[1]);
      ::_exit(0);
    }
    ::close(ready[1]);
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::close(ready[0]);
  }
  void TearDown() override {
    ::kill(child, SIGTERM);
    int st = 0;
    ::waitpid(child, &st, 0);
    std::string cmd = "rm -rf " + dir;
    ASSERT_EQ(std::system(cmd.c_str()), 0);
  }

  // The agent: runs until killed.
  static void serve(int readyFd) {
    Kiv::EventLoop loop;
    auto root = Kiv::Dir::DirIs("root");
    auto vornDir = Vorn::Multicast::Fib::mfibVornDirFactory();
    vornDir->vornCollIs(L3::VrfName("default"));
    vornDir->vornCollIs(L3::VrfName("red"));
    root->entryIs("mfibVornDir", vornDir);
    auto config = BitMapper::configFactory(4, 0);
    root->entryIs("bitMapperConfig", config);
    auto mroute = MrouteLib::mrouteTableCollFactory();
    auto table = mroute->vrfMrouteTableIs(L3::VrfName("default"));
    auto route = table->mrouteIs(Routing::Multicast::Fib::IpGenRouteKey("10.0.0.1/32", "239.1.1.1/32"));
    route->rpfFailureCountIs(Bridging::VlanId(10), 3);
    route->rpfFailureCountIs(Bridging::VlanId(20), 4);
    route->acceptingIntfIdIs(Wirly::IntfId("Ethernet1"));
    table->mrouteIs(Routing::Multicast::Fib::IpGenRouteKey("0.0.0.0/0", "239.1.1.2/32"));
    auto kernel = Routing::KernelMfib::Status::statusIs("kernelMfib4");
    for (std::uint16_t vif = 1; vif <= 3; ++vif)
      kernel->vifIntfIs(vif, Wirly::IntfId("Ethernet" + std::to_string(vif)));
    root->entryIs("kernelMfib4", kernel);
    table->dirtyInfoIs()->dirtyVlanIs(8);
    root->entryIs("mroute", mroute);
    auto review = MrouteLib::reviewInfoFactory();
    review->reviewIs(L3::VrfName("red"), 1);
    review->reviewIs(L3::VrfName("blue"), 2);
    root->entryIs("reviewInfo", review);
    Kiv::AttrServer introspect(loop, root, Kiv::AttrServer::defaultPath("agent"));
    char c = 'r';
    if (::write(readyFd, &c, 1) != 1) ::_exit(3);
    ::close(readyFd);
    for (;;) loop.runOnce(-1);
  }

  std::string dir;
  pid_t child = -1;
};

TEST_F(KivctlTest, ListsGetsSetsAndRefusesThroughALiveAgent) {
  Outcome r = kivctl("--agent agent ls /");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out,
            "bitMapperConfig\tentry\tBitMapper::Config\tro\nkernelMfib4\tentry\tRouting::KernelMfib::Status\tro\n"
            "mfibVornDir\tentry\tVorn::Multicast::Fib::MfibVornDir\tro\n"
            "mroute\tentry\tMrouteLib::MrouteTableColl\tro\nreviewInfo\tentry\tMrouteLib::ReviewInfo\tro\n");
  r = kivctl("--agent agent get /mfibVornDir/vornColl/default");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "vrfName\tdefault\nvornPtr\t0 entries\n");
  r = kivctl("--agent agent --json get /mfibVornDir/vornColl/red");
  EXPECT_EQ(r.out,
            "{\"type\": \"Vorn::Multicast::Fib::MfibVornColl\", \"name\": \"red\", \"attributes\": "
            "{\"vrfName\": \"red\", \"vornPtr\": {}}}\n");
  // Entities keyed by their own names show once; --raw keeps the text form.
  r = kivctl("--agent agent ls /mfibVornDir/vornColl");
  EXPECT_TRUE(r.out == "default\nred\n" || r.out == "red\ndefault\n") << r.out;
  r = kivctl("--agent agent --raw ls /mfibVornDir/vornColl");
  EXPECT_NE(r.out.find("'red'\tEntity('Vorn::Multicast::Fib::MfibVornColl', 'red')\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("'default'\tEntity('Vorn::Multicast::Fib::MfibVornColl', 'default')\n"), std::string::npos);

  // A write by name reaches the agent's entity and stays.
  EXPECT_EQ(kivctl("--agent agent set /bitMapperConfig/bitMapMinIndex 10").status, 0);
  EXPECT_EQ(kivctl("--agent agent get /bitMapperConfig/bitMapMinIndex").out, "10\n");
  EXPECT_EQ(kivctl("--agent agent set /mfibVornDir/vornColl/blue None").status, 0);
  EXPECT_EQ(kivctl("--agent agent get /mfibVornDir/vornColl/blue/vrfName").out, "blue\n");
  EXPECT_EQ(kivctl("--agent agent del /mfibVornDir/vornColl/blue").status, 0);
  EXPECT_EQ(kivctl("--agent agent get /mfibVornDir/vornColl/blue").status, 1);

  r = kivctl("--agent agent set /bitMapperConfig/bitMapSize 8");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "kivctl: BitMapper::Config::bitMapSize is read-only\n");
  r = kivctl("--agent agent set /bitMapperConfig/bitMapMinIndex ten");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("BitMapper::Config::bitMapMinIndex: "), std::string::npos) << r.out;
  r = kivctl("--agent agent get /nosuch");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "kivctl: /nosuch: no such entry\n");
  r = kivctl("--agent nobody ls /");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.out.find("cannot reach the agent"), std::string::npos);
  EXPECT_EQ(kivctl("--help").status, 0);
  EXPECT_EQ(kivctl("--agent agent frob /").status, 2);
}

TEST_F(KivctlTest, TypedJsonCounterStepsAndBulkDeletesThroughALiveAgent) {
  std::string const table = "/mroute/vrfMrouteTable/default";
  Outcome r = kivctl("--agent agent --json get " + table + "/dirtyInfo");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(
      r.out,
      "{\"type\": \"MrouteLib::DirtyInfo\", \"name\": \"\", \"attributes\": {\"dirtyVlan\": 8, "
      "\"dirtyVlanPort\": 0, \"dirtyVlanGroup\": 0, \"dirtyGroupSet\": {}, \"dirtyLag\": 0, \"dirtyRoute\": false, "
      "\"dirtyNatSrc\": {}}}\n");
  r = kivctl("--agent agent --json get " + table + "/af");
  EXPECT_EQ(r.out, "\"ipv4\"\n");
  r = kivctl("--agent agent --json get " + table + "/mroutesInitialized");
  EXPECT_EQ(r.out, "false\n");
  // A route by its key, walked from the table; its collection as an object.
  std::string const routePath = table + "/mroute/" + "\"" +
                                Routing::Multicast::Fib::IpGenRouteKey("10.0.0.1/32", "239.1.1.1/32").valueToStrep() +
                                "\"";
  r = kivctl("--agent agent --json get " + routePath + "/rpfFailureCount");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(r.out == "{\"10\": 3, \"20\": 4}\n" || r.out == "{\"20\": 4, \"10\": 3}\n") << r.out;
  r = kivctl("--agent agent --json get " + routePath + "/mrouteTable/reviews");
  EXPECT_EQ(r.out, "0\n");

  // Counter steps and bulk deletes, as the typed caller names them.
  r = kivctl("--agent agent invoke " + table + "/reviewsInc 5");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "5\n");
  EXPECT_EQ(kivctl("--agent agent invoke " + table + "/reviewsDec").out, "4\n");
  EXPECT_EQ(kivctl("--agent agent --json get " + table + "/reviews").out, "4\n");
  EXPECT_EQ(kivctl("--agent agent invoke " + table + "/fastdropCountDec 5").out, "65531\n");
  EXPECT_EQ(kivctl("--agent agent invoke /reviewInfo/reviewDelAll").status, 0);
  EXPECT_EQ(kivctl("--agent agent --json get /reviewInfo/review").out, "{}\n");
  r = kivctl("--agent agent invoke /mroute/oifSetDelAll");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "kivctl: MrouteLib::MrouteTableColl has no attribute oifSetDelAll\n");
  r = kivctl("--agent agent invoke " + table + "/reviewsInc x");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("MrouteLib::MrouteTable::reviews: "), std::string::npos) << r.out;
  r = kivctl("--agent agent get " + table + "/reviewsInc");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "kivctl: " + table + "/reviewsInc is an operation: invoke it\n");
}

TEST_F(KivctlTest, ValuesArePlainByDefaultRawOnRequestAndCollectionsBounded) {
  // A map of interface ids by VIF, and the reverse one: entries, not counts.
  Outcome r = kivctl("--agent agent get /kernelMfib4");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out,
            "vifIntf\t3 entries\n  1\tEthernet1\n  2\tEthernet2\n  3\tEthernet3\n"
            "intfVif\t3 entries\n  Ethernet1\t1\n  Ethernet2\t2\n  Ethernet3\t3\n");
  EXPECT_EQ(kivctl("--agent agent --json get /kernelMfib4/vifIntf").out,
            "{\"1\": \"Ethernet1\", \"2\": \"Ethernet2\", \"3\": \"Ethernet3\"}\n");
  EXPECT_EQ(kivctl("--agent agent get /kernelMfib4/vifIntf/3").out, "Ethernet3\n");
  EXPECT_EQ(kivctl("--agent agent --json get /kernelMfib4/vifIntf/3").out, "\"Ethernet3\"\n");
  EXPECT_EQ(kivctl("--agent agent --raw get /kernelMfib4/vifIntf/3").out,
            "Value('Wirly::IntfId', ** {'intfId': 'Ethernet3'})\n");
  EXPECT_EQ(kivctl("--agent agent --raw --json get /kernelMfib4/vifIntf/3").out,
            "{\"_type\": \"Wirly::IntfId\", \"intfId\": \"Ethernet3\"}\n");
  EXPECT_EQ(kivctl("--agent agent --raw get /kernelMfib4").out, "vifIntf\t3 entries\nintfVif\t3 entries\n");

  // A bound says how much it left out, in text and in JSON; 0 is none.
  EXPECT_EQ(kivctl("--agent agent --limit 2 get /kernelMfib4/vifIntf").out,
            "1\tEthernet1\n2\tEthernet2\n... 1 more entry\n");
  EXPECT_EQ(kivctl("--agent agent --limit 1 get /kernelMfib4").out,
            "vifIntf\t3 entries\n  1\tEthernet1\n  ... 2 more entries\n"
            "intfVif\t3 entries\n  Ethernet1\t1\n  ... 2 more entries\n");
  EXPECT_EQ(kivctl("--agent agent --limit 1 --json get /kernelMfib4/vifIntf").out,
            "{\"1\": \"Ethernet1\", \"...\": 2}\n");
  EXPECT_EQ(kivctl("--agent agent --limit 0 get /kernelMfib4/vifIntf").out,
            "1\tEthernet1\n2\tEthernet2\n3\tEthernet3\n");
  EXPECT_EQ(kivctl("--agent agent --limit x get /kernelMfib4").status, 2);

  // Routes by their keys: (S, G), "*" for any source; typed in JSON.
  std::string const table = "/mroute/vrfMrouteTable/default";
  r = kivctl("--agent agent get " + table + "/mroute");
  EXPECT_NE(r.out.find("(10.0.0.1, 239.1.1.1)\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("(*, 239.1.1.2)\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("Entity("), std::string::npos) << r.out;
  std::string const key = Routing::Multicast::Fib::IpGenRouteKey("10.0.0.1/32", "239.1.1.1/32").valueToStrep();
  std::string const route = table + "/mroute/\"" + key + "\"";
  r = kivctl("--agent agent get " + route);
  EXPECT_EQ(r.out.rfind("key\t(10.0.0.1, 239.1.1.1)\nmrouteTable\tdefault\nacceptingVlanId\tnone\n"
                        "acceptingIntfId\tEthernet1\n",
                        0),
            0u)
      << r.out;
  EXPECT_NE(r.out.find("rpfFailureCount\t2 entries\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  10\t3\n"), std::string::npos) << r.out;
  // A key is named by its plain form too.
  EXPECT_EQ(kivctl("--agent agent get '" + table + "/mroute/(*, 239.1.1.2)/key'").out, "(*, 239.1.1.2)\n");
  EXPECT_EQ(kivctl("--agent agent get '" + table + "/mroute/(10.0.0.1, 239.1.1.1)/rpfFailureCount/20'").out, "4\n");
  EXPECT_EQ(kivctl("--agent agent --json get " + route + "/key").out,
            "{\"source\": \"10.0.0.1\", \"group\": \"239.1.1.1\"}\n");
  EXPECT_EQ(kivctl("--agent agent --raw get " + route + "/key").out, key + "\n");
  r = kivctl("--agent agent --json get " + route);
  EXPECT_NE(r.out.find("\"key\": {\"source\": \"10.0.0.1\", \"group\": \"239.1.1.1\"}, \"mrouteTable\": \"default\", "
                       "\"acceptingVlanId\": null, \"acceptingIntfId\": \"Ethernet1\""),
            std::string::npos)
      << r.out;
}

TEST_F(KivctlTest, AClientThatSendsNothingDoesNotHoldTheAgent) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::string path = dir + "/agent.sock";
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  // The silent client is still connected; another is served meanwhile.
  EXPECT_EQ(kivctl("--agent agent get /bitMapperConfig/bitMapSize").out, "4\n");
  ::close(fd);
}

}  // namespace
