#include "intfsm/foundation/vorn/String.h"

#include <gtest/gtest.h>

#include <sstream>

using Vorn::String;

namespace {

TEST(String, SharedImmutableTextAndTheEmptyOneHoldsNoData) {
  String const empty;
  EXPECT_STREQ(empty.charPtr(), "");
  EXPECT_EQ(String(""), empty);
  EXPECT_TRUE(String("").empty());
  String const a("et1/1");
  String copy;
  copy = a;
  EXPECT_EQ(copy.charPtr(), a.charPtr());  // shared, not copied
  EXPECT_EQ(a.hash(), String(std::string("et1/1")).hash());
  EXPECT_NE(a.hash(), String("et1/2").hash());
  EXPECT_LT(String("a"), String("b"));
  EXPECT_EQ(String("ab\0cd", 5).size(), 5u);
}

TEST(String, JoinSliceSearchAndPrint) {
  String const a("et1/1");
  String b = a + "-x";
  b += String("y");
  EXPECT_EQ(b, "et1/1-xy");
  EXPECT_EQ(a, "et1/1");
  EXPECT_EQ(a.substr(4), "1");
  EXPECT_EQ(a.substr(0, 3), "et1");
  EXPECT_TRUE(a.substr(9).empty());
  EXPECT_EQ(a.pos("/"), 3u);
  EXPECT_EQ(a.pos("zz"), String::npos);
  EXPECT_EQ(a.posOf("/1"), 2u);
  std::ostringstream os;
  os << a << "|" << String() << "|";
  EXPECT_EQ(os.str(), "et1/1||");
}

}  // namespace
