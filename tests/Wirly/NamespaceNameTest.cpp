#include "Wirly/NamespaceName.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace {

using Wirly::NamespaceName;

TEST(NamespaceNameTest, EmptyIsTheDefaultNamespace) {
  EXPECT_TRUE(NamespaceName().isDefault());
  EXPECT_EQ(NamespaceName(""), NamespaceName());
  EXPECT_FALSE(NamespaceName("blue").isDefault());
}

TEST(NamespaceNameTest, BoundedAndUsableAsAPathComponent) {
  EXPECT_EQ(NamespaceName(std::string(NamespaceName::maxLength, 'n')).str().size(), NamespaceName::maxLength);
  try {
    NamespaceName const tooLong(std::string(NamespaceName::maxLength + 1, 'n'));
    FAIL() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "NamespaceName::bytes > NamespaceName::maxLength not allowed");
  }
  for (std::string const& bad : {std::string("a/b"), std::string("."), std::string(".."), std::string("a\0b", 3)}) {
    EXPECT_THROW(NamespaceName{bad}, Kiv::RangeException);
  }
  EXPECT_EQ(NamespaceName("..a").str(), "..a");
}

TEST(NamespaceNameTest, OrderHashAndTextForm) {
  EXPECT_LT(NamespaceName(), NamespaceName("a"));
  EXPECT_LT(NamespaceName("a"), NamespaceName("b"));
  std::unordered_set<NamespaceName> set{NamespaceName(), NamespaceName("red"), NamespaceName("blue")};
  EXPECT_EQ(set.count(NamespaceName(std::string("red"))), 1u);
  EXPECT_EQ(Kiv::valueToStrep(NamespaceName("it's")), "'it\\'s'");
  EXPECT_EQ(Kiv::valueFromStrep<NamespaceName>("'it\\'s'"), NamespaceName("it's"));
  EXPECT_THROW(Kiv::valueFromStrep<NamespaceName>("'a/b'"), Kiv::RangeException);
}

}  // namespace
