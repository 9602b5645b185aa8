#include "Schema/VlanId.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sstream>
#include <unordered_set>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;

std::string rangeError(long long v) {
  try {
    VlanId id(v);
  } catch (Kiv::RangeException const& e) {
    return e.what();
  }
  return "";
}

TEST(VlanIdTest, HoldsZeroTo4095AndOnlyOneTo4094AreUsable) {
  EXPECT_EQ(VlanId().value(), 0);
  EXPECT_FALSE(VlanId().isValid());
  EXPECT_TRUE(VlanId(1).isValid());
  EXPECT_TRUE(VlanId(4094).isValid());
  EXPECT_FALSE(VlanId(4095).isValid());
  EXPECT_EQ(rangeError(4095), "");
  EXPECT_EQ(rangeError(4096), "VlanId::value > 4095 not allowed");
  EXPECT_EQ(rangeError(-1), "VlanId::value < 0 not allowed");
  // Not truncated to 16 bits first.
  EXPECT_EQ(rangeError(65536 + 5), "VlanId::value > 4095 not allowed");
  EXPECT_THROW(VlanId(std::uint64_t(1) << 63), Kiv::RangeException);
}

TEST(VlanIdTest, OrderHashAndText) {
  EXPECT_LT(VlanId(2), VlanId(10));
  std::unordered_set<VlanId> set{VlanId(1), VlanId(2), VlanId(4094)};
  EXPECT_EQ(set.count(VlanId(std::uint16_t(2))), 1u);
  EXPECT_EQ(set.count(VlanId(3)), 0u);
  std::ostringstream os;
  os << VlanId(100);
  EXPECT_EQ(os.str(), "100");
  EXPECT_EQ(Kiv::valueToStrep(VlanId(100)), "100");
  EXPECT_EQ(Kiv::valueFromStrep<VlanId>("4094"), VlanId(4094));
  EXPECT_THROW(Kiv::valueFromStrep<VlanId>("4096"), Kiv::RangeException);
  EXPECT_THROW(Kiv::valueFromStrep<VlanId>("-1"), Kiv::ParseException);
  EXPECT_THROW(Kiv::valueFromStrep<VlanId>("None"), Kiv::ParseException);
}

TEST(VlanIdOrNoneTest, NoneIsDistinctFromVlanZeroAndOrdersFirst) {
  VlanIdOrNone none;
  EXPECT_TRUE(none.isNone());
  EXPECT_EQ(none, VlanIdOrNone::none());
  VlanIdOrNone zero = VlanId(0);
  EXPECT_TRUE(zero.hasValue());
  EXPECT_NE(zero, none);
  EXPECT_EQ(zero.vlanId(), VlanId(0));
  EXPECT_EQ(VlanIdOrNone(VlanId(4095)).vlanId(), VlanId(4095));
  std::set<VlanIdOrNone> s{VlanId(7), none, VlanId(0), VlanId(4095)};
  std::ostringstream os;
  for (auto v : s) os << v << " ";
  EXPECT_EQ(os.str(), "none 0 7 4095 ");
  EXPECT_NE(none.hash(), zero.hash());
  EXPECT_EQ(std::hash<VlanIdOrNone>()(VlanId(7)), VlanIdOrNone(VlanId(7)).hash());
}

TEST(VlanIdOrNoneTest, ZeroedStorageReadsAsNone) {
  VlanIdOrNone v = VlanId(9);
  std::memset(static_cast<void*>(&v), 0, sizeof v);
  EXPECT_TRUE(v.isNone());
}

TEST(VlanIdOrNoneTest, TextFormIsNoneOrTheNumber) {
  EXPECT_EQ(Kiv::valueToStrep(VlanIdOrNone()), "None");
  EXPECT_EQ(Kiv::valueToStrep(VlanIdOrNone(VlanId(10))), "10");
  EXPECT_EQ(Kiv::valueFromStrep<VlanIdOrNone>("None"), VlanIdOrNone());
  EXPECT_EQ(Kiv::valueFromStrep<VlanIdOrNone>("0"), VlanIdOrNone(VlanId(0)));
  EXPECT_THROW(Kiv::valueFromStrep<VlanIdOrNone>("none"), Kiv::ParseException);
  EXPECT_THROW(Kiv::valueFromStrep<VlanIdOrNone>("5000"), Kiv::RangeException);
}

TEST(VlanIdOrNoneDeathTest, VlanIdOfNoneAsserts) { EXPECT_DEATH(VlanIdOrNone().vlanId(), "hasValue\\(\\)"); }

}  // namespace
