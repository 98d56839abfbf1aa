// A notifiee whose handler throws: the exception reaches the mutator's caller, the rest of that
// dispatch is skipped, and the notifier's list keeps working (removed entries are still compacted).
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/TestEntities.h"

namespace {

using IntfsmTest::Widget;
using IntfsmTest::WidgetRecorder;

// Unbinds `victim` during its call, then throws while `throwing` is set.
struct Thrower : Widget::NotifieeConst {
  void onLevel() override {
    if (victim) victim->notifierIs(nullptr);
    if (throwing) throw std::runtime_error("handler failed");
  }
  Vorn::Ptr<WidgetRecorder> victim;
  bool throwing = true;
};

TEST(NotifierFault, AThrowingHandlerEndsItsDispatchAndTheListStillCompacts) {
  auto widget = Widget::widgetNew("w");
  Vorn::Ptr<Thrower> thrower = new Thrower;
  thrower->notifierIs(widget);  // called first
  Vorn::Ptr<WidgetRecorder> removed = new WidgetRecorder(widget);
  Vorn::Ptr<WidgetRecorder> later = new WidgetRecorder(widget);
  thrower->victim = removed;
  later->log.clear();  // the whole-collection call of binding
  ASSERT_EQ(widget->notifieeSlots(), 3u);

  EXPECT_THROW(widget->levelIs(1), std::runtime_error);
  EXPECT_EQ(widget->level(), 1);           // stored before the notification
  EXPECT_TRUE(later->log.empty());         // not called after the thrower
  EXPECT_EQ(widget->notifieeSlots(), 2u);  // the entry removed meanwhile was compacted

  // The next dispatch runs normally and compacts what its handlers remove.
  thrower->throwing = false;
  thrower->victim = later;
  widget->levelIs(2);
  EXPECT_TRUE(later->log.empty());
  EXPECT_EQ(widget->notifieeSlots(), 1u);
  EXPECT_EQ(widget->notifiees(), 1u);

  // And a notifiee bound afterwards is called.
  thrower->victim = nullptr;
  Vorn::Ptr<WidgetRecorder> fresh = new WidgetRecorder(widget);
  widget->levelIs(3);
  EXPECT_EQ(fresh->log, (std::vector<std::string>{"items*", "level=3"}));
}

}  // namespace
