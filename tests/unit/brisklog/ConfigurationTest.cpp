#include "intfsm/foundation/brisklog/Configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/unit/brisklog/BrisklogFixture.h"

using ::testing::HasSubstr;

namespace {

Brisklog::Configuration modules(std::initializer_list<std::pair<char const *, uint16_t>> entries,
                                std::optional<uint16_t> every = std::nullopt) {
  Brisklog::Configuration c;
  for (auto const & [name, mask] : entries) c.modules.emplace(name, mask);
  c.everyModule = every;
  return c;
}

std::string parseError(char const * text) {
  try {
    Brisklog::parseConfiguration(text);
  } catch (Vorn::RangeException const & e) {
    return e.what();
  }
  return "(parsed)";
}

}  // namespace

// ---- Parsing

TEST(BrisklogConfigurationParse, ModulesWithRangesSingleLevelsAndAllLevels) {
  EXPECT_EQ(Brisklog::parseConfiguration("EthDevPamManagerTypes/0-8,KernelOperState/5"),
            modules({{"EthDevPamManagerTypes", 0x1ff}, {"KernelOperState", 0x20}}));
  EXPECT_EQ(Brisklog::parseConfiguration("IntfByDevice"), modules({{"IntfByDevice", 0x3ff}}));
  EXPECT_EQ(Brisklog::parseConfiguration("A/0,B/9,C/0-9"), modules({{"A", 0x1}, {"B", 0x200}, {"C", 0x3ff}}));
}

TEST(BrisklogConfigurationParse, StarStandsForEveryModule) {
  EXPECT_EQ(Brisklog::parseConfiguration("*/0-3"), modules({}, 0xf));
  EXPECT_EQ(Brisklog::parseConfiguration("*"), modules({}, 0x3ff));
  EXPECT_EQ(Brisklog::parseConfiguration("*/0,KernelOperState/5"), modules({{"KernelOperState", 0x20}}, 0x1));
}

TEST(BrisklogConfigurationParse, ItemsOfOneModuleAddUp) {
  EXPECT_EQ(Brisklog::parseConfiguration("A/1,A/5,*/2,*/3"), modules({{"A", 0x22}}, 0xc));
}

TEST(BrisklogConfigurationParse, BlanksAroundItemsAreAllowedAndBlankTextIsEmpty) {
  EXPECT_EQ(Brisklog::parseConfiguration(" A / 2 - 3 ,\tB "), modules({{"A", 0xc}, {"B", 0x3ff}}));
  EXPECT_EQ(Brisklog::parseConfiguration(""), modules({}));
  EXPECT_EQ(Brisklog::parseConfiguration("  "), modules({}));
  EXPECT_EQ(Brisklog::parseConfiguration("foundation.vorn/1,Ns:Mod-2_x/1"),
            modules({{"foundation.vorn", 0x2}, {"Ns:Mod-2_x", 0x2}}));
}

TEST(BrisklogConfigurationParse, MalformedTextsSayWhatIsWrong) {
  std::string const prefix = "Brisklog: malformed trace configuration ";
  std::vector<std::pair<char const *, std::string>> const cases = {
      {"A/12", "\"A/12\": level \"12\" in \"A/12\" is not one of 0-9"},
      {"A/x", "\"A/x\": level \"x\" in \"A/x\" is not one of 0-9"},
      {"A/1-", "\"A/1-\": level \"\" in \"A/1-\" is not one of 0-9"},
      {"A/-1", "\"A/-1\": level \"\" in \"A/-1\" is not one of 0-9"},
      {"A/1/2", "\"A/1/2\": level \"1/2\" in \"A/1/2\" is not one of 0-9"},
      {"A/1-2-3", "\"A/1-2-3\": level \"2-3\" in \"A/1-2-3\" is not one of 0-9"},
      {"A/", "\"A/\": \"A/\" names no level"},
      {"A/5-3", "\"A/5-3\": range \"5-3\" in \"A/5-3\" runs backwards"},
      {"/3", "\"/3\": \"/3\" names no module"},
      {"A,,B", "\"A,,B\": item 2 is empty"},
      {"A,", "\"A,\": item 2 is empty"},
      {",A", "\",A\": item 1 is empty"},
      {"Kernel Oper/3", "\"Kernel Oper/3\": \"Kernel Oper\" is not a module name (letters, digits and _ . : - only)"},
      {"**", "\"**\": \"**\" is not a module name (letters, digits and _ . : - only)"},
      {"A=3", "\"A=3\": \"A=3\" is not a module name (letters, digits and _ . : - only)"},
  };
  for (auto const & [text, reason] : cases) EXPECT_EQ(parseError(text), prefix + reason) << text;
}

// ---- Applying

