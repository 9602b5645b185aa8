#include "RouteFile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Kiv/Exception.h"
#include "tests/Vorn/VornTestUtil.h"

namespace MrouteStatic {
namespace {

ParsedFile parse(std::string const& text) {
  std::istringstream in(text);
  return parseRoutes(in, "routes");
}

StaticRoute const& at(ParsedFile const& f, char const* vrf, char const* s, char const* g) {
  static StaticRoute const none;
  auto it = f.routes.find(RouteId(vrf, routeKey(s, g)));
  return it == f.routes.end() ? none : it->second;
}

TEST(RouteFile, ReadsBothFamiliesAnySourceDefaultsAndComments) {
  ParsedFile const f = parse(
      "# vrf source group iif oifs priority\n"
      "\n"
      "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3,Ethernet2,Ethernet3   # trailing comment\n"
      "  red    *        ff3e::1:1 Ethernet1 -          7\n"
      "default 2001:db8:1::2 ff3e::1:2 Vlan100 Ethernet2 255\n");
  EXPECT_TRUE(f.errors.empty()) << f.errors.front();
  ASSERT_EQ(f.routes.size(), 3u);
  StaticRoute const& a = at(f, "default", "10.1.0.2", "239.1.1.1");
  EXPECT_EQ(a.iif, Wirly::IntfId("Ethernet1"));
  // Listed twice and out of order: one set, in interface order.
  EXPECT_EQ(a.oifs, (std::vector<Wirly::IntfId>{Wirly::IntfId("Ethernet2"), Wirly::IntfId("Ethernet3")}));
  EXPECT_EQ(a.priority, 1);
  StaticRoute const& b = at(f, "red", "*", "ff3e::1:1");
  EXPECT_TRUE(b.oifs.empty());
  EXPECT_EQ(b.priority, 7);
  EXPECT_EQ(at(f, "default", "2001:db8:1::2", "ff3e::1:2").priority, 255);
  // Any source is the zero-length prefix of the group's family.
  EXPECT_EQ(routeKey("*", "239.1.1.1").source().str(), "0.0.0.0/0");
  EXPECT_EQ(routeKey("*", "ff3e::1").source().str(), "::/0");
  EXPECT_EQ(sourceText(routeKey("*", "ff3e::1")), "*");
  EXPECT_EQ(sourceText(routeKey("10.0.0.1", "239.0.0.1")), "10.0.0.1");
}

TEST(RouteFile, MalformedLinesAreReportedWithTheirLineAndTheRestStillApplies) {
  ParsedFile const f = parse(
      "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n"            // 1 good
      "default 10.1.0.2 239.1.1.2 Ethernet1\n"                      // 2 too few fields
      "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2 1 extra\n"    // 3 too many
      "default 10.1.0.300 239.1.1.2 Ethernet1 Ethernet2\n"          // 4 bad source
      "default 10.1.0.2 10.1.1.2 Ethernet1 Ethernet2\n"             // 5 unicast group
      "default 10.1.0.2 ff3e::1 Ethernet1 Ethernet2\n"              // 6 families differ
      "default 239.0.0.1 239.1.1.2 Ethernet1 Ethernet2\n"           // 7 multicast source
      "default 10.1.0.2 239.1.1.2 eth0 Ethernet2\n"                 // 8 not an interface id
      "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2,\n"           // 9 empty oif
      "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2 0\n"          // 10 priority 0
      "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2 256\n"        // 11 priority 256
      "default 10.1.0.2 239.1.1.2 Ethernet1 Ethernet1,Ethernet2\n"  // 12 iif is an oif
      "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3\n"            // 13 duplicate of 1
      + std::string(101, 'v') +
      " 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2\n"       // 14 VRF too long
      "red 10.1.0.2 239.1.1.2 Ethernet1 Ethernet2\n");  // 15 good
  ASSERT_EQ(f.errors.size(), 13u) << testing::PrintToString(f.errors);
  for (unsigned i = 0; i < f.errors.size(); ++i)
    EXPECT_EQ(f.errors[i].rfind("routes:" + std::to_string(i + 2) + ": ", 0), 0u) << f.errors[i];
  EXPECT_EQ(f.errors[0],
            "routes:2: expected 'vrf source|* group iif oif[,oif...]|- [priority]', found 4 fields; line skipped");
  EXPECT_EQ(f.errors[7], "routes:9: '' is not an interface name (Ethernet1, Vlan100, ...); line skipped");
  EXPECT_EQ(f.errors[10], "routes:12: incoming interface Ethernet1 is also an outgoing interface; line skipped");
  EXPECT_EQ(f.errors[11],
            "routes:13: route (10.1.0.2, 239.1.1.1) in VRF default already given on line 1; line skipped");
  ASSERT_EQ(f.routes.size(), 2u);
  // The first of two lines for one route wins.
  EXPECT_EQ(at(f, "default", "10.1.0.2", "239.1.1.1").oifs, std::vector<Wirly::IntfId>{Wirly::IntfId("Ethernet2")});
  EXPECT_EQ(at(f, "red", "10.1.0.2", "239.1.1.2").iif, Wirly::IntfId("Ethernet1"));
}

RouteId id(char const* vrf, char const* s, char const* g) { return RouteId(vrf, routeKey(s, g)); }

// A command's route is read by the same words as a line of the file, and
// written back as a line the loader reads as the same route.
TEST(RouteFile, ACommandsRouteReadsAndWritesAsAFileLine) {
  auto [rid, r] = parseRoute({"red", "*", "ff3e::1:1", "Ethernet1", "Ethernet3,Ethernet2", "7"});
  EXPECT_EQ(routeText(rid, r), "red * ff3e::1:1 Ethernet1 Ethernet2,Ethernet3 7");
  ParsedFile const back = parse(routeText(rid, r) + "\n");
  ASSERT_EQ(back.routes.size(), 1u);
  EXPECT_EQ(back.routes.begin()->second, r);
  EXPECT_EQ(routeText(id("default", "10.1.0.2", "239.1.1.1"), parseRoute(routeWords("default 10.1.0.2 239.1.1.1 "
                                                                                    "Ethernet1 - 1 # c"))
                                                                  .second),
            "default 10.1.0.2 239.1.1.1 Ethernet1 -");
  try {
    parseRoute({"default", "10.1.0.2", "239.1.1.2", "Ethernet1", "Ethernet2", "0"});
    ADD_FAILURE() << "priority 0 taken";
  } catch (Kiv::ParseException const& e) {
    EXPECT_STREQ(e.what(), "priority '0' is not a number from 1 to 255");
  }
  EXPECT_THROW(parseRouteId({"default", "10.1.0.2"}), Kiv::ParseException);
}

std::string const kFile =
    "# static routes\n"
    "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet1\n"                 // refused: iif is an oif
    "  default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2  # to rack 2\n"  // the one the loader takes
    "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3\n"                 // refused: given on line 3
    "nonsense here\n"
    "red 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n";

TEST(RouteFile, RewritingChangesOnlyTheRoutesLinesAndKeepsCommentsAndRefusedLines) {
  StaticRoute const r = parseRoute(routeWords("x 10.1.0.2 239.1.1.1 Ethernet1 Ethernet4 3")).second;
  // Replaced where the loader takes it: indentation and comment stay.
  EXPECT_EQ(rewriteRoutes(kFile, id("default", "10.1.0.2", "239.1.1.1"), &r),
            "# static routes\n"
            "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet1\n"
            "  default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet4 3  # to rack 2\n"
            "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet3\n"
            "nonsense here\n"
            "red 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n");
  // A new route goes at the end, also of a file without a last newline.
  EXPECT_EQ(rewriteRoutes("# only a comment", id("blue", "*", "239.1.1.9"), &r),
            "# only a comment\nblue * 239.1.1.9 Ethernet1 Ethernet4 3\n");
  // Removed: every line that names it, whole or not, so that no other line
  // of it takes its place at the next load.
  std::string const removed = rewriteRoutes(kFile, id("default", "10.1.0.2", "239.1.1.1"), nullptr);
  EXPECT_EQ(removed, "# static routes\nnonsense here\nred 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2\n");
  EXPECT_EQ(parse(removed).routes.size(), 1u);
  // Only a refused line names it: that line becomes the route.
  EXPECT_EQ(
      rewriteRoutes("default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet2 0\n", id("default", "10.1.0.2", "239.1.1.1"), &r),
      "default 10.1.0.2 239.1.1.1 Ethernet1 Ethernet4 3\n");
}

TEST(RouteFile, WritingReplacesTheFileAtOnceThroughALinkKeepingItsMode) {
  VornTest::PrivateRoot dir;
  std::string const file = dir.file("routes"), link = dir.file("link");
  std::ofstream(file) << "old\n";
  ASSERT_EQ(::chmod(file.c_str(), 0640), 0);
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  writeRoutesFile(link, "new\n");
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "new\n");
  struct stat st {};
  ASSERT_EQ(::lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  // No temporary file is left beside it, and a missing file is an error
  // that makes none.
  EXPECT_THROW(writeRoutesFile(dir.file("missing"), "x\n"), Kiv::ErrnoException);
  EXPECT_EQ(std::system(("test $(ls -A " + dir.path() + " | wc -l) -eq 2").c_str()), 0);
}

}  // namespace
}  // namespace MrouteStatic
