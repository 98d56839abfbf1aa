// Trace handles, their levels, trace statements and the default output.
#include "intfsm/foundation/brisklog/Brisklog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <string>

#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/String.h"
#include "tests/support/Descriptors.h"
#include "tests/support/TempDir.h"
#include "tests/support/ThrownText.h"
#include "tests/support/TraceCapture.h"

using IntfsmTest::TraceCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// Each test starts where nothing has been asked for and leaves the set-up as it found it.
class BrisklogTest : public testing::Test {
  IntfsmTest::ScopedTraceSettings saved_{IntfsmTest::ScopedTraceSettings::fromNothing};
};

TEST_F(BrisklogTest, LevelsByModuleReachEveryHandleOfThatNameNowAndLater) {
  Brisklog::Handle quiet("BrisklogTest.Quiet");
  Brisklog::Handle anomalies("BrisklogTest.Anomalies", true);
  EXPECT_EQ(std::tuple(quiet.levels(), anomalies.levels()), std::tuple(0, 1));  // enabled by default: level 0 only
  Brisklog::Handle first("BrisklogTest.Shared");
  Brisklog::levelsIs("BrisklogTest.Shared", Brisklog::levelRange(2, 4));
  Brisklog::Handle later("BrisklogTest.Shared");
  EXPECT_EQ(std::tuple(first.levels(), later.levels()), std::tuple(0x1c, 0x1c));
  later.levelsIs(Brisklog::allLevels);  // that handle only
  EXPECT_EQ(first.levels(), 0x1c);
  // Asked for before the handle exists; configured, the default level 0 no longer applies.
  Brisklog::levelsIs("BrisklogTest.Late", 1 << 5);
  Brisklog::configure("BrisklogTest.LateToo/7");
  Brisklog::Handle late("BrisklogTest.Late");
  Brisklog::Handle lateToo("BrisklogTest.LateToo", true);
  EXPECT_EQ(std::tuple(late.levels(), lateToo.levels()), std::tuple(1 << 5, 1 << 7));
  // A destroyed handle is forgotten (the sanitizer build sees a dead one touched).
  { Brisklog::Handle gone("BrisklogTest.Gone"); }
  Brisklog::configure("*/1");
}

TEST_F(BrisklogTest, MaskWithBitsAboveLevelNineIsRejectedAndChangesNothing) {
  Brisklog::Handle h("BrisklogTest.Mask");
  Brisklog::levelsIs("BrisklogTest.Mask", 0x3);
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([] { Brisklog::levelsIs("BrisklogTest.Mask", 0x403); }),
            "Brisklog: level mask 0x403 has bits above level 9");
  EXPECT_THROW(h.levelsIs(0xffff), Vorn::RangeException);
  EXPECT_THROW(Brisklog::levelsIs(nullptr, 1), Vorn::RangeException);
  EXPECT_EQ(std::tuple(h.levels(), Brisklog::Handle("BrisklogTest.Mask").levels()), std::tuple(0x3, 0x3));
}

TEST_F(BrisklogTest, OnlyEnabledLevelsZeroToNineTraceAndDisabledPiecesAreNotEvaluated) {
  Brisklog::Handle h("BrisklogTest.Lazy");
  TraceCapture capture;
  int evaluated = 0;
  auto const piece = [&] { return ++evaluated, "piece"; };
  BRISKLOG_TRACE(h, 5, "value " << piece());
  h.levelsIs(1 << 5);
  BRISKLOG_TRACE(h, 5, "value " << piece());
  BRISKLOG_TRACE(h, 4, "value " << piece());
  EXPECT_EQ(evaluated, 1);
  h.levelsIs(1 << 0 | 1 << 9);
  for (unsigned level = 0; level <= 15; ++level) BRISKLOG_TRACE(h, level, "level " << level);
  EXPECT_THAT(capture.texts(), ElementsAre("value piece", "level 0", "level 9"));
}

