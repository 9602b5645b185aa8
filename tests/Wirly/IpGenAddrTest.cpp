#include "Wirly/IpGenAddr.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using Wirly::IpGenAddr;

TEST(IpGenAddrTest, ParsesAndPrintsBothFamilies) {
  for (char const* text : {"10.0.0.1", "0.0.0.0", "255.255.255.255", "::", "::1", "2001:db8::1", "ff02::16",
                           "::ffff:1.2.3.4", "2001:db8:1:2:3:4:5:6"}) {
    EXPECT_EQ(IpGenAddr(text).str(), text);
  }
  EXPECT_EQ(IpGenAddr("2001:0DB8:0:0:0:0:0:1").str(), "2001:db8::1");
  EXPECT_EQ(IpGenAddr("10.0.0.1").af(), Wirly::ipv4);
  EXPECT_EQ(IpGenAddr("::ffff:1.2.3.4").af(), Wirly::ipv6);
  EXPECT_EQ(IpGenAddr("").af(), Wirly::ipUnknown);
}

TEST(IpGenAddrTest, EmptyAddressIsNeitherZeroAddress) {
  IpGenAddr empty;
  EXPECT_TRUE(empty.isUnspecified());
  EXPECT_EQ(empty.str(), "");
  EXPECT_EQ(IpGenAddr(""), empty);
  EXPECT_NE(IpGenAddr("0.0.0.0"), empty);
  EXPECT_NE(IpGenAddr("::"), empty);
  EXPECT_NE(IpGenAddr("::"), IpGenAddr("0.0.0.0"));
  EXPECT_FALSE(IpGenAddr("0.0.0.0").isUnspecified());
  EXPECT_EQ(empty.byteLength(), 0u);
  EXPECT_FALSE(empty.isMulticast());
}

