#include "Wirly/IpGenPrefix.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <unordered_set>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using Wirly::IpGenAddr;
using Wirly::IpGenPrefix;

TEST(IpGenPrefixTest, ParsesMaskedAndPrints) {
  EXPECT_EQ(IpGenPrefix("10.0.0.0/8").str(), "10.0.0.0/8");
  EXPECT_EQ(IpGenPrefix("10.1.2.3/8").str(), "10.0.0.0/8");
  EXPECT_EQ(IpGenPrefix("10.1.2.3").str(), "10.1.2.3/32");
  EXPECT_EQ(IpGenPrefix("1.2.3.4/0").str(), "0.0.0.0/0");
  EXPECT_EQ(IpGenPrefix("2001:db8::1/64").str(), "2001:db8::/64");
  EXPECT_EQ(IpGenPrefix("ff02::1").str(), "ff02::1/128");
  EXPECT_EQ(IpGenPrefix(IpGenAddr("239.9.9.9"), 24).str(), "239.9.9.0/24");
  EXPECT_EQ(IpGenPrefix("").str(), "");
  EXPECT_EQ(IpGenPrefix(""), IpGenPrefix());
  EXPECT_EQ(IpGenPrefix("10.1.2.3/8").len(), 8);
  EXPECT_EQ(IpGenPrefix("10.1.2.3/8").address(), IpGenAddr("10.0.0.0"));
}

TEST(IpGenPrefixTest, RefusesMalformedTextAndOverlongLengths) {
  try {
    IpGenPrefix("10.0.0.0/33");
    FAIL() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "IpGenPrefix: length 33 > 32 not allowed in '10.0.0.0/33'");
  }
  EXPECT_THROW(IpGenPrefix("::/129"), Kiv::RangeException);
  EXPECT_THROW(IpGenPrefix(IpGenAddr("10.0.0.0"), 33), Kiv::RangeException);
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Kiv::RangeException);
  try {
    IpGenPrefix("10.0.0.0/");
    FAIL() << "no exception";
  } catch (Kiv::ParseException const& e) {
    EXPECT_STREQ(e.what(), "IpGenPrefix: '10.0.0.0/' is not an IPv4 or IPv6 prefix");
  }
  for (char const* text :
       {"/8", "10.0.0.0/x", "10.0.0.0/-1", "10.0.0.0/ 8", "10.0.0.0/8/8", "10.0.0/8", "10.0.0.0/0008", "x"}) {
    EXPECT_THROW(IpGenPrefix{text}, Kiv::ParseException) << text;
  }
}

TEST(IpGenPrefixTest, ContainsAddressesAndPrefixesOfItsFamily) {
  IpGenPrefix p("10.128.0.0/9");
  EXPECT_TRUE(p.contains(IpGenAddr("10.128.0.0")));
  EXPECT_TRUE(p.contains(IpGenAddr("10.255.255.255")));
  EXPECT_FALSE(p.contains(IpGenAddr("10.127.255.255")));
  EXPECT_FALSE(p.contains(IpGenAddr("::ffff:10.128.0.1")));
  EXPECT_TRUE(p.contains(IpGenPrefix("10.200.0.0/16")));
  EXPECT_TRUE(p.contains(p));
  EXPECT_FALSE(p.contains(IpGenPrefix("10.0.0.0/8")));
  EXPECT_TRUE(IpGenPrefix("0.0.0.0/0").contains(IpGenAddr("1.2.3.4")));
  EXPECT_FALSE(IpGenPrefix("0.0.0.0/0").contains(IpGenAddr("::1")));
  EXPECT_TRUE(IpGenPrefix("ff00::/8").contains(IpGenAddr("ff3e::8000:1")));
  EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
}

TEST(IpGenPrefixTest, MulticastOnlyWhenWhollyInside) {
  EXPECT_TRUE(IpGenPrefix("224.0.0.0/4").isMulticast());
  EXPECT_FALSE(IpGenPrefix("224.0.0.0/3").isMulticast());
  EXPECT_TRUE(IpGenPrefix("239.1.1.1").isMulticast());
  EXPECT_TRUE(IpGenPrefix("ff00::/8").isMulticast());
  EXPECT_FALSE(IpGenPrefix("ff00::/7").isMulticast());
}

TEST(IpGenPrefixTest, OrdersByFamilyAddressThenLength) {
  std::set<IpGenPrefix> s{
      IpGenPrefix("::/0"), IpGenPrefix("11.0.0.0/8"), IpGenPrefix("10.0.0.0/16"), IpGenPrefix("10.0.0.0/8"),
      IpGenPrefix(),       IpGenPrefix("2.0.0.1/32")};
  std::string order;
  for (auto const& p : s) order += "[" + p.str() + "]";
  EXPECT_EQ(order, "[][2.0.0.1/32][10.0.0.0/8][10.0.0.0/16][11.0.0.0/8][::/0]");
}

TEST(IpGenPrefixTest, HashFollowsEqualityAfterMasking) {
  EXPECT_EQ(IpGenPrefix("10.1.2.3/8"), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(IpGenPrefix("10.1.2.3/8").hash(), IpGenPrefix("10.0.0.0/8").hash());
  EXPECT_EQ(Wirly::IpGenPrefixBase::hash(IpGenPrefix("10.0.0.0/8")), IpGenPrefix("10.0.0.0/8").hash());
  std::unordered_set<IpGenPrefix> set{IpGenPrefix("10.0.0.0/8"), IpGenPrefix("10.0.0.0/16"), IpGenPrefix("0.0.0.0/0"),
                                      IpGenPrefix("::/0"), IpGenPrefix()};
  EXPECT_EQ(set.size(), 5u);
  EXPECT_EQ(set.count(IpGenPrefix("10.9.9.9/8")), 1u);
}

TEST(IpGenPrefixTest, PrintsAndHasTextForm) {
  std::ostringstream os;
  os << IpGenPrefix("232.0.0.0/8");
  EXPECT_EQ(os.str(), "232.0.0.0/8");
  EXPECT_EQ(Kiv::valueToStrep(IpGenPrefix("10.0.0.0/8")), "Value('Wirly::IpGenPrefix', ** {'prefix': '10.0.0.0/8'})");
  for (auto const& p : {IpGenPrefix(), IpGenPrefix("0.0.0.0/0"), IpGenPrefix("ff3e::/32")}) {
    EXPECT_EQ(Kiv::valueFromStrep<IpGenPrefix>(Kiv::valueToStrep(p)), p) << p;
  }
}

}  // namespace
