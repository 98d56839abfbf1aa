// Entities' parent links.
#include "intfsm/foundation/vorn/Entity.h"

#include <gtest/gtest.h>

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

}  // namespace
