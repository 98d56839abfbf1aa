#include "tests/support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/unit/brisklog/BrisklogFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(BrisklogTest, CaptureEnablesItsModulesAndPutsSinkAndLevelsBack) {
  Brisklog::Handle h("TraceCaptureTest.A", true);
  Brisklog::Handle other("TraceCaptureTest.Other");
  other.levelsIs(0x4);
  {
    TraceCapture capture("TraceCaptureTest.A");
    EXPECT_EQ(Brisklog::sink(), &capture);
    EXPECT_EQ(h.levels(), Brisklog::allLevels);
    EXPECT_EQ(other.levels(), 0x4);
  }
  EXPECT_EQ(Brisklog::sink(), nullptr);
  EXPECT_EQ(h.levels(), 0x1);
  EXPECT_EQ(other.levels(), 0x4);
  Brisklog::Handle later("TraceCaptureTest.A");
  EXPECT_EQ(later.levels(), 0);  // the capture's request went with it
}

TEST_F(BrisklogTest, CapturePutsBackWhatTheTestChangedWhileItLived) {
  Brisklog::Handle h("TraceCaptureTest.B");
  Brisklog::levelsIs("TraceCaptureTest.B", 0x2);
  {
    TraceCapture capture;
    Brisklog::configure("*/0-9");
    h.levelsIs(0x80);
    Brisklog::Handle during("TraceCaptureTest.During");
    EXPECT_EQ(during.levels(), Brisklog::allLevels);
  }
  EXPECT_EQ(h.levels(), 0x2);
  Brisklog::Handle after("TraceCaptureTest.During");
  EXPECT_EQ(after.levels(), 0);
}

TEST_F(BrisklogTest, HandleMadeDuringCaptureFollowsItThenTheRestoredRequests) {
  Brisklog::levelsIs("TraceCaptureTest.C", 0x10);
  std::optional<TraceCapture> capture(std::in_place, "TraceCaptureTest.C");
  Brisklog::Handle h("TraceCaptureTest.C");
  EXPECT_EQ(h.levels(), Brisklog::allLevels);
  capture.reset();
  EXPECT_EQ(h.levels(), 0x10);
}

TEST_F(BrisklogTest, CaptureWithMasksEnablesJustThoseLevels) {
  Brisklog::Handle a("TraceCaptureTest.MaskA");
  Brisklog::Handle b("TraceCaptureTest.MaskB");
  TraceCapture capture{{"TraceCaptureTest.MaskA", Brisklog::levelRange(0, 5)}, {"TraceCaptureTest.MaskB", 1 << 8}};
  EXPECT_EQ(a.levels(), 0x3f);
  EXPECT_EQ(b.levels(), 0x100);
  TraceCapture both{"TraceCaptureTest.MaskA", "TraceCaptureTest.MaskB"};
  EXPECT_EQ(a.levels(), Brisklog::allLevels);
  EXPECT_EQ(b.levels(), Brisklog::allLevels);
}

TEST_F(BrisklogTest, NestedCapturesEachSeeTheirOwnLines) {
  Brisklog::Handle h("TraceCaptureTest.Nested");
  TraceCapture outer("TraceCaptureTest.Nested");
  BRISKLOG_TRACE(h, 1, "first");
  {
    TraceCapture inner;
    BRISKLOG_TRACE(h, 1, "second");
    EXPECT_THAT(inner.texts(), ElementsAre("second"));
  }
  BRISKLOG_TRACE(h, 1, "third");
  EXPECT_THAT(outer.texts(), ElementsAre("first", "third"));
}

TEST_F(BrisklogTest, CaptureHelpersSelectCountAndClear) {
  Brisklog::Handle a("TraceCaptureTest.HelpA");
  Brisklog::Handle b("TraceCaptureTest.HelpB");
  TraceCapture capture{"TraceCaptureTest.HelpA", "TraceCaptureTest.HelpB"};
  BRISKLOG_TRACE(a, 8, "handleX( 1 )");
  BRISKLOG_TRACE(b, 5, "state up");
  BRISKLOG_TRACE(a, 0, "handleX( 1 )");
  BRISKLOG_TRACE(a, 8, "handleX( 2 )");

  EXPECT_THAT(capture.texts(), ElementsAre("handleX( 1 )", "state up", "handleX( 1 )", "handleX( 2 )"));
  EXPECT_THAT(capture.texts("TraceCaptureTest.HelpB"), ElementsAre("state up"));
  EXPECT_THAT(capture.texts("TraceCaptureTest.HelpA", 8), ElementsAre("handleX( 1 )", "handleX( 2 )"));
  EXPECT_THAT(capture.texts("TraceCaptureTest.Nobody"), IsEmpty());
  EXPECT_TRUE(capture.contains("state up"));
  EXPECT_FALSE(capture.contains("state"));  // whole texts only
  EXPECT_EQ(capture.count("handleX( 1 )"), 2u);
  EXPECT_EQ(capture.countContaining("handleX("), 3u);
  EXPECT_EQ(capture.size(), 4u);
  EXPECT_EQ(capture.dump(),
            "TraceCaptureTest.HelpA/8 TestBody: handleX( 1 )\n"
            "TraceCaptureTest.HelpB/5 TestBody: state up\n"
            "TraceCaptureTest.HelpA/0 TestBody: handleX( 1 )\n"
            "TraceCaptureTest.HelpA/8 TestBody: handleX( 2 )\n");

  capture.clear();
  EXPECT_EQ(capture.size(), 0u);
  BRISKLOG_TRACE(b, 1, "after clear");
  EXPECT_THAT(capture.texts(), ElementsAre("after clear"));
}
