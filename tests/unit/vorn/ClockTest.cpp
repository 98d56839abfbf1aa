// Clock reactors: arming, firing order, re-arming, disarming, and reactors that go away.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"
#include "tests/unit/vorn/EventLoopFixture.h"

namespace {

using Vorn::Clock;
using Vorn::Ptr;
using Vorn::System;
using ::testing::ElementsAre;

// Records its firings in a shared log, with what timeMin() read inside the call-back.
struct Timer : Clock::NotifieeConst {
  Timer(std::string n, std::vector<std::string> * l) : name(std::move(n)), log(l) {}
  void onTimeMin() override {
    ++calls;
    timeMinSeen = timeMin();
    log->push_back(name);
    if (then) then();
  }
  std::string name;
  std::vector<std::string> * log;
  int calls = 0;
  double timeMinSeen = 0;
  std::function<void()> then;
};

class ClockTest : public intfsmTest::EventLoopTest {
 protected:
  void SetUp() override { System::testTimeIs(1000.0); }
  Ptr<Timer> timer(std::string name) {
    Ptr<Timer> t = new Timer(std::move(name), &log);
    t->notifierIs(loop.clock());
    return t;
  }
  std::vector<std::string> log;
};

TEST_F(ClockTest, FiresOnceWhenTheTimeComesAndNotBefore) {
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1005.0);
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { t->timeMinIs(std::nan("")); }),
            "Clock::NotifieeConst::timeMin NaN not allowed");
  System::testTimeIs(1004.999);
  EXPECT_FALSE(loop.runOnce(0));
  System::testTimeIs(1005.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);
  EXPECT_EQ(t->timeMinSeen, Clock::never);  // reset before the call, so the handler may re-arm
  System::testTimeIs(2000.0);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
}

TEST_F(ClockTest, DueTimersFireInTimeOrderThenArmingOrderAtTheirLatestTime) {
  Ptr<Timer> a = timer("a"), b = timer("b"), c = timer("c"), d = timer("d"), gone = timer("gone"),
             moved = timer("moved");
  a->timeMinIs(1003.0);
  b->timeMinIs(1001.0);
  c->timeMinIs(1002.0);
  d->timeMinIs(1001.0);  // same time as b, armed later
  gone->timeMinIs(1000.5);
  moved->timeMinIs(1020.0);
  gone->timeMinIs(Clock::never);
  moved->timeMinIs(1002.2);
  EXPECT_EQ(loop.clock()->armedReactors(), 5u);
  EXPECT_EQ(loop.clock()->timeMinNext(), 1001.0);
  System::testTimeIs(1002.5);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("b", "d", "c", "moved"));
  System::testTimeIs(1030.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("b", "d", "c", "moved", "a"));
}

// Re-armed from its own call-back, even into the past, a timer fires again on the next pass only,
// and the other due timers still fire in this one.
TEST_F(ClockTest, ATimerReArmedInItsCallBackFiresOncePerPass) {
  Ptr<Timer> eager = timer("eager"), other = timer("other");
  eager->then = [&] { eager->timeMinIs(eager->calls < 3 ? 0.0 : Clock::never); };
  eager->timeMinIs(999.0);
  other->timeMinIs(1000.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("eager", "other"));
  EXPECT_EQ(eager->timeMin(), 0.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("eager", "other", "eager", "eager"));
}

TEST_F(ClockTest, AReactorThatIsGoneOrCannotTakeNotificationsIsNotCalled) {
  Ptr<Timer> first = timer("first"), second = timer("second"), dropped = timer("dropped"), zombie = timer("zombie"),
             inactive = timer("inactive"), unregistered = timer("unregistered"), last = timer("last");
  first->then = [&] { second = nullptr; };
  for (Timer * t : {first.ptr(), second.ptr(), dropped.ptr(), zombie.ptr(), inactive.ptr(), unregistered.ptr()}) {
    t->timeMinIs(1001.0);
  }
  last->timeMinIs(1002.0);
  dropped = nullptr;
  EXPECT_EQ(loop.clock()->armedReactors(), 6u);
  zombie->vornZombieIs(true);
  inactive->hasNotificationActiveIs(false);
  unregistered->isRegisteredNotifieeIs(false);
  System::testTimeIs(1005.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("first", "last"));
  EXPECT_EQ(zombie->timeMin(), Clock::never);  // the firing is lost, not kept for later
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
}

// A timer belongs to the clock it is bound to: armed before binding it waits, unbound it is off,
// rebound it moves.
TEST_F(ClockTest, BindingArmsUnbindingDisarmsAndRebindingMoves) {
  Vorn::ActivityManager other;
  Ptr<Timer> t = new Timer("t", &log);
  t->timeMinIs(1001.0);
  System::testTimeIs(1002.0);
  EXPECT_FALSE(loop.runOnce(0));
  t->notifierIs(loop.clock());
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);

  t->timeMinIs(1003.0);
  t->notifierIs(nullptr);
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
  System::testTimeIs(1004.0);
  EXPECT_FALSE(loop.runOnce(0));
  t->notifierIs(other.clock());
  EXPECT_EQ(other.clock()->armedReactors(), 1u);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_TRUE(other.runOnce(0));
  EXPECT_EQ(t->calls, 2);
  t = nullptr;  // before `other` goes
}

TEST_F(ClockTest, AReactorBoundToAnActivityRunsThereOnTheNextPass) {
  Ptr<Vorn::Activity> act = loop.activityIs("timers", 99);
  Ptr<Timer> t = timer("t");
  t->activityIs(act.ptr());
  t->timeMinIs(1001.0);
  System::testTimeIs(1001.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(act->pendingCalls(), 1u);
  EXPECT_EQ(t->calls, 0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);
}

// On the real clock, the loop's wait ends when the earliest timer is due: a pass asked to wait a
// minute returns with the timer fired.
TEST_F(ClockTest, OnTheRealClockTheWaitEndsAtTheEarliestTimer) {
  System::testTimeDel();
  Ptr<Timer> t = timer("t");
  double const start = System::currentTime();
  t->timeMinIs(start + 0.02);
  while (t->calls == 0) loop.runOnce(60.0);
  double const end = System::currentTime();
  EXPECT_GE(end, start + 0.02);
  EXPECT_LT(end, start + 30.0);
  EXPECT_LE(loop.passes(), 3u);  // no spinning while it waited
}

}  // namespace
