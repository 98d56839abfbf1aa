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

TEST(BrisklogConfigurationParse, ModulesLevelsRangesStarAndBlanks) {
  std::vector<std::pair<char const *, Brisklog::Configuration>> const cases = {
      {"EthDevPamManagerTypes/0-8,KernelOperState/5",
       modules({{"EthDevPamManagerTypes", 0x1ff}, {"KernelOperState", 0x20}})},
      {"IntfByDevice", modules({{"IntfByDevice", 0x3ff}})},
      {"A/0,B/9,C/0-9", modules({{"A", 0x1}, {"B", 0x200}, {"C", 0x3ff}})},
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
  std::string const prefix = "Brisklog: malformed trace configuration ";
  std::vector<std::pair<char const *, std::string>> const cases = {
      {"A/12", "\"A/12\": level \"12\" in \"A/12\" is not one of 0-9"},
      {"A/1-2-3", "\"A/1-2-3\": level \"2-3\" in \"A/1-2-3\" is not one of 0-9"},
      {"A/", "\"A/\": \"A/\" names no level"},
      {"A/5-3", "\"A/5-3\": range \"5-3\" in \"A/5-3\" runs backwards"},
      {"/3", "\"/3\": \"/3\" names no module"},
      {"A,,B", "\"A,,B\": item 2 is empty"},
      {"Kernel Oper/3", "\"Kernel Oper/3\": \"Kernel Oper\" is not a module name (letters, digits and _ . : - only)"},
  };
  for (auto const & [text, reason] : cases) EXPECT_EQ(parseError(text), prefix + reason) << text;
}

// ---- Applying

// Without "*", the modules named get exactly their levels and the others are left alone; with it,
// every module gets its levels and earlier requests are forgotten.
TEST_F(BrisklogTest, ConfigureReplacesTheNamedModulesOrWithStarAllOfThem) {
  Brisklog::Handle a("BrisklogTest.CfgA");
  Brisklog::Handle b("BrisklogTest.CfgB", true);
  Brisklog::Handle c("BrisklogTest.CfgC");
  Brisklog::levelsIs("BrisklogTest.CfgC", 0x3);
  Brisklog::configure("BrisklogTest.CfgA/2-3");
  Brisklog::configure("BrisklogTest.CfgA/9");  // replaces, does not add to, what was there
  EXPECT_EQ(a.levels(), 0x200);
  EXPECT_EQ(b.levels(), 0x1);
  EXPECT_EQ(c.levels(), 0x3);

  Brisklog::configure("*/0-1,BrisklogTest.CfgC/5");
  EXPECT_EQ(a.levels(), 0x3);
  EXPECT_EQ(b.levels(), 0x3);
  EXPECT_EQ(c.levels(), 0x23);
  Brisklog::Handle later("BrisklogTest.CfgLater", true);
  EXPECT_EQ(later.levels(), 0x3);
  Brisklog::levelsIs("BrisklogTest.CfgA", 0x100);  // asked for afterwards: exactly that
  EXPECT_EQ(a.levels(), 0x100);
  Brisklog::levelsIs("*", 0);
  EXPECT_EQ(a.levels() | c.levels(), 0);
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

// BRISKLOG and BRISKLOG_FILE: each applied when good, reported on stderr and ignored when bad.
TEST_F(BrisklogTest, EnvironmentAppliesLevelsAndOutputFileAndReportsBadValues) {
  TempFile file;
  Brisklog::Handle h("BrisklogTest.Env");
  EXPECT_TRUE(Brisklog::environmentIs("BrisklogTest.Env/4-5", file.path()));
  EXPECT_EQ(h.levels(), 0x30);
  BRISKLOG_TRACE(h, 4, "from the environment");
  EXPECT_THAT(file.contents(), HasSubstr(" BrisklogTest.Env/4 ConfigurationTest.cpp:"));
  EXPECT_TRUE(Brisklog::environmentIs(nullptr, ""));
  EXPECT_EQ(h.levels(), 0x30);

  TempFile other;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(Brisklog::environmentIs("BrisklogTest.Env/3,Other/10", other.path()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Brisklog: malformed trace configuration \"BrisklogTest.Env/3,Other/10\": level \"10\" in \"Other/10\" "
            "is not one of 0-9 (BRISKLOG ignored)\n");
  EXPECT_EQ(h.levels(), 0x30);
  EXPECT_EQ(Brisklog::outputFile(), other.path());  // the good value still applies
  testing::internal::CaptureStderr();
  EXPECT_FALSE(Brisklog::environmentIs("BrisklogTest.Env/3", "/nonexistent-brisklog-dir/x"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Brisklog: cannot open trace file \"/nonexistent-brisklog-dir/x\": No such file or directory "
            "(BRISKLOG_FILE ignored)\n");
  EXPECT_EQ(h.levels(), 0x8);
  EXPECT_EQ(Brisklog::outputFile(), other.path());
}
