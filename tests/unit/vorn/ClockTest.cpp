// Clock reactors: arming, firing order, re-arming, disarming, and reactors that go away.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/unit/vorn/EventLoopFixture.h"

namespace {

using Vorn::Clock;
using Vorn::Ptr;
using Vorn::System;

// Records its firings in a shared log, with what timeMin() read inside the call-back.
class Timer : public Clock::NotifieeConst {
 public:
  Timer(std::string name, std::vector<std::string> * log) : name_(std::move(name)), log_(log) {}
  void onTimeMin() override {
    ++calls;
    timeMinSeen = timeMin();
    log_->push_back(name_);
    if (then) then();
  }
  int calls = 0;
  double timeMinSeen = 0;
  std::function<void()> then;

 private:
  std::string name_;
  std::vector<std::string> * log_;
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
  EXPECT_EQ(t->timeMin(), 1005.0);
  EXPECT_FALSE(loop.runOnce(0));
  System::testTimeIs(1004.999);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 0);

  System::testTimeIs(1005.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);
  EXPECT_EQ(t->timeMinSeen, Clock::never);  // reset before the call, so the handler may re-arm
  EXPECT_EQ(t->timeMin(), Clock::never);

  System::testTimeIs(2000.0);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
}

TEST_F(ClockTest, DueTimersFireInTimeOrderThenArmingOrder) {
  Ptr<Timer> a = timer("a"), b = timer("b"), c = timer("c"), d = timer("d");
  a->timeMinIs(1003.0);
  b->timeMinIs(1001.0);
  c->timeMinIs(1002.0);
  d->timeMinIs(1001.0);  // same time as b, armed later
  EXPECT_EQ(loop.clock()->timeMinNext(), 1001.0);
  System::testTimeIs(1002.5);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("b", "d", "c"));
  System::testTimeIs(1010.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("b", "d", "c", "a"));
}

TEST_F(ClockTest, ReArmingInsideTheCallBackFiresOncePerPass) {
  Ptr<Timer> t = timer("t");
  t->then = [&] { t->timeMinIs(System::currentTime()); };  // "again as soon as possible"
  t->timeMinIs(1000.0);
  for (int pass = 1; pass <= 3; ++pass) {
    EXPECT_TRUE(loop.runOnce(0));
    EXPECT_EQ(t->calls, pass);
    EXPECT_EQ(t->timeMin(), 1000.0);
  }
  t->then = nullptr;
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 4);
}

TEST_F(ClockTest, ATimerReArmedIntoThePastDoesNotHoldBackOtherDueTimers) {
  Ptr<Timer> eager = timer("eager"), other = timer("other");
  eager->then = [&] { eager->timeMinIs(0.0); };
  eager->timeMinIs(999.0);
  other->timeMinIs(1000.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("eager", "other"));
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("eager", "other", "eager"));
  EXPECT_EQ(other->calls, 1);
}

TEST_F(ClockTest, InfinityDisarmsAndAMovedTimerFiresAtItsNewTime) {
  Ptr<Timer> gone = timer("gone"), moved = timer("moved");
  gone->timeMinIs(1001.0);
  moved->timeMinIs(1010.0);
  EXPECT_EQ(loop.clock()->armedReactors(), 2u);
  gone->timeMinIs(Clock::never);
  moved->timeMinIs(1002.0);
  EXPECT_EQ(loop.clock()->armedReactors(), 1u);
  System::testTimeIs(1005.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("moved"));
  System::testTimeIs(1020.0);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("moved"));
}

TEST_F(ClockTest, AReactorDestroyedWhileArmedIsNeverCalled) {
  Ptr<Timer> kept = timer("kept");
  Ptr<Timer> dropped = timer("dropped");
  kept->timeMinIs(1001.0);
  dropped->timeMinIs(1001.0);
  dropped = nullptr;
  EXPECT_EQ(loop.clock()->armedReactors(), 1u);
  System::testTimeIs(1001.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("kept"));
}

TEST_F(ClockTest, AReactorDestroyedByAnEarlierCallBackOfTheSamePassIsNotCalled) {
  Ptr<Timer> first = timer("first");
  Ptr<Timer> second = timer("second");
  Ptr<Timer> third = timer("third");
  first->then = [&] { second = nullptr; };
  first->timeMinIs(1001.0);
  second->timeMinIs(1002.0);
  third->timeMinIs(1003.0);
  System::testTimeIs(1005.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("first", "third"));
}

TEST_F(ClockTest, AReactorThatCannotTakeNotificationsLosesTheFiring) {
  Ptr<Timer> zombie = timer("zombie"), inactive = timer("inactive"), unregistered = timer("unregistered");
  zombie->timeMinIs(1001.0);
  inactive->timeMinIs(1001.0);
  unregistered->timeMinIs(1001.0);
  zombie->vornZombieIs(true);
  inactive->hasNotificationActiveIs(false);
  unregistered->isRegisteredNotifieeIs(false);
  System::testTimeIs(1001.0);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(zombie->timeMin(), Clock::never);
  EXPECT_EQ(inactive->timeMin(), Clock::never);
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);

  // Revived, it gets the firings it asks for from then on.
  zombie->vornZombieIs(false);
  zombie->timeMinIs(1001.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("zombie"));
}

TEST_F(ClockTest, AnUnboundReactorKeepsItsTimeUntilItIsBound) {
  Ptr<Timer> t = new Timer("t", &log);
  t->timeMinIs(1001.0);
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
  System::testTimeIs(1002.0);
  EXPECT_FALSE(loop.runOnce(0));
  t->notifierIs(loop.clock());
  EXPECT_EQ(t->timeMin(), 1001.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);

  // Unbinding takes the timer off the clock.
  t->timeMinIs(1003.0);
  t->notifierIs(nullptr);
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
  System::testTimeIs(1004.0);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);
}

TEST_F(ClockTest, RebindingMovesTheTimerToTheOtherLoopsClock) {
  Vorn::ActivityManager other;
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1001.0);
  t->notifierIs(other.clock());
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
  EXPECT_EQ(other.clock()->armedReactors(), 1u);
  System::testTimeIs(1001.0);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_TRUE(other.runOnce(0));
  EXPECT_EQ(t->calls, 1);
  t = nullptr;  // before `other` goes
}

TEST_F(ClockTest, AReactorBoundToAnActivityRunsThereOnTheNextPass) {
  Ptr<Vorn::Activity> act = loop.activityIs("timers", 99);
  Ptr<Timer> t = timer("t");
  t->activityIs(act.ptr());
  t->timeMinIs(1001.0);
  System::testTimeIs(1001.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 0);
  EXPECT_EQ(act->pendingCalls(), 1u);
  EXPECT_EQ(t->timeMin(), Clock::never);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(t->calls, 1);
  EXPECT_EQ(act->pendingCalls(), 0u);
}

TEST_F(ClockTest, NaNIsRefusedAndChangesNothing) {
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1001.0);
  try {
    t->timeMinIs(std::nan(""));
    FAIL() << "no exception";
  } catch (Vorn::RangeException const & e) {
    EXPECT_STREQ(e.what(), "Clock::NotifieeConst::timeMin NaN not allowed");
  }
  EXPECT_EQ(t->timeMin(), 1001.0);
  EXPECT_EQ(loop.clock()->armedReactors(), 1u);
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
