// The publisher against real shared-memory tables under a private root,
// read back the way an agent would (its own entity manager and mounts),
// and the program itself with its signals.
#include "StaticPublisher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Kiv/EventLoop.h"
#include "Mfib/MfibDir.h"
#include "Stelo/Mount.h"
#include "TableReader.h"
#include "tests/Vorn/VornTestUtil.h"

namespace MrouteStatic {
namespace {

using namespace Vorn::Multicast::Fib;

RouteMap routes(std::string const& text) {
  std::istringstream in(text);
  ParsedFile f = parseRoutes(in, "test");
  EXPECT_TRUE(f.errors.empty()) << f.errors.front();
  return f.routes;
}

std::string counts(StaticPublisher::Change const& c) {
  return std::to_string(c.routes) + " +" + std::to_string(c.added) + " -" + std::to_string(c.removed) + " ~" +
         std::to_string(c.changed);
}

class StaticPublisherTest : public ::testing::Test {
 protected:
  VornTest::PrivateRoot root;
  Kiv::Ptr<Stelo::EntityManager> em = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
};

std::string const kFirst =
    "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2,Ethernet3\n"
    "default *        ff3e::1:1 Ethernet1 Ethernet2 2\n"
    "default 10.1.0.2 239.1.1.3 Ethernet1 Ethernet3\n"
    "red     10.1.0.2 239.1.1.2 Ethernet1 -\n";

TEST_F(StaticPublisherTest, PublishesOneAnnouncedTablePerVrfThatReadersResolve) {
  StaticPublisher pub("static", em);
  EXPECT_EQ(counts(pub.apply(routes(kFirst))), "4 +4 -0 ~0");
  EXPECT_EQ(pub.summary(StaticPublisher::Change{4, 4, 0, 0}), "static static: 4 routes (+4 -0 ~0)");
  EXPECT_EQ(announced(root.path()), "static: default=mfib/default/static red=mfib/red/static;");
  TableView const d = view(root.path(), "mfib/default/static");
  EXPECT_EQ(d.route,
            (std::map<std::string, std::string>{{"(10.1.0.2, 239.1.1.1)", "Ethernet1 prio 1 -> Ethernet2 Ethernet3"},
                                                {"(*, ff3e::1:1)", "Ethernet1 prio 2 -> Ethernet2"},
                                                {"(10.1.0.2, 239.1.1.3)", "Ethernet1 prio 1 -> Ethernet3"}}));
  EXPECT_EQ(d.mappings, 2u);
  EXPECT_EQ(view(root.path(), "mfib/red/static").route,
            (std::map<std::string, std::string>{{"(10.1.0.2, 239.1.1.2)", "Ethernet1 prio 1 ->"}}));
}

TEST_F(StaticPublisherTest, ReloadRewritesOnlyChangedRoutesAndDropsUnusedInterfaces) {
  StaticPublisher pub("static", em);
  pub.apply(routes(kFirst));
  TableView const before = view(root.path(), "mfib/default/static");
  // 239.1.1.1 loses Ethernet2 and gains Ethernet4, ff3e::1:1 keeps its
  // interfaces but rises in priority, 239.1.1.3 goes, 239.1.1.4 comes,
  // red is as it was.
  std::string const second =
      "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3,Ethernet4\n"
      "default *        ff3e::1:1 Ethernet1 Ethernet3 3\n"
      "default 10.1.0.2 239.1.1.4 Ethernet1 Ethernet3\n"
      "red     10.1.0.2 239.1.1.2 Ethernet1 -\n";
  EXPECT_EQ(counts(pub.apply(routes(second))), "4 +1 -1 ~2");
  TableView const after = view(root.path(), "mfib/default/static");
  EXPECT_EQ(after.route.size(), 3u);
  EXPECT_EQ(after.route.at("(10.1.0.2, 239.1.1.1)"), "Ethernet1 prio 1 -> Ethernet3 Ethernet4");
  EXPECT_EQ(after.route.at("(*, ff3e::1:1)"), "Ethernet1 prio 3 -> Ethernet3");
  EXPECT_EQ(after.route.at("(10.1.0.2, 239.1.1.4)"), "Ethernet1 prio 1 -> Ethernet3");
  EXPECT_EQ(after.route.count("(10.1.0.2, 239.1.1.3)"), 0u);
  EXPECT_EQ(after.version.at("(10.1.0.2, 239.1.1.1)"), before.version.at("(10.1.0.2, 239.1.1.1)") + 1);
  EXPECT_EQ(after.version.at("(*, ff3e::1:1)"), before.version.at("(*, ff3e::1:1)") + 1);
  EXPECT_EQ(after.mappings, 2u);  // Ethernet2 is used by no route any more

  // The same file again writes nothing.
  EXPECT_EQ(counts(pub.apply(routes(second))), "4 +0 -0 ~0");
  EXPECT_EQ(view(root.path(), "mfib/default/static").version, after.version);
}

TEST_F(StaticPublisherTest, VrfIsAnnouncedWithItsFirstRouteAndWithdrawnWithItsLast) {
  StaticPublisher pub("static", em);
  pub.apply(routes("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n"));
  EXPECT_EQ(announced(root.path()), "static: default=mfib/default/static;");
  EXPECT_EQ(counts(pub.apply(routes("blue 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n"))), "1 +1 -1 ~0");
  EXPECT_EQ(announced(root.path()), "static: blue=mfib/blue/static default=mfib/default/static;");
  // The emptied default VRF keeps its table, empty, so that readers see its
  // routes go; blue goes with its last route.
  EXPECT_EQ(view(root.path(), "mfib/default/static").route.size(), 0u);
  EXPECT_TRUE(view(root.path(), "mfib/default/static").exists);
  EXPECT_EQ(counts(pub.apply(RouteMap())), "0 +0 -1 ~0");
  EXPECT_EQ(announced(root.path()), "static: default=mfib/default/static;");
  EXPECT_FALSE(view(root.path(), "mfib/blue/static").exists);

  pub.withdraw();
  EXPECT_EQ(announced(root.path()), "");
  EXPECT_FALSE(view(root.path(), "mfib/default/static").exists);
}

TEST_F(StaticPublisherTest, ARestartTakesOverWhatTheLastRunLeftAndAppliesTheDifference) {
  {
    StaticPublisher first("static", em);
    first.apply(routes(kFirst));
  }  // gone without withdrawing, as a killed process
  em = nullptr;
  auto em2 = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  StaticPublisher again("static", em2);
  EXPECT_EQ(again.published().size(), 4u);
  TableView const before = view(root.path(), "mfib/default/static");
  EXPECT_EQ(counts(again.apply(routes("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2,Ethernet3\n"))), "1 +0 -3 ~0");
  TableView const after = view(root.path(), "mfib/default/static");
  EXPECT_EQ(after.route.size(), 1u);
  EXPECT_EQ(after.version.at("(10.1.0.2, 239.1.1.1)"), before.version.at("(10.1.0.2, 239.1.1.1)"));
  EXPECT_EQ(announced(root.path()), "static: default=mfib/default/static;");
}

// A run that died left a table file that a crash or a full disk cut short:
// the next run cannot take it over, starts the table afresh and publishes
// every route of the file again.
TEST_F(StaticPublisherTest, ARestartOverATruncatedTablePublishesEverythingAgain) {
  {
    StaticPublisher first("static", em);
    first.apply(routes(kFirst));
  }
  std::string const path = em->pathOfUrl("mfib/default/static");
  em = nullptr;
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  ASSERT_EQ(::truncate(path.c_str(), st.st_size / 3), 0);

  auto em2 = Stelo::EntityManager::entityManagerIs(nullptr, root.path());
  StaticPublisher again("static", em2);
  EXPECT_EQ(counts(again.apply(routes(kFirst))), "4 +3 -0 ~0");  // red's table was intact
  EXPECT_EQ(view(root.path(), "mfib/default/static").route.size(), 3u);
  EXPECT_EQ(view(root.path(), "mfib/default/static").route.at("(10.1.0.2, 239.1.1.1)"),
            "Ethernet1 prio 1 -> Ethernet2 Ethernet3");
}

// The program: reload on SIGHUP, bad lines on stderr, withdrawal on SIGTERM.
TEST(MrouteStaticProgram, ReloadsOnHangupAndWithdrawsOnTerminate) {
  VornTest::PrivateRoot root;
  std::string const file = root.path() + "/../mroute-static-test-" + std::to_string(::getpid()) + ".routes";
  auto write = [&](std::string const& text) { std::ofstream(file) << text; };
  write("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\nnonsense\n");
  int out[2], err[2];
  ASSERT_EQ(::pipe(out), 0);
  ASSERT_EQ(::pipe(err), 0);
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::setenv("VORN_ROOT", root.path().c_str(), 1);
    ::setenv("MROUTE_STATIC_DIR", (root.path() + "/control").c_str(), 1);
    ::execl(MROUTE_STATIC_PATH, "mroute-static", "--app", "static", "--file", file.c_str(), nullptr);
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(err[1]);
  FILE* o = ::fdopen(out[0], "r");
  FILE* e = ::fdopen(err[0], "r");
  auto line = [](FILE* f) {
    char buf[512];
    return std::fgets(buf, sizeof buf, f) ? std::string(buf) : std::string("(end)");
  };
  EXPECT_EQ(line(e), file +
                         ":2: expected 'vrf source|* group iif oif[,oif...]|- [priority]', found 1 fields; "
                         "line skipped\n");
  EXPECT_EQ(line(o), "static static: 1 routes (+1 -0 ~0); 1 refused: 1 malformed\n");
  write("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3\nred 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3\n");
  ::kill(pid, SIGHUP);
  EXPECT_EQ(line(o), "static static: 2 routes (+1 -0 ~1)\n");
  EXPECT_EQ(announced(root.path()), "static: default=mfib/default/static red=mfib/red/static;");
  // An unreadable file keeps what is published.
  std::remove(file.c_str());
  ::kill(pid, SIGHUP);
  EXPECT_EQ(line(e).rfind("mroute-static: cannot read " + file + ": No such file or directory; keeping 2 routes", 0),
            0u);
  ::kill(pid, SIGTERM);
  EXPECT_EQ(line(o), "static static: withdrawn\n");
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  // The last load left the file's routes out: the tables it withdrew were not the file's.
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_EQ(announced(root.path()), "");
  std::fclose(o);
  std::fclose(e);
}

// A route the publisher cannot place is counted by its reason, and tried
// again on the next apply.
TEST_F(StaticPublisherTest, RoutesWithoutRoomAreCountedByReason) {
  StaticPublisher pub("static", em);
  std::string text;
  for (int i = 1; i <= OifIndex::endValue + 2; ++i)
    text += "default 10.1.0.2 239.1." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
            " Ethernet1000 Ethernet" + std::to_string(i) + "\n";
  StaticPublisher::Change c = pub.apply(routes(text));
  EXPECT_EQ(counts(c), "512 +512 -0 ~0");
  EXPECT_EQ(c.noOifIndex, 2u);
  EXPECT_EQ(c.refused(), 2u);
  c.malformed = 1;
  EXPECT_EQ(pub.summary(c),
            "static static: 512 routes (+512 -0 ~0); 3 refused: 1 malformed, 2 no interface index left");
  ASSERT_EQ(pub.problems().size(), 2u);
  EXPECT_EQ(pub.problems()[0], "VRF default: no room for outgoing interface Ethernet513 (512 in use)");
}

// --once: the exit status says whether every line was published.
TEST(MrouteStaticProgram, OneShotExitsNonZeroWhenAnyLineIsRefused) {
  VornTest::PrivateRoot root;
  std::string const file = root.path() + "/../mroute-static-once-" + std::to_string(::getpid()) + ".routes";
  auto once = [&](std::string const& text, std::string& out) {
    std::ofstream(file) << text;
    std::string const cmd =
        "VORN_ROOT=" + root.path() + " " + MROUTE_STATIC_PATH + " --app static --file " + file + " --once 2>/dev/null";
    FILE* p = ::popen(cmd.c_str(), "r");
    char buf[512];
    out.clear();
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    int const status = ::pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  std::string out;
  EXPECT_EQ(once("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n", out), 0);
  EXPECT_EQ(out, "static static: 1 routes (+1 -0 ~0)\n");
  EXPECT_EQ(once("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n"
                 "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet1\n"
                 "default 10.1.0.2 10.1.1.3 Ethernet1 Ethernet2\n",
                 out),
            1);
  EXPECT_EQ(out, "static static: 1 routes (+0 -0 ~0); 2 refused: 2 malformed\n");
  std::remove(file.c_str());
}

}  // namespace
}  // namespace MrouteStatic