TEST_F(BrisklogTest, ConfigureWithoutStarLeavesModulesNotNamedAlone) {
  Brisklog::Handle a("BrisklogTest.CfgA");
  Brisklog::Handle b("BrisklogTest.CfgB", true);
  Brisklog::Handle c("BrisklogTest.CfgC");
  Brisklog::levelsIs("BrisklogTest.CfgC", 0x3);
  Brisklog::configure("BrisklogTest.CfgA/2-3");
  EXPECT_EQ(a.levels(), 0xc);
  EXPECT_EQ(b.levels(), 0x1);
  EXPECT_EQ(c.levels(), 0x3);
  Brisklog::configure("BrisklogTest.CfgA/9");  // replaces, does not add to, what was there
  EXPECT_EQ(a.levels(), 0x200);
}

TEST_F(BrisklogTest, ConfigureWithStarSetsEveryModuleAndForgetsEarlierRequests) {
  Brisklog::Handle a("BrisklogTest.StarA");
  Brisklog::Handle b("BrisklogTest.StarB", true);
  Brisklog::Handle named("BrisklogTest.StarNamed");
  Brisklog::levelsIs("BrisklogTest.StarA", 0x300);
  Brisklog::configure("*/0-1,BrisklogTest.StarNamed/5");
  EXPECT_EQ(a.levels(), 0x3);
  EXPECT_EQ(b.levels(), 0x3);
  EXPECT_EQ(named.levels(), 0x23);
  Brisklog::Handle later("BrisklogTest.StarLater", true);
  EXPECT_EQ(later.levels(), 0x3);
  // A module asked for afterwards gets exactly what is asked.
  Brisklog::levelsIs("BrisklogTest.StarA", 0x100);
  EXPECT_EQ(a.levels(), 0x100);
  Brisklog::levelsIs("*", 0);
  EXPECT_EQ(a.levels(), 0);
  EXPECT_EQ(named.levels(), 0);
}

TEST_F(BrisklogTest, MalformedConfigureChangesNothing) {
  Brisklog::Handle a("BrisklogTest.BadA");
  Brisklog::Handle b("BrisklogTest.BadB");
  Brisklog::levelsIs("BrisklogTest.BadA", 0x1);
  EXPECT_THROW(Brisklog::configure("*/9,BrisklogTest.BadA/3,BrisklogTest.BadB/99"), Vorn::RangeException);
  EXPECT_THROW(Brisklog::configure("BrisklogTest.BadB/4,"), Vorn::RangeException);
  EXPECT_EQ(a.levels(), 0x1);
  EXPECT_EQ(b.levels(), 0);
  Brisklog::Handle later("BrisklogTest.BadLater");
  EXPECT_EQ(later.levels(), 0);  // the "*" of the rejected text did not stick
  Brisklog::Configuration tooHigh = modules({{"BrisklogTest.BadA", 0x800}});
  EXPECT_THROW(Brisklog::configure(tooHigh), Vorn::RangeException);
  EXPECT_EQ(a.levels(), 0x1);
}

// ---- The environment

TEST_F(BrisklogTest, EnvironmentAppliesLevelsAndOutputFile) {
  TempFile file;
  Brisklog::Handle h("BrisklogTest.Env");
  EXPECT_TRUE(Brisklog::environmentIs("BrisklogTest.Env/4-5", file.path()));
  EXPECT_EQ(h.levels(), 0x30);
  EXPECT_EQ(Brisklog::outputFile(), file.path());
  BRISKLOG_TRACE(h, 4, "from the environment");
  EXPECT_THAT(file.contents(), HasSubstr(" BrisklogTest.Env/4 ConfigurationTest.cpp:"));
  EXPECT_TRUE(Brisklog::environmentIs(nullptr, ""));
  EXPECT_EQ(h.levels(), 0x30);
}

TEST_F(BrisklogTest, BadEnvironmentValueIsReportedOnStderrAndIgnored) {
  TempFile file;
  Brisklog::Handle h("BrisklogTest.BadEnv");
  Brisklog::levelsIs("BrisklogTest.BadEnv", 0x1);

  testing::internal::CaptureStderr();
  EXPECT_FALSE(Brisklog::environmentIs("BrisklogTest.BadEnv/3,Other/10", file.path()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Brisklog: malformed trace configuration \"BrisklogTest.BadEnv/3,Other/10\": level \"10\" in \"Other/10\" "
            "is not one of 0-9 (BRISKLOG ignored)\n");
  EXPECT_EQ(h.levels(), 0x1);
  EXPECT_EQ(Brisklog::outputFile(), file.path());  // the good value still applies

  testing::internal::CaptureStderr();
  EXPECT_FALSE(Brisklog::environmentIs("BrisklogTest.BadEnv/3", "/nonexistent-brisklog-dir/x"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Brisklog: cannot open trace file \"/nonexistent-brisklog-dir/x\": No such file or directory "
            "(BRISKLOG_FILE ignored)\n");
  EXPECT_EQ(h.levels(), 0x8);
  EXPECT_EQ(Brisklog::outputFile(), file.path());
}
