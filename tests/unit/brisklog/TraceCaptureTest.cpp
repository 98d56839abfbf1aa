#include "tests/support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/brisklog/BrisklogFixture.h"

// Tests rely on a capture leaving the trace set-up as it found it, whatever they changed meanwhile.
TEST_F(BrisklogTest, CaptureEnablesItsModulesThenPutsSinkAndLevelsBack) {
  Brisklog::Handle h("TraceCaptureTest.A", true);
  Brisklog::Handle other("TraceCaptureTest.Other");
  Brisklog::levelsIs("TraceCaptureTest.Other", 0x4);
  {
    TraceCapture capture{{"TraceCaptureTest.A", Brisklog::levelRange(0, 5)}};
    EXPECT_EQ(Brisklog::sink(), &capture);
    EXPECT_EQ(h.levels(), 0x3f);
    EXPECT_EQ(other.levels(), 0x4);
    Brisklog::configure("*/0-9");
    other.levelsIs(0x80);
    Brisklog::Handle during("TraceCaptureTest.During");
    EXPECT_EQ(during.levels(), Brisklog::allLevels);
  }
  EXPECT_EQ(Brisklog::sink(), nullptr);
  EXPECT_EQ(h.levels(), 0x1);
  EXPECT_EQ(other.levels(), 0x4);
  Brisklog::Handle later("TraceCaptureTest.A");
  Brisklog::Handle after("TraceCaptureTest.During");
  EXPECT_EQ(later.levels(), 0);  // the capture's request went with it
  EXPECT_EQ(after.levels(), 0);
}
