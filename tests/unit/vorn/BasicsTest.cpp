// Vorn's basics: shared strings, counted pointers, parent links, the library's type registry, the
// assertion facility and fperror.
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <vector>

#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Fperror.h"
#include "intfsm/foundation/vorn/Ptr.h"
#include "intfsm/foundation/vorn/String.h"
#include "tests/support/TestEntities.h"

using IntfsmTest::Widget;
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

struct Counted : Vorn::PtrInterface {
  explicit Counted(int * deaths) : deaths(deaths) {}
  ~Counted() override { ++*deaths; }
  int * deaths;
};

TEST(Ptr, TheLastReferenceDestroysAndTheFlagBitsNeverCount) {
  for (bool threadSafe : {false, true}) {
    SCOPED_TRACE(threadSafe);
    Vorn::threadSafePointers = threadSafe;
    int deaths = 0;
    Vorn::Ptr<Counted> a = new Counted(&deaths);
    {
      Vorn::Ptr<Counted const> b = a;
      Vorn::Ptr<Counted> c = a;
      Vorn::Ptr<Counted> moved = std::move(c);
      EXPECT_FALSE(c);
      EXPECT_EQ(a->references(), 3u);
    }
    a->vornMarkedForDeletionIs(true);
    Vorn::Ptr<Counted> d = a;
    EXPECT_EQ(a->references(), 2u);
    EXPECT_TRUE(a->vornMarkedForDeletion());
    d = nullptr;
    a = a;  // self-assignment keeps the object
    EXPECT_EQ(deaths, 0);
    a->vornMarkedForDeletionIs(false);
    EXPECT_FALSE(a->vornMarkedForDeletion());
    a = nullptr;
    EXPECT_EQ(deaths, 1);
  }
  Vorn::threadSafePointers = false;
}

TEST(Entity, ParentIsNotOwnedAndClearsWhenTheParentDies) {
  auto parent = Widget::widgetNew("root");
  auto other = Widget::widgetNew("other");
  std::vector<Vorn::Ptr<Widget>> c;
  for (char const * name : {"c0", "c1", "c2", "c3", "c4"}) {
    c.push_back(Widget::widgetNew(name));
    c.back()->parentIs(parent);
  }
  EXPECT_EQ(c[2]->parent(), parent);
  EXPECT_EQ(parent->references(), 1u);
  // Children leave from anywhere: dying (they unlink themselves) or moving to another parent, also
  // one that took a leaver's place.
  c[1] = nullptr;
  c[4]->parentIs(other);
  c[0] = nullptr;
  parent = nullptr;
  EXPECT_FALSE(c[2]->parent());
  EXPECT_FALSE(c[3]->parent());
  EXPECT_EQ(c[4]->parent(), other);
}

TEST(AssertDeathTest, ReportsModuleExpressionAndPlace) {
  int sd = -1;
  EXPECT_DEATH(VORN_ASSERT(sd >= 0), "assertion \"sd >= 0\" failed at BasicsTest.cpp:[0-9]+ in TestBody");
  char buffer[64];
  EXPECT_STREQ(Vorn::moduleOfPath("/src/intfsm/intfsm/KernelOperState/Root.cpp", buffer, sizeof buffer),
               "KernelOperState");
  EXPECT_STREQ(Vorn::moduleOfPath("/src/intfsm/intfsm/foundation/vorn/Ptr.h", buffer, sizeof buffer),
               "foundation/vorn");
}

TEST(FperrorDeathTest, PrintsTheSystemErrorAndExitsWithStatusOne) {
  EXPECT_EXIT((errno = EMFILE, fperror("socket")), testing::ExitedWithCode(1), "^socket: Too many open files\n$");
}

}  // namespace
