// Entities' parent links and the library's type registry.
#include "intfsm/foundation/vorn/Entity.h"

#include <gtest/gtest.h>

#include "intfsm/LibraryTypes.h"
#include "tests/support/TestEntities.h"

using IntfsmTest::Widget;

namespace {

TEST(Entity, ParentIsNotOwnedAndClearsWhenTheParentDies) {
  auto parent = Widget::widgetNew("root");
  auto child = Widget::widgetNew("child");
  child->parentIs(parent);
  EXPECT_EQ(child->parent(), parent);
  EXPECT_EQ(parent->references(), 1u);
  {
    auto shortLived = Widget::widgetNew("c2");  // unlinks itself from the parent when it dies
    shortLived->parentIs(parent);
  }
  parent = nullptr;
  EXPECT_FALSE(child->parent());
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
