#include <gtest/gtest.h>

#include "Kiv/Assert.h"

namespace {

int bitMapSize() { return 0; }

TEST(AssertDeathTest, PrintsTheExpressionExactlyAsWrittenAndAborts) {
  EXPECT_DEATH(KIV_ASSERT(bitMapSize()), "Assertion failed: bitMapSize\\(\\) \\(AssertTest.cpp:");
  int maxBitIndex = 3;
  // clang-format off
  EXPECT_DEATH(KIV_ASSERT(maxBitIndex >= int( maxBitIndex + 1 )),
               "Assertion failed: maxBitIndex >= int\\( maxBitIndex \\+ 1 \\)");
  // clang-format on
  char const* name = nullptr;
  EXPECT_DEATH(KIV_ASSERT(name && "Need a valid name supplied"), "name && \"Need a valid name supplied\"");
}

TEST(Assert, HoldingAssertionHasNoEffect) {
  int evaluated = 0;
  KIV_ASSERT(++evaluated == 1);
  EXPECT_EQ(evaluated, 1);
}

}  // namespace
