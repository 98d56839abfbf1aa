// Pointers, texts, entities, the type registry, errors and assertions.
#include <gtest/gtest.h>

#include <sstream>

#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/LibraryTypes.h"
#include "tests/support/TestEntities.h"

using TestSupport::Widget;
using Vorn::Ptr;
using Vorn::String;

namespace {

struct Counted : Vorn::PtrInterface {
  explicit Counted(int * deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int * deaths_;
};

TEST(Ptr, CountsReferencesAndDestroysWithTheLast) {
  int deaths = 0;
  Ptr<Counted> a = new Counted(&deaths);
  EXPECT_EQ(a->references(), 1u);
  {
    Ptr<Counted const> b = a;
    Ptr<Counted> c = a;
    EXPECT_EQ(a->references(), 3u);
    Ptr<Counted> moved = std::move(c);
    EXPECT_EQ(a->references(), 3u);
    EXPECT_FALSE(c);
  }
  EXPECT_EQ(a->references(), 1u);
  a = a;  // self-assignment keeps the object
  EXPECT_EQ(deaths, 0);
  a = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(Ptr, FlagBitsDoNotCount) {
  for (bool threadSafe : {false, true}) {
    Vorn::threadSafePointers = threadSafe;
    int deaths = 0;
    Ptr<Counted> a = new Counted(&deaths);
    a->vornMarkedForDeletionIs(true);
    EXPECT_EQ(a->references(), 1u);
    EXPECT_TRUE(a->vornMarkedForDeletion());
    Ptr<Counted> b = a;
    EXPECT_EQ(a->references(), 2u);
    b = nullptr;
    EXPECT_EQ(deaths, 0);  // the flag bit never made the count look larger or smaller
    a->vornMarkedForDeletionIs(false);
    EXPECT_FALSE(a->vornMarkedForDeletion());
    a = nullptr;
    EXPECT_EQ(deaths, 1);
  }
  Vorn::threadSafePointers = false;
  EXPECT_EQ(Vorn::PtrInterface::countMask, 0x5fffffffu);
  EXPECT_EQ(Vorn::PtrInterface::notificationActiveBit, 1u << 29);
  EXPECT_EQ(Vorn::PtrInterface::markedForDeletionBit, 1u << 31);
}

TEST(Ptr, NotificationActiveIsAFlagOfTheReactorsWord) {
  struct N : Widget::NotifieeConst {};
  Ptr<N> n = new N;
  EXPECT_TRUE(n->hasNotificationActive());
  EXPECT_EQ(n->references(), 1u);
  n->hasNotificationActiveIs(false);
  EXPECT_FALSE(n->hasNotificationActive());
  EXPECT_EQ(n->references(), 1u);
}

TEST(String, SharedImmutableText) {
  String empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_STREQ(empty.charPtr(), "");
  EXPECT_EQ(String(""), empty);
  EXPECT_TRUE(String("").empty());  // the empty text holds no data whichever way it is made

  String a("et1/1");
  String copy = a;
  EXPECT_EQ(copy.charPtr(), a.charPtr());  // shared, not copied
  EXPECT_EQ(a, "et1/1");
  EXPECT_EQ(a.hash(), String(std::string("et1/1")).hash());
  EXPECT_NE(a.hash(), String("et1/2").hash());
  EXPECT_LT(String("a"), String("b"));

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
  EXPECT_EQ(String("ab\0cd", 5).size(), 5u);

  std::ostringstream os;
  os << a << "|" << empty << "|";
  EXPECT_EQ(os.str(), "et1/1||");
}

TEST(Entity, ParentIsNotOwnedAndClearsWhenTheParentDies) {
  auto parent = Widget::widgetNew("root");
  auto child = Widget::widgetNew("child");
  child->parentIs(parent);
  EXPECT_EQ(child->parent(), parent);
  EXPECT_EQ(parent->references(), 1u);
  parent = nullptr;
  EXPECT_FALSE(child->parent());

  auto p2 = Widget::widgetNew("p2");
  {
    auto shortLived = Widget::widgetNew("c2");
    shortLived->parentIs(p2);
  }
  auto c3 = Widget::widgetNew("c3");
  c3->parentIs(p2);
  c3->parentIs(nullptr);
  EXPECT_FALSE(c3->parent());
}

TEST(TypeRegistry, HoldsTheLibrarysTypesInOrder) {
  auto const & types = Intfsm::typeRegistry().types();
  ASSERT_EQ(types.size(), 26u);
  EXPECT_EQ(types.front().name(), "Interface::NetNsIntfStatusIndexDir");
  EXPECT_EQ(types[8].name(), "Interface::EthDevPamBundleFdSm");
  EXPECT_EQ(types[20].name(), "Interface::SimpleTxRxPktManager");
  EXPECT_EQ(types.back().name(), "KernelOperState::Root");
  EXPECT_NE(Intfsm::typeRegistry().type("KernelOperState::IntfStatusDir"), nullptr);
  EXPECT_EQ(Intfsm::typeRegistry().type("KernelOperState::Nope"), nullptr);
  EXPECT_FALSE(Intfsm::typeRegistry().newEntity("KernelOperState::Nope", "x"));
}

TEST(TypeRegistryDeathTest, RegisteringAnUnknownTypeIsAProgramError) {
  EXPECT_DEATH(Intfsm::typeRegistry().typeIs("Nowhere::Thing", nullptr, {}), "assertion \"record != nullptr\" failed");
}

TEST(Exception, MutatorTexts) {
  EXPECT_EQ(Vorn::nullParameterText("intfStatus", "KernelOperState::IntfStatusDir"),
            "null _intfStatus parameter to mutator for KernelOperState::IntfStatusDir::intfStatus not allowed\"");
  EXPECT_EQ(Vorn::reinstantiationText("_kniStatus", "a", "b"),
            "Reinstantiating the pointer interface where constructor parameter attribute _kniStatus has a different "
            "value of a than the current value of b not allowed");
  Vorn::ErrnoException e(11, "");
  EXPECT_EQ(e.errorNumber(), 11);
  EXPECT_STREQ(e.what(), "");
  try {
    throw Vorn::RangeException("NamespaceName::bytes > 150 not allowed");
  } catch (Vorn::Exception const & ex) {  // range errors are framework exceptions
    EXPECT_STREQ(ex.what(), "NamespaceName::bytes > 150 not allowed");
  }
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

}  // namespace
