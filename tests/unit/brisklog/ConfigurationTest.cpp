// The trace configuration text (BRISKLOG), and applying it.
#include "intfsm/foundation/brisklog/Configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/TempDir.h"
#include "tests/support/ThrownText.h"
#include "tests/support/TraceCapture.h"

using ::testing::HasSubstr;

namespace {

Brisklog::Configuration modules(std::initializer_list<std::pair<char const *, uint16_t>> entries,
                                std::optional<uint16_t> every = std::nullopt) {
  Brisklog::Configuration c;
  for (auto const & [name, mask] : entries) c.modules.emplace(name, mask);
  c.everyModule = every;
  return c;
}

TEST(BrisklogConfigurationParse, ModulesLevelsRangesStarAndBlanks) {
  std::vector<std::pair<char const *, Brisklog::Configuration>> const cases = {
      {"EthDevPamManagerTypes/0-8,KernelOperState/5",
       modules({{"EthDevPamManagerTypes", 0x1ff}, {"KernelOperState", 0x20}})},
      {"IntfByDevice", modules({{"IntfByDevice", 0x3ff}})},
      {"A/0,B/9,C/0-9,D/3-3", modules({{"A", 0x1}, {"B", 0x200}, {"C", 0x3ff}, {"D", 0x8}})},
      {"*/0-3", modules({}, 0xf)},
      {"*", modules({}, 0x3ff)},
      {"A/1,A/5,*/2,*/3", modules({{"A", 0x22}}, 0xc)},  // items of one module add up
      {" A / 2 - 3 ,\tB ", modules({{"A", 0xc}, {"B", 0x3ff}})},
      {"  ", modules({})},
      {"foundation.vorn/1,Ns:Mod-2_x/1", modules({{"foundation.vorn", 0x2}, {"Ns:Mod-2_x", 0x2}})},
  };
  for (auto const & [text, parsed] : cases) EXPECT_EQ(Brisklog::parseConfiguration(text), parsed) << text;
}

TEST(BrisklogConfigurationParse, MalformedTextsSayWhatIsWrong) {
  std::vector<std::pair<char const *, std::string>> const cases = {
      {"A/12", "\"A/12\": level \"12\" in \"A/12\" is not one of 0-9"},
      {"A/1-2-3", "\"A/1-2-3\": level \"2-3\" in \"A/1-2-3\" is not one of 0-9"},
      {"A/", "\"A/\": \"A/\" names no level"},
      {"A/5-3", "\"A/5-3\": range \"5-3\" in \"A/5-3\" runs backwards"},
      {"/3", "\"/3\": \"/3\" names no module"},
      {"A,,B", "\"A,,B\": item 2 is empty"},
      {"Kernel Oper/3", "\"Kernel Oper/3\": \"Kernel Oper\" is not a module name (letters, digits and _ . : - only)"},
  };
  for (auto const & [text, reason] : cases) {
    EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { Brisklog::parseConfiguration(text); }),
              "Brisklog: malformed trace configuration " + reason);
  }
}

class BrisklogConfigure : public testing::Test {
  IntfsmTest::ScopedTraceSettings saved_{IntfsmTest::ScopedTraceSettings::fromNothing};
};

// Without "*", the modules named get exactly their levels and the others are left alone; with it,
// every module gets its levels and earlier requests are forgotten. A malformed text changes nothing.
TEST_F(BrisklogConfigure, ReplacesTheNamedModulesOrWithStarAllOfThemAndMalformedChangesNothing) {
  Brisklog::Handle a("BrisklogTest.CfgA"), b("BrisklogTest.CfgB", true), c("BrisklogTest.CfgC");
  Brisklog::levelsIs("BrisklogTest.CfgC", 0x3);
  Brisklog::configure("BrisklogTest.CfgA/2-3");
  Brisklog::configure("BrisklogTest.CfgA/9");  // replaces, does not add to, what was there
  EXPECT_THROW(Brisklog::configure("*/9,BrisklogTest.CfgB/3,BrisklogTest.CfgC/99"), Vorn::RangeException);
  EXPECT_THROW(Brisklog::configure(modules({{"BrisklogTest.CfgB", 0x800}})), Vorn::RangeException);
  // The "*" of the rejected text did not stick for a handle made later.
  EXPECT_EQ(std::tuple(a.levels(), b.levels(), c.levels(), Brisklog::Handle("BrisklogTest.BadLater").levels()),
            std::tuple(0x200, 0x1, 0x3, 0));

  Brisklog::configure("*/0-1,BrisklogTest.CfgC/5");
  EXPECT_EQ(std::tuple(a.levels(), b.levels(), c.levels(), Brisklog::Handle("BrisklogTest.CfgLater", true).levels()),
            std::tuple(0x3, 0x3, 0x23, 0x3));
  Brisklog::levelsIs("BrisklogTest.CfgA", 0x100);  // asked for afterwards: exactly that
  EXPECT_EQ(a.levels(), 0x100);
  Brisklog::levelsIs("*", 0);
  EXPECT_EQ(a.levels() | c.levels(), 0);
}

// BRISKLOG and BRISKLOG_FILE: each applied when good, reported on stderr and ignored when bad.
TEST_F(BrisklogConfigure, EnvironmentAppliesLevelsAndOutputFileAndReportsBadValues) {
  IntfsmTest::TempDir tmp;
  std::string const file = tmp.path() + "/one", other = tmp.path() + "/other";
  Brisklog::Handle h("BrisklogTest.Env");
  EXPECT_TRUE(Brisklog::environmentIs("BrisklogTest.Env/4-5", file.c_str()));
  BRISKLOG_TRACE(h, 4, "from the environment");
  EXPECT_THAT(IntfsmTest::fileContents(file), HasSubstr(" BrisklogTest.Env/4 ConfigurationTest.cpp:"));
  EXPECT_TRUE(Brisklog::environmentIs(nullptr, ""));  // unset: nothing changes
  EXPECT_EQ(h.levels(), 0x30);

  testing::internal::CaptureStderr();
  EXPECT_FALSE(Brisklog::environmentIs("BrisklogTest.Env/3,Other/10", other.c_str()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Brisklog: malformed trace configuration \"BrisklogTest.Env/3,Other/10\": level \"10\" in \"Other/10\" "
            "is not one of 0-9 (BRISKLOG ignored)\n");
  EXPECT_EQ(std::tuple(h.levels(), Brisklog::outputFile()), std::tuple(0x30, other));  // the good value still applies
  testing::internal::CaptureStderr();
  EXPECT_FALSE(Brisklog::environmentIs("BrisklogTest.Env/3", "/nonexistent-brisklog-dir/x"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Brisklog: cannot open trace file \"/nonexistent-brisklog-dir/x\": No such file or directory "
            "(BRISKLOG_FILE ignored)\n");
  EXPECT_EQ(std::tuple(h.levels(), Brisklog::outputFile()), std::tuple(0x8, other));
}

}  // namespace
