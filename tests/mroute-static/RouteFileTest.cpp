#include "RouteFile.h"

#include <gtest/gtest.h>

#include <sstream>

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

}  // namespace
}  // namespace MrouteStatic
