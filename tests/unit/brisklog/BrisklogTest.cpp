#include "intfsm/foundation/brisklog/Brisklog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <regex>
#include <string>
#include <thread>

#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/String.h"
#include "tests/support/TraceCapture.h"
#include "tests/unit/brisklog/BrisklogFixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

// Records lines the way a user's own sink would.
struct RecordingSink : Brisklog::Sink {
  void lineIs(Brisklog::Line const & line) override { texts.emplace_back(line.text); }
  std::vector<std::string> texts;
};

}  // namespace

// ---- Handles and their levels

TEST_F(BrisklogTest, NewHandleIsOffUnlessEnabledByDefaultWhichGivesLevelZeroOnly) {
  Brisklog::Handle quiet("BrisklogTest.Quiet");
  Brisklog::Handle anomalies("BrisklogTest.Anomalies", true);
  EXPECT_STREQ(quiet.module(), "BrisklogTest.Quiet");
  EXPECT_EQ(quiet.levels(), 0);
  EXPECT_EQ(anomalies.levels(), 1);
  EXPECT_TRUE(anomalies.enabled(0));
  EXPECT_FALSE(anomalies.enabled(1));
}

TEST_F(BrisklogTest, LevelsByModuleReachEveryHandleOfThatNameNowAndLater) {
  Brisklog::Handle first("BrisklogTest.Shared");
  Brisklog::Handle other("BrisklogTest.Other");
  Brisklog::levelsIs("BrisklogTest.Shared", Brisklog::levelRange(2, 4));
  EXPECT_EQ(first.levels(), 0x1c);
  EXPECT_EQ(other.levels(), 0);
  Brisklog::Handle later("BrisklogTest.Shared");
  EXPECT_EQ(later.levels(), 0x1c);
}

TEST_F(BrisklogTest, LevelsAskedBeforeTheHandleExistsApplyWhenItIsMade) {
  Brisklog::levelsIs("BrisklogTest.Late", 1 << 5);
  Brisklog::configure("BrisklogTest.LateToo/7");
  Brisklog::Handle late("BrisklogTest.Late");
  Brisklog::Handle lateToo("BrisklogTest.LateToo", true);
  EXPECT_EQ(late.levels(), 1 << 5);
  EXPECT_EQ(lateToo.levels(), 1 << 7);  // configured: the default level 0 no longer applies
}

TEST_F(BrisklogTest, HandleLevelsIsChangesThatHandleOnly) {
  Brisklog::Handle a("BrisklogTest.Twin");
  Brisklog::Handle b("BrisklogTest.Twin");
  a.levelsIs(Brisklog::allLevels);
  EXPECT_EQ(a.levels(), Brisklog::allLevels);
  EXPECT_EQ(b.levels(), 0);
  Brisklog::Handle c("BrisklogTest.Twin");
  EXPECT_EQ(c.levels(), 0);
}

TEST_F(BrisklogTest, MaskWithBitsAboveLevelNineIsRejectedAndChangesNothing) {
  Brisklog::Handle h("BrisklogTest.Mask");
  Brisklog::levelsIs("BrisklogTest.Mask", 0x3);
  try {
    Brisklog::levelsIs("BrisklogTest.Mask", 0x403);
    FAIL() << "no exception";
  } catch (Vorn::RangeException const & e) {
    EXPECT_STREQ(e.what(), "Brisklog: level mask 0x403 has bits above level 9");
  }
  EXPECT_THROW(h.levelsIs(0xffff), Vorn::RangeException);
  EXPECT_THROW(Brisklog::levelsIs(nullptr, 1), Vorn::RangeException);
  EXPECT_EQ(h.levels(), 0x3);
  Brisklog::Handle later("BrisklogTest.Mask");
  EXPECT_EQ(later.levels(), 0x3);
}

TEST_F(BrisklogTest, LevelRangeCoversBothEnds) {
  EXPECT_EQ(Brisklog::levelRange(0, 0), 0x1);
  EXPECT_EQ(Brisklog::levelRange(9, 9), 0x200);
  EXPECT_EQ(Brisklog::levelRange(0, 9), Brisklog::allLevels);
  EXPECT_EQ(Brisklog::levelRange(3, 5), 0x38);
}

TEST_F(BrisklogTest, DestroyedHandleIsForgottenByTheRegistry) {
  { Brisklog::Handle gone("BrisklogTest.Gone"); }
  // Would touch the dead handle if it were still registered (the sanitizer build catches that).
  Brisklog::configure("*/1");
  Brisklog::levelsIs("BrisklogTest.Gone", 0x6);
  Brisklog::Handle again("BrisklogTest.Gone");
  EXPECT_EQ(again.levels(), 0x6);
}

