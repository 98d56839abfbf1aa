// Entities' parent links and the library's type registry.
#include "intfsm/foundation/vorn/Entity.h"

#include <gtest/gtest.h>

#include <vector>

#include "intfsm/LibraryTypes.h"
#include "tests/support/TestEntities.h"

using IntfsmTest::Widget;

namespace {

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

TEST(TypeRegistry, HoldsTheLibrarysTypesInOrder) {
  auto const & types = Intfsm::typeRegistry().types();
  ASSERT_EQ(types.size(), 26u);
  EXPECT_EQ(types.front().name(), "Interface::NetNsIntfStatusIndexDir");
  EXPECT_EQ(types[8].name(), "Interface::EthDevPamBundleFdSm");
  EXPECT_EQ(types[20].name(), "Interface::SimpleTxRxPktManager");
  EXPECT_EQ(types.back().name(), "KernelOperState::Root");
  EXPECT_NE(Intfsm::typeRegistry().type("KernelOperState::IntfStatusDir"), nullptr);
  EXPECT_FALSE(Intfsm::typeRegistry().newEntity("KernelOperState::Nope", "x"));
}

TEST(TypeRegistryDeathTest, RegisteringAnUnknownTypeIsAProgramError) {
  EXPECT_DEATH(Intfsm::typeRegistry().typeIs("Nowhere::Thing", nullptr, {}), "assertion \"record != nullptr\" failed");
}

}  // namespace
