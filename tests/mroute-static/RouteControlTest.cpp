// The run-time changes of an instance against a real publisher under a
// private root: how they live with the file across reloads, what --persist
// writes, and what is refused and undone.
#include "RouteControl.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Kiv/ValueText.h"
#include "tests/Vorn/VornTestUtil.h"

namespace MrouteStatic {
namespace {

using Answer = Kiv::RequestServer::Answer;

class RouteControlTest : public ::testing::Test {
 protected:
  RouteControlTest() { write(""); }
  void write(std::string const& text) { std::ofstream(file) << text; }
  std::string text() const {
    std::ifstream in(file);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  void load(std::string const& routes) {
    write(routes);
    std::ifstream in(file);
    control.load(parseRoutes(in, file));
  }
  // "ok: <body>" or "error: <why>".
  std::string ask(std::string const& request) {
    Answer const a = control.answer(request, {4242, 0});
    return (a.ok ? "ok: " : "error: ") + a.text;
  }
  // What the publisher holds, as route lines.
  std::string published() const {
    std::string out;
    for (auto const& [id, r] : pub.published()) out += routeText(id, r) + "\n";
    return out;
  }

  VornTest::PrivateRoot root;
  std::string const file = root.file("routes");
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  StaticPublisher pub{"static", em};
  std::ostringstream out, err;
  RouteControl control{pub, file, out, err};
};

std::string const kA = "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n";
std::string const kB = "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2\n";

TEST_F(RouteControlTest, RunTimeChangesSurviveReloadsUntilTheFileSaysTheSame) {
  load(kA + kB);
  EXPECT_EQ(ask("add runtime default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3"),
            "ok: added default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3 at run time, not written to " + file +
                ": kept across reloads (SIGHUP) until the file says the same, lost when mroute-static stops\n");
  EXPECT_EQ(ask("del runtime default 10.1.0.2 239.1.1.2").substr(0, 41), "ok: removed default 10.1.0.2 239.1.1.2 at");
  // add replaces the file's route of the same key.
  EXPECT_EQ(ask("add runtime default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet4 5").substr(0, 10), "ok: added ");
  std::string const changed =
      "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet4 5\n"
      "default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3\n";
  EXPECT_EQ(published(), changed);
  EXPECT_EQ(text(), kA + kB);  // not written
  EXPECT_EQ(out.str().substr(out.str().rfind("static static:")),
            "static static: 2 routes (+0 -0 ~1); add default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet4 5 (run-time, " +
                file + " unchanged) by pid 4242 uid 0\n");

  // The same file again: every change is kept, and the reload says so.
  out.str("");
  load(kA + kB);
  EXPECT_EQ(published(), changed);
  EXPECT_EQ(out.str(), "static static: 2 routes (+0 -0 ~0); 3 run-time changes kept (not in " + file + ")\n");
  // The file now removes 239.1.1.2 itself and gives 239.1.1.3 as added:
  // those changes are the file's; the replaced 239.1.1.1 stays run-time.
  out.str("");
  load(kA + "default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3\n");
  EXPECT_EQ(published(), changed);
  EXPECT_EQ(control.runtimeChanges(), 1u);
  // Removing the run-time route brings back the file's.
  ask("del runtime default 10.1.0.2 239.1.1.1");
  EXPECT_EQ(published(), "default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3\n");
  EXPECT_EQ(control.runtimeChanges(), 1u);  // the file's 239.1.1.1 is removed at run time
  EXPECT_NE(control.listText().find("# removed at run time: default 10.1.0.2 239.1.1.1\n"), std::string::npos);
}

TEST_F(RouteControlTest, PersistRewritesTheFileAndTheRouteBecomesTheFiles) {
  load("# ours\n" + kA + kB);
  EXPECT_EQ(ask("add persist default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet3"),
            "ok: added default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet3, written to " + file + "\n");
  EXPECT_EQ(ask("del persist default 10.1.0.2 239.1.1.1"),
            "ok: removed default 10.1.0.2 239.1.1.1, written to " + file + "\n");
  EXPECT_EQ(text(), "# ours\ndefault 10.1.0.2 239.1.1.2 Ethernet1 Ethernet3\n");
  EXPECT_EQ(control.runtimeChanges(), 0u);
  // A removal made at run time can be persisted afterwards.
  load("# ours\n" + kA + kB);
  ask("del runtime default 10.1.0.2 239.1.1.1");
  EXPECT_EQ(ask("del persist default 10.1.0.2 239.1.1.1").substr(0, 11), "ok: removed");
  EXPECT_EQ(text(), "# ours\n" + kB);
  EXPECT_EQ(control.runtimeChanges(), 0u);
  EXPECT_EQ(published(), kB);
}

TEST_F(RouteControlTest, RefusalsSayWhyAndChangeNothing) {
  load(kA);
  EXPECT_EQ(ask("add runtime default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2 0"),
            "error: add: priority '0' is not a number from 1 to 255; route refused");
  EXPECT_EQ(ask("add runtime default 10.1.0.2 239.1.1.2 Ethernet1"),
            "error: add: expected 'vrf source|* group iif oif[,oif...]|- [priority]', found 4 fields; route refused");
  EXPECT_EQ(ask("del runtime default 10.1.0.2 239.1.1.9"),
            "error: del: no route default 10.1.0.2 239.1.1.9; nothing removed");
  EXPECT_EQ(ask("del runtime default 10.1.0.2"),
            "error: del: expected 'vrf source|* group', found 2 fields; route refused");
  EXPECT_EQ(ask("flush"), "error: unknown request 'flush'");
  EXPECT_EQ(err.str().substr(0, err.str().find('\n')),
            "mroute-static: refused add default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2 0 from pid 4242 uid 0: "
            "priority '0' is not a number from 1 to 255; route refused");
  // A file that cannot be read for --persist: nothing is published either.
  std::remove(file.c_str());
  EXPECT_EQ(ask("add persist default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2"),
            "error: add: cannot read " + file + ": No such file or directory; nothing changed");
  EXPECT_EQ(published(), kA);
  EXPECT_EQ(control.runtimeChanges(), 0u);
}

// A route the publisher has no room for is undone, and with --persist its
// line is taken out of the file again.
TEST_F(RouteControlTest, ARouteThePublisherRefusesIsUndoneFileIncluded) {
  std::string routes;
  for (int i = 1; i <= 512; ++i)
    routes += "default 10.1.0.2 239.1." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
              " Ethernet1000 Ethernet" + std::to_string(i) + "\n";
  load(routes);
  EXPECT_TRUE(control.complete());
  EXPECT_EQ(ask("add persist default 10.1.0.2 239.2.0.1 Ethernet1000 Ethernet999"),
            "error: add: default 10.1.0.2 239.2.0.1: no interface index left; route refused");
  EXPECT_EQ(text(), routes);
  EXPECT_EQ(pub.published().size(), 512u);
  EXPECT_EQ(control.routes().size(), 512u);
  EXPECT_TRUE(control.complete());
  // Room made at run time: the same route now goes in.
  EXPECT_EQ(ask("del runtime default 10.1.0.2 239.1.0.1").substr(0, 11), "ok: removed");
  EXPECT_EQ(ask("add runtime default 10.1.0.2 239.2.0.1 Ethernet1000 Ethernet999").substr(0, 9), "ok: added");
  EXPECT_EQ(pub.published().size(), 512u);
}

TEST_F(RouteControlTest, ListsEveryRouteWithItsOriginAndState) {
  load(kA + "red * ff3e::1:1 Ethernet1 - 2\n");
  ask("add runtime default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3,Ethernet2");
  ask("del runtime default 10.1.0.2 239.1.1.1");
  EXPECT_EQ(control.listText(), "# static: 2 routes from " + file +
                                    "; 2 run-time changes not in the file\n"
                                    "# vrf    source    group      iif        oifs                 priority\n"
                                    "default  10.1.0.2  239.1.1.3  Ethernet1  Ethernet2,Ethernet3  1  # run-time\n"
                                    "red      *         ff3e::1:1  Ethernet1  -                    2\n"
                                    "# removed at run time: default 10.1.0.2 239.1.1.1\n");
  // The text reads back as a route file of what is published.
  std::istringstream in(control.listText());
  EXPECT_EQ(parseRoutes(in, "list").routes, control.routes());
  EXPECT_EQ(
      control.listJson(),
      "{\"app\": \"static\", \"file\": " + Kiv::jsonString(file) +
          ", \"routes\": ["
          "{\"vrf\": \"default\", \"family\": \"ipv4\", \"source\": \"10.1.0.2\", \"group\": \"239.1.1.3\", "
          "\"iif\": \"Ethernet1\", \"oifs\": [\"Ethernet2\", \"Ethernet3\"], \"priority\": 1, \"origin\": "
          "\"run-time\", \"published\": true}, "
          "{\"vrf\": \"red\", \"family\": \"ipv6\", \"source\": \"*\", \"group\": \"ff3e::1:1\", \"iif\": "
          "\"Ethernet1\", \"oifs\": [], \"priority\": 2, \"origin\": \"file\", \"published\": true}], "
          "\"removedAtRunTime\": [{\"vrf\": \"default\", \"source\": \"10.1.0.2\", \"group\": \"239.1.1.1\"}]}\n");
}

}  // namespace
}  // namespace MrouteStatic