// ---- Trace statements

TEST_F(BrisklogTest, DisabledStatementDoesNotEvaluateItsPieces) {
  Brisklog::Handle h("BrisklogTest.Lazy");
  TraceCapture capture;
  int evaluated = 0;
  auto const piece = [&] {
    ++evaluated;
    return "piece";
  };
  BRISKLOG_TRACE(h, 5, "value " << piece());
  EXPECT_EQ(evaluated, 0);
  EXPECT_THAT(capture.texts(), IsEmpty());

  h.levelsIs(1 << 5);
  BRISKLOG_TRACE(h, 5, "value " << piece());
  BRISKLOG_TRACE(h, 4, "value " << piece());
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(capture.texts(), ElementsAre("value piece"));
}

TEST_F(BrisklogTest, EnabledStatementDeliversModuleLevelTextAndPlace) {
  Brisklog::Handle h("BrisklogTest.Place");
  TraceCapture capture("BrisklogTest.Place");
  int const line = __LINE__ + 1;
  BRISKLOG_TRACE(h, 8, "doSyncIntfStatus" << "( " << Vorn::String("et1") << ", " << 42 << " )");
  EXPECT_THAT(capture.lines(),
              ElementsAre(TraceCapture::Line{"BrisklogTest.Place", 8, "doSyncIntfStatus( et1, 42 )", "TestBody",
                                             "BrisklogTest.cpp", line}));
}

TEST_F(BrisklogTest, LevelZeroAndNineAreTheEnds) {
  Brisklog::Handle h("BrisklogTest.Ends");
  TraceCapture capture;
  h.levelsIs(1 << 0);
  for (unsigned level = 0; level <= 9; ++level) BRISKLOG_TRACE(h, level, "level " << level);
  h.levelsIs(1 << 9);
  for (unsigned level = 0; level <= 9; ++level) BRISKLOG_TRACE(h, level, "level " << level);
  h.levelsIs(Brisklog::allLevels);
  BRISKLOG_TRACE(h, 10, "level 10");
  BRISKLOG_TRACE(h, 15, "level 15");
  EXPECT_THAT(capture.texts(), ElementsAre("level 0", "level 9"));
  EXPECT_THAT(capture.lines().back().level, 9u);
}

TEST_F(BrisklogTest, WriterPrintsSmallIntegersAsNumbersAndNullTextReadably) {
  Brisklog::Handle h("BrisklogTest.Writer");
  TraceCapture capture("BrisklogTest.Writer");
  uint8_t const count = 200;
  int8_t const delta = -3;
  char const * none = nullptr;
  char letter = 'c';
  BRISKLOG_TRACE(h, 1, count << " " << delta << " " << none << " " << letter << " " << std::hex << 255 << std::endl);
  EXPECT_THAT(capture.texts(), ElementsAre("200 -3 (null) c ff\n"));
}

TEST_F(BrisklogTest, CreateIfEnabledGivesAWriterOnlyForEnabledLevels) {
  Brisklog::Handle h("BrisklogTest.Create");
  TraceCapture capture;
  h.levelsIs(1 << 3);
  EXPECT_FALSE(Brisklog::createIfEnabled(h, 2));
  Brisklog::WriterPtr w = Brisklog::createIfEnabled(h, 3);
  ASSERT_TRUE(w);
  EXPECT_EQ(&w->handle(), &h);
  EXPECT_EQ(w->level(), 3u);
  w->stream() << "via stream " << 1.5;
  EXPECT_EQ(w->text(), "via stream 1.5");
  w->trace("dir/File.cpp", 12, "handleX");
  EXPECT_THAT(capture.lines(), ElementsAre(TraceCapture::Line{"BrisklogTest.Create", 3, "via stream 1.5", "handleX",
                                                              "File.cpp", 12}));
}

TEST_F(BrisklogTest, TwoThreadsTracingAtOnceLoseNoLine) {
  Brisklog::Handle h("BrisklogTest.Threads");
  TraceCapture capture("BrisklogTest.Threads");
  auto const run = [&](char const * who) {
    for (int i = 0; i < 2000; ++i) BRISKLOG_TRACE(h, 5, who << " " << i);
  };
  std::thread a(run, "a");
  std::thread b(run, "b");
  a.join();
  b.join();
  EXPECT_EQ(capture.size(), 4000u);
  EXPECT_EQ(capture.countContaining("a "), 2000u);
  EXPECT_TRUE(capture.contains("a 1999"));
  EXPECT_TRUE(capture.contains("b 1999"));
}

