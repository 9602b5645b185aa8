#include "Probe.h"

#include <gtest/gtest.h>

#include "Kiv/Exception.h"

namespace McastProbe {
namespace {

std::string joined(std::vector<Wirly::IpGenAddr> const& v) {
  std::string s;
  for (auto const& a : v) s += (s.empty() ? "" : " ") + a.str();
  return s;
}

TEST(ParseGroups, ListsAndRangesOfBothFamiliesKeepTheirOrder) {
  EXPECT_EQ(joined(parseGroups("239.1.1.1,ff3e::1:1,239.1.1.2")), "239.1.1.1 ff3e::1:1 239.1.1.2");
  EXPECT_EQ(joined(parseGroups("239.1.0.254+3")), "239.1.0.254 239.1.0.255 239.1.1.0");
  EXPECT_EQ(joined(parseGroups("ff3e::ff+2")), "ff3e::ff ff3e::100");
  EXPECT_EQ(parseGroups("239.2.0.0+10000").size(), 10000u);
}

TEST(ParseGroups, RefusesWhatIsNotAGroupNamingTheItem) {
  for (char const* bad : {"10.0.0.1", "239.1.1.1,", "", "x", "239.1.1.1+0", "239.1.1.1+", "239.1.1.1+-1", "2001:db8::1",
                          "239.255.255.255+2", "239.1.1.1+12345678"}) {
    EXPECT_THROW(parseGroups(bad), Kiv::ParseException) << bad;
  }
  try {
    parseGroups("239.1.1.1,10.0.0.1");
    FAIL();
  } catch (Kiv::ParseException const& e) {
    EXPECT_NE(std::string(e.what()).find("'10.0.0.1'"), std::string::npos) << e.what();
  }
}

TEST(CountsLine, PerGroupAndSummaryForms) {
  Counts c{parseGroups("239.1.1.1,ff3e::1"), {5, 0}};
  EXPECT_EQ(c.line("recv", "Ethernet2", false), "recv Ethernet2 239.1.1.1=5 ff3e::1=0 total=5");
  EXPECT_EQ(c.line("sent", "", true), "sent groups=2 reached=1 total=5");
}

}  // namespace
}  // namespace McastProbe
