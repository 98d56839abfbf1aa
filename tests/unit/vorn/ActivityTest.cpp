// Activities: deferred notifications run on a later pass, coalesced, within a budget, and never
// reach a notifiee that is gone or a zombie.
#include "intfsm/foundation/vorn/Activity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/System.h"
#include "tests/support/Pipe.h"
#include "tests/support/TestEntities.h"
#include "tests/support/ThrownText.h"

namespace {

using IntfsmTest::Widget;
using Vorn::Activity;
using Vorn::Ptr;
using ::testing::ElementsAre;

// Logs each call with the value it sees when it runs; `then` lets a test act from inside.
struct Watcher : Widget::NotifieeConst {
  Watcher(std::string n, std::vector<std::string> * l) : name(std::move(n)), log(l) {}
  void onLevel() override {
    log->push_back(name + " level " + std::to_string(notifier()->level()));
    if (then) then();
  }
  void onItem(Vorn::String const & k) override {
    log->push_back(name + " " + k.stdString() + "=" + std::to_string(notifier()->item(k)));
  }
  std::string name;
  std::vector<std::string> * log;
  std::function<void()> then;
};

class ActivityTest : public testing::Test {
 protected:
  Ptr<Watcher> watcher(std::string name, Ptr<Widget> const & w = nullptr, Activity * a = nullptr) {
    Ptr<Watcher> r = new Watcher(std::move(name), &log);
    r->notifierIs(w ? w : widget);
    r->activityIs(a ? a : act.ptr());
    return r;
  }
  Vorn::ActivityManager loop;
  Ptr<Widget> widget = Widget::widgetNew("widget");
  Ptr<Activity> act = loop.activityIs("work", 99);
  std::vector<std::string> log;
};

// Deferred calls are never nested in the mutator, and what one queues waits for a later pass.
TEST_F(ActivityTest, ACallRunsOnALaterPassNeverInsideTheMutatorOrItsOwnPass) {
  Ptr<Widget> downstream = Widget::widgetNew("downstream");
  Ptr<Watcher> sync = new Watcher("sync", &log);
  sync->notifierIs(widget);
  Ptr<Watcher> first = watcher("first");
  Ptr<Watcher> second = watcher("second", downstream);
  first->then = [&] { downstream->levelIs(widget->level() * 10); };
  widget->levelIs(2);
  EXPECT_THAT(log, ElementsAre("sync level 2"));
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("sync level 2", "first level 2"));
  for (bool ran : {true, false}) EXPECT_EQ(loop.runOnce(0), ran);
  EXPECT_THAT(log, ElementsAre("sync level 2", "first level 2", "second level 20"));
  EXPECT_EQ(act->callsRun(), 2u);
}

TEST_F(ActivityTest, CallsAreCoalescedPerNotifieeCallbackAndKey) {
  Ptr<Watcher> w = watcher("w"), other = watcher("other");
  widget->levelIs(1);
  widget->itemIs("a", 1);
  widget->levelIs(2);
  widget->itemIs("b", 5);
  widget->itemIs("a", 7);
  widget->levelIs(3);
  EXPECT_EQ(act->pendingCalls(), 6u);
  EXPECT_TRUE(loop.runOnce(0));
  // Queue order of the first of each; each sees the latest value.
  EXPECT_THAT(log, ElementsAre("w level 3", "other level 3", "w a=7", "other a=7", "w b=5", "other b=5"));
}

// Whether gone before the pass or during it, by another's call or its own, a notifiee that cannot
// take notifications is not called; moved to another activity, what waited on the first is dropped.
TEST_F(ActivityTest, ANotifieeThatIsGoneCannotTakeNotificationsOrMovedIsNotCalled) {
  Ptr<Activity> elsewhere = loop.activityIs("elsewhere", 99);
  Ptr<Watcher> first = watcher("first"), second = watcher("second"), third = watcher("third"),
               dropped = watcher("dropped"), zombie = watcher("zombie"), inactive = watcher("inactive"),
               unregistered = watcher("unregistered"), marked = watcher("marked"), moved = watcher("moved"),
               live = watcher("live");
  first->then = [&] {
    second = nullptr;
    third->vornZombieIs(true);
    first = nullptr;  // itself: its own item call goes too
  };
  widget->levelIs(1);
  widget->itemIs("a", 1);
  dropped = nullptr;
  EXPECT_EQ(act->pendingCalls(), 18u);
  zombie->vornZombieIs(true);
  inactive->hasNotificationActiveIs(false);
  unregistered->isRegisteredNotifieeIs(false);
  marked->vornMarkedForDeletionIs(true);
  moved->activityIs(elsewhere.ptr());
  EXPECT_EQ(act->pendingCalls(), 16u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("first level 1", "live level 1", "live a=1"));
  EXPECT_EQ(std::tuple(act->pendingCalls(), act->callsRun()), std::tuple(0u, 3u));
}

// Calls left over by the budget (zero: no bound) wait for the next pass without making the loop
// block, and descriptors are served between the slices.
TEST_F(ActivityTest, TheBudgetBoundsTheCallsPerPassWithoutBlockingTheLoopOrStarvingIo) {
  Ptr<Activity> small = loop.activityIs("small", 2);
  Ptr<Activity> unbounded = loop.activityIs("unbounded", 0);
  std::vector<Ptr<Watcher>> ws;
  for (int i = 0; i < 5; ++i) ws.push_back(watcher("w" + std::to_string(i), widget, small.ptr()));
  for (int i = 0; i < 150; ++i) ws.push_back(watcher("u", widget, unbounded.ptr()));
  IntfsmTest::Pipe pipe;
  Ptr<Vorn::FileDescriptor> fd = Vorn::fileDescriptorFactory("pipe", loop);
  fd->descriptorIs(pipe.r);
  pipe.put();
  widget->levelIs(1);
  double const start = Vorn::System::monotonicTime();
  EXPECT_TRUE(loop.runOnce(10.0));
  EXPECT_EQ(std::tuple(small->pendingCalls(), log.size()), std::tuple(3u, 152u));
  pipe.drain();
  EXPECT_TRUE(loop.runOnce(10.0));  // one call still waits: no blocking
  EXPECT_LT(Vorn::System::monotonicTime() - start, 5.0);
  pipe.put();
  EXPECT_TRUE(loop.runOnce(10.0));
  EXPECT_EQ(fd->readableCount(), 2u);  // served between the slices
  log.erase(std::remove(log.begin(), log.end(), "u level 1"), log.end());
  EXPECT_THAT(log, ElementsAre("w0 level 1", "w1 level 1", "w2 level 1", "w3 level 1", "w4 level 1"));
}

TEST_F(ActivityTest, ActivitiesAreNamedOncePerLoop) {
  EXPECT_EQ(std::tuple(loop.activityIs("work", 99), loop.activity("work"), loop.activity("none")), std::tuple(act, act, nullptr));
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::NameInUseException>([&] { loop.activityIs("work", 5); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _budget has a different "
            "value of 5 than the current value of 99 not allowed");
  EXPECT_EQ(loop.activities(), 1u);
}

TEST_F(ActivityTest, AHandlerThatThrowsEndsThePassAndTheRestRunLater) {
  Ptr<Watcher> thrower = watcher("thrower"), after = watcher("after");
  thrower->then = [] { throw std::runtime_error("handler failed"); };
  widget->levelIs(1);
  EXPECT_THROW(loop.runOnce(0), std::runtime_error);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("thrower level 1", "after level 1"));
}

}  // namespace
