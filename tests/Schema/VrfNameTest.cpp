#include "Schema/VrfName.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_map>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using L3::VrfName;

TEST(VrfNameTest, HoldsUpToOneHundredBytes) {
  std::string longest(VrfName::maxLength, 'v');
  EXPECT_EQ(VrfName(longest).str(), longest);
  try {
    VrfName(longest + "v");
    FAIL() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "VrfName::bytes > VrfName::maxLength not allowed");
  }
  EXPECT_EQ(VrfName::maxLength, 100u);
}

TEST(VrfNameTest, DefaultVrfIsNamedDefault) {
  EXPECT_EQ(VrfName::defaultVrf().str(), "default");
  EXPECT_EQ(VrfName::defaultVrf(), "default");
  EXPECT_TRUE(VrfName().empty());
  EXPECT_NE(VrfName(), VrfName::defaultVrf());
}

TEST(VrfNameTest, EqualityOrderAndHashSeeOnlyTheName) {
  // A name that once held a longer one must not keep its old bytes.
  VrfName v("a-much-longer-name");
  v = VrfName("red");
  EXPECT_EQ(v, VrfName("red"));
  EXPECT_EQ(v.hash(), VrfName("red").hash());
  EXPECT_LT(VrfName(""), VrfName("a"));
  EXPECT_LT(VrfName("a"), VrfName("ab"));
  EXPECT_LT(VrfName("Z"), VrfName("a"));
  EXPECT_NE(VrfName("red").hash(), VrfName("blue").hash());
  std::unordered_map<VrfName, int> m{{"red", 1}, {"blue", 2}, {VrfName::defaultVrf(), 3}};
  EXPECT_EQ(m.at(std::string("blue")), 2);
  EXPECT_EQ(m.at("default"), 3);
}

TEST(VrfNameTest, PrintsAndHasTextForm) {
  std::ostringstream os;
  os << VrfName("red");
  EXPECT_EQ(os.str(), "red");
  EXPECT_EQ(Kiv::valueToStrep(VrfName("it's")), "'it\\'s'");
  EXPECT_EQ(Kiv::valueFromStrep<VrfName>("'it\\'s'"), VrfName("it's"));
  EXPECT_THROW(Kiv::valueFromStrep<VrfName>("'" + std::string(101, 'x') + "'"), Kiv::RangeException);
  EXPECT_THROW(Kiv::valueFromStrep<VrfName>("red"), Kiv::ParseException);
}

}  // namespace
