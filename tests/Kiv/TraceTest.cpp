#include <gtest/gtest.h>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"

namespace {

Kiv::TraceHandle bitMapper("Mroute::BitMapper");
Kiv::TraceHandle mrtPam("Mroute::MrtPam");
Kiv::TraceHandle mrouteLib("MrouteLib");

TEST(Trace, ConfigurationSelectsHandlesByPatternAndLevels) {
  Kiv::TraceCapture cap("Mroute::*/0-3,MrouteLib/9,Mroute::MrtPam/8");
  EXPECT_TRUE(bitMapper.enabled(0));
  EXPECT_TRUE(bitMapper.enabled(3));
  EXPECT_FALSE(bitMapper.enabled(4));
  EXPECT_TRUE(mrtPam.enabled(8));  // entries add up
  EXPECT_TRUE(mrtPam.enabled(2));
  EXPECT_TRUE(mrouteLib.enabled(9));
  EXPECT_FALSE(mrouteLib.enabled(8));
  KIV_TRACE(bitMapper, 2, "free pool " << 4);
  KIV_TRACE(bitMapper, 9, "not this");
  KIV_TRACE(mrouteLib, 9, "void MrouteLib::Mroute::handleFastdrop()");
  ASSERT_EQ(cap.lines().size(), 2u);
  EXPECT_EQ(cap.lines()[0].handle, "Mroute::BitMapper");
  EXPECT_EQ(cap.lines()[0].level, 2);
  EXPECT_EQ(cap.lines()[0].text, "free pool 4");
  EXPECT_EQ(cap.lines()[1].text, "void MrouteLib::Mroute::handleFastdrop()");
}

TEST(Trace, DisabledLevelDoesNotEvaluateItsArguments) {
  Kiv::TraceCapture cap("MrouteLib/9");
  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };
  KIV_TRACE(mrouteLib, 8, "value " << costly());
  EXPECT_EQ(evaluated, 0);
  KIV_TRACE(mrouteLib, 9, "value " << costly());
  EXPECT_EQ(evaluated, 1);
  EXPECT_TRUE(cap.contains("value 1"));
}

TEST(Trace, CaptureRestoresThePreviousConfiguration) {
  Kiv::Trace::configIs("MrouteLib/4");
  {
    Kiv::TraceCapture cap("Mroute::*");
    EXPECT_FALSE(mrouteLib.enabled(4));
    EXPECT_TRUE(bitMapper.enabled(9));
  }
  EXPECT_TRUE(mrouteLib.enabled(4));
  EXPECT_FALSE(bitMapper.enabled(9));
  Kiv::Trace::configIs("");
}

TEST(Trace, HandleMadeAfterConfigurationPicksItUp) {
  Kiv::TraceCapture cap("Late::*/5");
  Kiv::TraceHandle late("Late::One");
  EXPECT_TRUE(late.enabled(5));
  EXPECT_FALSE(late.enabled(4));
}

TEST(Trace, MalformedConfigurationIsRefusedAndChangesNothing) {
  Kiv::TraceCapture cap("MrouteLib/9");
  EXPECT_THROW(Kiv::Trace::configIs("Mroute::*/x"), Kiv::ParseException);
  EXPECT_THROW(Kiv::Trace::configIs("Mroute::*/7-2"), Kiv::ParseException);
  EXPECT_THROW(Kiv::Trace::configIs("/3"), Kiv::ParseException);
  EXPECT_TRUE(mrouteLib.enabled(9));
}

TEST(Trace, GlobMatchesInsideNames) {
  EXPECT_EQ(Kiv::Trace::levelsFor("*Pam/1", "Mroute::MrtNotifyPam"), 0x2);
  EXPECT_EQ(Kiv::Trace::levelsFor("*Pam/1", "Mroute::MrtPamX"), 0);
  EXPECT_EQ(Kiv::Trace::levelsFor("Mroute::Mrt*Pam", "Mroute::MrtPam"), 0x3ff);
}

}  // namespace
