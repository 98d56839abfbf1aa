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
  EXPECT_EQ(std::tuple(std::string(empty.charPtr()), String(""), String("").empty()), std::tuple("", empty, true));
  String const a("et1/1");
  String copy;
  copy = a;
  EXPECT_EQ(copy.charPtr(), a.charPtr());  // shared, not copied
  EXPECT_EQ(std::tuple(a.hash(), a.hash() != String("et1/2").hash(), String("a") < String("b"), String("ab\0cd", 5).size()),
            std::tuple(String(std::string("et1/1")).hash(), true, true, 5u));
}

TEST(String, JoinSliceSearchAndPrint) {
  String const a("et1/1");
  String b = a + "-x";
  b += String("y");
  EXPECT_EQ(std::tuple(b, a, a.substr(4), a.substr(0, 3), a.substr(9).empty()), std::tuple("et1/1-xy", "et1/1", "1", "et1", true));
  EXPECT_EQ(std::tuple(a.pos("/"), a.pos("zz"), a.posOf("/1")), std::tuple(3u, String::npos, 2u));
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
      EXPECT_EQ(std::tuple(bool(c), a->references()), std::tuple(false, 3u));
    }
    a->vornMarkedForDeletionIs(true);
    Vorn::Ptr<Counted> d = a;
    EXPECT_EQ(std::tuple(a->references(), a->vornMarkedForDeletion()), std::tuple(2u, true));  // the flag bit is no count
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
  EXPECT_EQ(std::tuple(bool(c[2]->parent()), bool(c[3]->parent()), c[4]->parent()), std::tuple(false, false, other));
}

TEST(AssertDeathTest, ReportsModuleExpressionAndPlace) {
  int sd = -1;
  EXPECT_DEATH(VORN_ASSERT(sd >= 0), "assertion \"sd >= 0\" failed at BasicsTest.cpp:[0-9]+ in TestBody");
  char buffer[64];
  for (auto [path, module] : {std::pair("/src/intfsm/intfsm/KernelOperState/Root.cpp", "KernelOperState"),
                              {"/src/intfsm/intfsm/foundation/vorn/Ptr.h", "foundation/vorn"}}) {
    EXPECT_STREQ(Vorn::moduleOfPath(path, buffer, sizeof buffer), module);
  }
}

TEST(FperrorDeathTest, PrintsTheSystemErrorAndExitsWithStatusOne) {
  EXPECT_EXIT((errno = EMFILE, fperror("socket")), testing::ExitedWithCode(1), "^socket: Too many open files\n$");
}

}  // namespace
