#include "Wirly/EthAddr.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using Wirly::EthAddr;

TEST(EthAddrTest, ParsesEitherCaseAndPrintsLowerCase) {
  EXPECT_EQ(EthAddr("00:11:22:33:44:55").str(), "00:11:22:33:44:55");
  EXPECT_EQ(EthAddr("0A:bB:Cc:dD:eE:FF").str(), "0a:bb:cc:dd:ee:ff");
  EXPECT_EQ(EthAddr("01:00:5e:7f:00:01").bytes(), (std::array<std::uint8_t, 6>{1, 0, 0x5e, 0x7f, 0, 1}));
  EXPECT_EQ(EthAddr().str(), "00:00:00:00:00:00");
  EXPECT_TRUE(EthAddr().isZero());
}

TEST(EthAddrTest, RefusesMalformedText) {
  try {
    EthAddr("00-11-22-33-44-55");
    FAIL() << "no exception";
  } catch (Kiv::ParseException const& e) {
    EXPECT_STREQ(e.what(), "EthAddr: '00-11-22-33-44-55' is not an Ethernet address (xx:xx:xx:xx:xx:xx)");
  }
  for (char const* text : {"", "00:11:22:33:44", "00:11:22:33:44:55:", "00:11:22:33:44:5g", "0:11:22:33:44:555",
                           "00:11:22:33:44:55 ", "0x:11:22:33:44:55"}) {
    EXPECT_THROW(EthAddr{text}, Kiv::ParseException) << text;
  }
}

TEST(EthAddrTest, ClassifiesGroupAddresses) {
  EXPECT_TRUE(EthAddr("01:00:5e:00:00:01").isMulticast());
  EXPECT_TRUE(EthAddr("33:33:00:00:00:01").isMulticast());
  EXPECT_FALSE(EthAddr("00:11:22:33:44:55").isMulticast());
  EXPECT_TRUE(EthAddr("ff:ff:ff:ff:ff:ff").isBroadcast());
  EXPECT_TRUE(EthAddr("ff:ff:ff:ff:ff:ff").isMulticast());
  EXPECT_FALSE(EthAddr("ff:ff:ff:ff:ff:fe").isBroadcast());
}

TEST(EthAddrTest, OrdersAsNumberAndHashFollowsEquality) {
  EXPECT_LT(EthAddr("00:00:00:00:00:ff"), EthAddr("00:00:00:00:01:00"));
  EXPECT_LT(EthAddr("01:00:00:00:00:00"), EthAddr("02:00:00:00:00:00"));
  std::unordered_set<EthAddr> set{EthAddr(), EthAddr("00:00:00:00:00:01"), EthAddr("01:00:00:00:00:00")};
  EXPECT_EQ(set.size(), 3u);
  EXPECT_EQ(set.count(EthAddr("00:00:00:00:00:01")), 1u);
  EXPECT_EQ(EthAddr("AA:BB:CC:DD:EE:FF").hash(), EthAddr("aa:bb:cc:dd:ee:ff").hash());
}

TEST(EthAddrTest, PrintsAndHasTextForm) {
  std::ostringstream os;
  os << EthAddr("01:00:5e:00:00:01");
  EXPECT_EQ(os.str(), "01:00:5e:00:00:01");
  EXPECT_EQ(Kiv::valueToStrep(EthAddr("01:00:5e:00:00:01")),
            "Value('Wirly::EthAddr', ** {'addr': '01:00:5e:00:00:01'})");
  EXPECT_EQ(Kiv::valueFromStrep<EthAddr>(Kiv::valueToStrep(EthAddr("de:ad:be:ef:00:01"))),
            EthAddr("de:ad:be:ef:00:01"));
}

}  // namespace