TEST(IpGenAddrTest, RefusesWhatIsNotAnAddress) {
  try {
    IpGenAddr("1.2.3");
    FAIL() << "no exception";
  } catch (Kiv::ParseException const& e) {
    EXPECT_STREQ(e.what(), "IpGenAddr: '1.2.3' is not an IPv4 or IPv6 address");
  }
  for (char const* text :
       {"256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "10.0.0.1/8", "::g", "1:2:3:4:5:6:7:8:9", "host", "2001:db8::1%eth0"}) {
    EXPECT_THROW(IpGenAddr{text}, Kiv::ParseException) << text;
  }
  EXPECT_THROW(IpGenAddr(std::string(100, '1')), Kiv::ParseException);
}

TEST(IpGenAddrTest, ConvertsToAndFromNumbersAndSystemTypes) {
  IpGenAddr a("10.1.2.3");
  EXPECT_EQ(a.v4Addr(), 0x0a010203u);
  EXPECT_EQ(IpGenAddr::v4(0x0a010203u), a);
  EXPECT_EQ(IpGenAddr(a.inAddr()), a);
  EXPECT_EQ(a.bytes()[0], 10);
  IpGenAddr b("ff02::1:2");
  auto bytes = b.v6Addr();
  EXPECT_EQ(bytes[0], 0xff);
  EXPECT_EQ(bytes[15], 2);
  EXPECT_EQ(IpGenAddr::v6(bytes), b);
  EXPECT_EQ(IpGenAddr(b.in6Addr()), b);
}

TEST(IpGenAddrDeathTest, FamilyAccessorsAssertTheFamily) {
  EXPECT_DEATH(IpGenAddr("::1").v4Addr(), "af_ == ipv4");
  EXPECT_DEATH(IpGenAddr().v6Addr(), "af_ == ipv6");
}

TEST(IpGenAddrTest, MulticastRangesEndExactly) {
  EXPECT_FALSE(IpGenAddr("223.255.255.255").isMulticast());
  EXPECT_TRUE(IpGenAddr("224.0.0.0").isMulticast());
  EXPECT_TRUE(IpGenAddr("239.255.255.255").isMulticast());
  EXPECT_FALSE(IpGenAddr("240.0.0.0").isMulticast());
  EXPECT_TRUE(IpGenAddr("ff00::").isMulticast());
  EXPECT_FALSE(IpGenAddr("fe80::1").isMulticast());
  EXPECT_FALSE(IpGenAddr("::ffff:224.0.0.1").isMulticast());
}

TEST(IpGenAddrTest, OrdersByFamilyThenAddressAsNumber) {
  EXPECT_LT(IpGenAddr(), IpGenAddr("0.0.0.0"));
  EXPECT_LT(IpGenAddr("255.255.255.255"), IpGenAddr("::"));
  // Byte order, not host order: a little-endian word compare gets these wrong.
  EXPECT_LT(IpGenAddr("1.0.0.2"), IpGenAddr("2.0.0.1"));
  EXPECT_LT(IpGenAddr("0.0.0.255"), IpGenAddr("0.0.1.0"));
  EXPECT_LT(IpGenAddr("9.255.255.255"), IpGenAddr("10.0.0.0"));
  EXPECT_LT(IpGenAddr("::ff"), IpGenAddr("::1:0"));
}

TEST(IpGenAddrTest, MaskingClearsHostBits) {
  EXPECT_EQ(IpGenAddr("10.255.255.255").masked(9).str(), "10.128.0.0");
  EXPECT_EQ(IpGenAddr("10.1.2.3").masked(32).str(), "10.1.2.3");
  EXPECT_EQ(IpGenAddr("10.1.2.3").masked(0).str(), "0.0.0.0");
  EXPECT_EQ(IpGenAddr("2001:db8:ffff::1").masked(36).str(), "2001:db8:f000::");
  EXPECT_THROW(IpGenAddr("10.1.2.3").masked(33), Kiv::RangeException);
}

TEST(IpGenAddrTest, HashFollowsEquality) {
  std::unordered_set<IpGenAddr> set{IpGenAddr(), IpGenAddr("0.0.0.0"), IpGenAddr("::"), IpGenAddr("10.0.0.1")};
  EXPECT_EQ(set.size(), 4u);
  EXPECT_EQ(set.count(IpGenAddr::v4(0x0a000001)), 1u);
  EXPECT_EQ(IpGenAddr("2001:db8::1").hash(), IpGenAddr("2001:0db8:0::0:1").hash());
  EXPECT_NE(IpGenAddr("0.0.0.0").hash(), IpGenAddr("::").hash());
}

TEST(IpGenAddrTest, PrintsAndHasTextForm) {
  std::ostringstream os;
  os << IpGenAddr("10.0.0.1") << "|" << IpGenAddr() << "|" << Wirly::ipv6;
  EXPECT_EQ(os.str(), "10.0.0.1||ipv6");
  EXPECT_EQ(Kiv::valueToStrep(IpGenAddr("ff02::1")), "Value('Wirly::IpGenAddr', ** {'addr': 'ff02::1'})");
  for (IpGenAddr a : {IpGenAddr(), IpGenAddr("0.0.0.0"), IpGenAddr("239.1.2.3"), IpGenAddr("fe80::1")}) {
    EXPECT_EQ(Kiv::valueFromStrep<IpGenAddr>(Kiv::valueToStrep(a)), a) << a;
  }
  EXPECT_THROW(Kiv::valueFromStrep<IpGenAddr>("Value('Wirly::IpGenAddr', ** {'addr': '1.2.3'})"), Kiv::ParseException);
  EXPECT_EQ(Kiv::valueToStrep(Wirly::ipv4), "'ipv4'");
  EXPECT_EQ(Kiv::valueFromStrep<Wirly::AddressFamily>("'ipv6'"), Wirly::ipv6);
  EXPECT_THROW(Kiv::valueFromStrep<Wirly::AddressFamily>("'ipv5'"), Kiv::ParseException);
  EXPECT_EQ(Wirly::addressFamilyName(Wirly::AddressFamily(7)), "AddressFamily(7)");
}

}  // namespace