// ---- Default output

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

TEST_F(BrisklogTest, DefaultSinkAppendsOneLinePerTraceToTheOutputFile) {
  TempFile file;
  { std::ofstream(file.path()) << "earlier line\n"; }
  Brisklog::outputFileIs(file.path());
  EXPECT_EQ(Brisklog::outputFile(), file.path());
  Brisklog::Handle h("BrisklogTest.File");
  h.levelsIs(Brisklog::allLevels);
  std::time_t const before = std::time(nullptr);
  int const line = __LINE__ + 1;
  BRISKLOG_TRACE(h, 5, "state " << 7);
  BRISKLOG_TRACE(h, 9, "second");

  std::string const text = file.contents();
  std::smatch m;
  std::regex const format(
      "earlier line\n"
      "(\\d{4})-(\\d\\d)-(\\d\\d)T(\\d\\d):(\\d\\d):(\\d\\d)\\.\\d{6}Z BrisklogTest\\.File/5 BrisklogTest\\.cpp:" +
      std::to_string(line) +
      " TestBody: state 7\n"
      "\\S+ BrisklogTest\\.File/9 BrisklogTest\\.cpp:" +
      std::to_string(line + 1) + " TestBody: second\n");
  ASSERT_TRUE(std::regex_match(text, m, format)) << text;
  // The stamp is UTC: it reads back through timegm as the time of the trace.
  std::tm parts{};
  parts.tm_year = std::stoi(m[1]) - 1900;
  parts.tm_mon = std::stoi(m[2]) - 1;
  parts.tm_mday = std::stoi(m[3]);
  parts.tm_hour = std::stoi(m[4]);
  parts.tm_min = std::stoi(m[5]);
  parts.tm_sec = std::stoi(m[6]);
  std::time_t const stamped = timegm(&parts);
  EXPECT_GE(stamped, before);
  EXPECT_LE(stamped, std::time(nullptr));
}

TEST_F(BrisklogTest, OutputFileThatCannotBeOpenedIsReportedAndOutputStays) {
  TempFile file;
  Brisklog::outputFileIs(file.path());
  try {
    Brisklog::outputFileIs("/nonexistent-brisklog-dir/trace.log");
    FAIL() << "no exception";
  } catch (Vorn::ErrnoException const & e) {
    EXPECT_EQ(e.errorNumber(), ENOENT);
    EXPECT_STREQ(e.what(),
                 "Brisklog: cannot open trace file \"/nonexistent-brisklog-dir/trace.log\": No such file or directory");
  }
  EXPECT_EQ(Brisklog::outputFile(), file.path());
  Brisklog::Handle h("BrisklogTest.Stays");
  h.levelsIs(1);
  BRISKLOG_TRACE(h, 0, "still here");
  EXPECT_THAT(file.contents(), HasSubstr("BrisklogTest.Stays/0 BrisklogTest.cpp:"));
  EXPECT_THAT(file.contents(), HasSubstr(": still here\n"));
}

TEST_F(BrisklogTest, EmptyOutputFileMeansStderr) {
  TempFile file;
  Brisklog::outputFileIs(file.path());
  Brisklog::outputFileIs(nullptr);
  EXPECT_EQ(Brisklog::outputFile(), "");
  Brisklog::Handle h("BrisklogTest.Stderr");
  h.levelsIs(1);
  testing::internal::CaptureStderr();
  BRISKLOG_TRACE(h, 0, "to stderr");
  std::string const err = testing::internal::GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr(" BrisklogTest.Stderr/0 BrisklogTest.cpp:"));
  EXPECT_THAT(err, HasSubstr(" TestBody: to stderr\n"));
  EXPECT_EQ(file.contents(), "");
}

TEST_F(BrisklogTest, InstalledSinkTakesLinesUntilTheDefaultIsRestored) {
  TempFile file;
  Brisklog::outputFileIs(file.path());
  Brisklog::Handle h("BrisklogTest.Sink");
  h.levelsIs(1);
  RecordingSink sink;
  Brisklog::sinkIs(&sink);
  EXPECT_EQ(Brisklog::sink(), &sink);
  BRISKLOG_TRACE(h, 0, "to the sink");
  Brisklog::sinkIs(nullptr);
  EXPECT_EQ(Brisklog::sink(), nullptr);
  BRISKLOG_TRACE(h, 0, "to the file");
  EXPECT_THAT(sink.texts, ElementsAre("to the sink"));
  EXPECT_THAT(file.contents(), HasSubstr("TestBody: to the file\n"));
  EXPECT_THAT(file.contents(), Not(HasSubstr("to the sink")));
}
