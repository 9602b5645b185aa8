// vornctl's directory view and its JSON forms, run as the operator would,
// against a directory this test publishes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "Json.h"
#include "Mfib/MfibVorn.h"
#include "Stelo/Mount.h"
#include "tests/Vorn/VornTestUtil.h"

using namespace Vorn::Multicast::Fib;

namespace {

class VornctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KivVorn::Mount mount(em);
    mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo::dirWriterOf("pim"));
    dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
    ASSERT_TRUE(dir);
    writer = mfibDirWriterFactory("pim", dir, mfibVornDirFactory(), em);
  }
  // stdout of vornctl with args, and its exit code.
  std::string run(std::string const& args, int* code = nullptr) {
    std::string const cmd = std::string(VORNCTL_PATH) + " --root " + root.path() + " " + args + " 2>&1";
    FILE* p = ::popen(cmd.c_str(), "r");
    std::string out;
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    int const status = ::pclose(p);
    if (code) *code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
  }

  VornTest::PrivateRoot root;
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  Kiv::Ptr<Kiv::Dir> dir;
  Kiv::Ptr<MfibDirWriter> writer;
  std::string const pid = std::to_string(::getpid());
};

TEST_F(VornctlTest, DirShowsApplicationsVrfsUrlsAndWhetherEachTableReads) {
  writer->doAddVorn("red", "mfib/red/pim");
  writer->appDir()->dirColl("red")->bitMapperVornUrlIs("bitmapper/red/pim");  // announced, never made
  std::ofstream(root.file("mfibdir%2Fbad.vorn")) << "not a table";

  int code = -1;
  std::string const text = run("dir", &code);
  EXPECT_EQ(code, 0) << text;
  EXPECT_NE(text.find("bad  unreadable: "), std::string::npos) << text;
  EXPECT_NE(
      text.find("pim  writer " + pid +
                " (running)\n  default\n    mfib       -\n    bitmapper  -\n"
                "  red\n    mfib       mfib/red/pim (readable)\n    bitmapper  bitmapper/red/pim (not readable: "),
      std::string::npos)
      << text;

  std::string const json = run("dir --json", &code);
  EXPECT_EQ(code, 0) << json;
  std::string const pim = "{\"name\": \"pim\", \"writer\": {\"pid\": " + pid +
                          ", \"running\": true}, \"vrfs\": [{\"vrf\": \"default\", \"vornUrl\": null, "
                          "\"bitMapperVornUrl\": null}, {\"vrf\": \"red\", \"vornUrl\": {\"url\": \"mfib/red/pim\", "
                          "\"readable\": true}, \"bitMapperVornUrl\": {\"url\": \"bitmapper/red/pim\", \"readable\": "
                          "false, \"error\": \"";
  EXPECT_EQ(json.rfind("{\"root\": \"" + root.path() + "\", \"applications\": [\n  {\"name\": \"bad\", \"error\": ", 0),
            0u)
      << json;
  EXPECT_NE(json.find(",\n  " + pim), std::string::npos) << json;
  EXPECT_EQ(json.substr(json.size() - 8), "\"}}]}]}\n") << json;  // ends after pim's last VRF
}

TEST_F(VornctlTest, ListShowAndDumpSpeakJsonToo) {
  writer->doAddVorn("red", "mfib/red/pim");
  std::string const list = run("list --json");
  EXPECT_NE(list.find("{\"url\": \"mfib/red/pim\", \"type\": \"Vorn::Multicast::Fib::Status\", \"writer\": {\"pid\": " +
                      pid + ", \"running\": true}, \"tables\": [{\"name\": \"route\", \"records\": 0, \"capacity\": "),
            std::string::npos)
      << list;
  EXPECT_NE(list.find("{\"url\": \"mfibdir/pim\", \"type\": \"Vorn::Multicast::Fib::MfibDirStatus\""),
            std::string::npos)
      << list;

  std::string const show = run("show mfibdir/pim --json");
  EXPECT_NE(show.find("\"type\": \"Vorn::Multicast::Fib::MfibDirStatus\""), std::string::npos) << show;
  EXPECT_NE(
      show.find(
          "\"tables\": [{\"name\": \"dirColl\", \"records\": 2, \"capacity\": 63, \"limit\": 1024, \"keyBytes\": 101"),
      std::string::npos)
      << show;

  std::string const dump = run("dump mfibdir/pim dirColl --json");
  EXPECT_EQ(dump,
            "{\"url\": \"mfibdir/pim\", \"type\": \"Vorn::Multicast::Fib::MfibDirStatus\", \"table\": \"dirColl\", "
            "\"records\": [\n  {\"vrf\": \"default\", \"vornUrl\": null, \"bitMapperVornUrl\": null},\n  "
            "{\"vrf\": \"red\", \"vornUrl\": \"mfib/red/pim\", \"bitMapperVornUrl\": null}]}\n");
  // Without --json each record prints once (it holds its key).
  EXPECT_EQ(run("dump mfibdir/pim dirColl --limit 1"),
            "MfibDirRecord(vrf default, vornUrl '', "
            "bitMapperVornUrl '')\n");
}

TEST_F(VornctlTest, DumpNamesInterfacesThroughTheAnnouncedBitMapperTable) {
  Kiv::Ptr<Status> table = writer->doAddVorn("red", "mfib/red/pim");
  Kiv::Ptr<BitMapper::VornStatus> bits = writer->doAddBitMapperVorn("red", "bitmapper/red/pim");
  ASSERT_TRUE(table && bits);
  bits->bitIndexMapIs(BitMapper::BitIndexMap(
      BitMapper::BitIndex(4), BitMapper::BitMapperKey(Wirly::IntfId("Ethernet9"), Wirly::IpGenAddr()), 1, true));
  table->oifIndexIntfIs(OifIndexIntf(OifIndex(4), Wirly::IntfId("Ethernet1")));  // not what the route means
  Route r(IpGenRouteKey("10.0.0.1/32", "239.1.1.1/32"));
  r.oifIs(OifIndex(4), true);
  table->routePublish(r);
  EXPECT_EQ(run("dump mfib/red/pim route"), "(10.0.0.1, 239.1.1.1) priority 0 version 1 oif {Ethernet9}\n");
  EXPECT_NE(run("dump mfib/red/pim route --json").find("\"oifs\": [\"Ethernet9\"]}"), std::string::npos);
}

TEST(VornctlJson, StringsAreEscaped) { EXPECT_EQ(Vornctl::jsonString("a\"b\\c\nd\x01"), "\"a\\\"b\\\\c\\nd\\u0001\""); }

}  // namespace