TEST_F(BrisklogTest, EnabledStatementDeliversModuleLevelTextAndPlace) {
  Brisklog::Handle h("BrisklogTest.Place");
  TraceCapture capture("BrisklogTest.Place");
  int const line = __LINE__ + 1;
  BRISKLOG_TRACE(h, 8, "doSyncIntfStatus" << "( " << Vorn::String("et1") << ", " << 42 << " )");
  // Small integers print as numbers, a null text readably.
  uint8_t const count = 200;
  int8_t const delta = -3;
  char const * none = nullptr;
  BRISKLOG_TRACE(h, 1, count << " " << delta << " " << none << " " << 'c' << " " << std::hex << 255 << std::endl);
  EXPECT_THAT(capture.lines(),
              ElementsAre(TraceCapture::Line{"BrisklogTest.Place", 8, "doSyncIntfStatus( et1, 42 )", "TestBody",
                                             "BrisklogTest.cpp", line},
                          TraceCapture::Line{"BrisklogTest.Place", 1, "200 -3 (null) c ff\n", "TestBody",
                                             "BrisklogTest.cpp", line + 5}));
}

TEST_F(BrisklogTest, LineTextIsUtcTimeModuleLevelPlaceFunctionAndText) {
  Brisklog::Line line{1700000000.25, "KernelOperState", 8, "/src/intfsm/KernelOperState/IntfStatusOperStatusSm.cpp",
                      120, "doSyncIntfStatus", "doSyncIntfStatus( et1 )"};
  EXPECT_EQ(Brisklog::lineText(line),
            "2023-11-14T22:13:20.250000Z KernelOperState/8 IntfStatusOperStatusSm.cpp:120 doSyncIntfStatus: "
            "doSyncIntfStatus( et1 )\n");
  line.time = 1700000000.9999996;  // rounds up into the next second
  line.file = "Plain.cpp";
  line.level = 0;
  line.text = "two\nlines";
  EXPECT_EQ(Brisklog::lineText(line),
            "2023-11-14T22:13:21.000000Z KernelOperState/0 Plain.cpp:120 doSyncIntfStatus: two\\nlines\n");
}

// An installed sink takes the lines; without one they are appended to the output file (which a file
// that cannot be opened does not replace), or go to stderr when it is empty.
TEST_F(BrisklogTest, LinesGoToTheInstalledSinkElseTheOutputFileElseStderr) {
  IntfsmTest::TempDir tmp;
  int const descriptors = IntfsmTest::openDescriptorCount();
  std::string const file = tmp.path() + "/trace";
  std::ofstream(file) << "earlier line\n";
  Brisklog::outputFileIs(file.c_str());
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::ErrnoException>([] { Brisklog::outputFileIs("/nonexistent-brisklog-dir/x"); }),
            "Brisklog: cannot open trace file \"/nonexistent-brisklog-dir/x\": No such file or directory");
  EXPECT_EQ(Brisklog::outputFile(), file);
  Brisklog::Handle h("BrisklogTest.Sink");
  h.levelsIs(Brisklog::allLevels);
  {
    TraceCapture sink;
    BRISKLOG_TRACE(h, 0, "to the sink");
    EXPECT_THAT(sink.texts(), ElementsAre("to the sink"));
  }
  int const line = __LINE__ + 1;
  BRISKLOG_TRACE(h, 5, "state " << 7);
  Brisklog::outputFileIs(nullptr);
  EXPECT_EQ(std::tuple(Brisklog::outputFile(), IntfsmTest::openDescriptorCount()), std::tuple("", descriptors));  // closed
  testing::internal::CaptureStderr();
  BRISKLOG_TRACE(h, 0, "to stderr");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(" BrisklogTest.Sink/0 BrisklogTest.cpp:"));

  std::smatch m;
  std::string const text = IntfsmTest::fileContents(file);
  std::regex const format("earlier line\n(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d)\\.\\d{6}Z BrisklogTest\\.Sink/5 "
                          "BrisklogTest\\.cpp:" + std::to_string(line) + " TestBody: state 7\n");
  ASSERT_TRUE(std::regex_match(text, m, format)) << text;
  std::tm parts{};  // the stamp is the current time in UTC
  ASSERT_TRUE(strptime(m[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &parts));
  EXPECT_NEAR(static_cast<double>(timegm(&parts)), static_cast<double>(std::time(nullptr)), 5.0);
}

}  // namespace
