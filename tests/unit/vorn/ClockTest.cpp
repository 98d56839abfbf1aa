// Clock reactors: arming, firing order, re-arming, disarming, and reactors that go away. The wait of a
// pass on the real clock is in EventLoopTest.cpp.
#include "intfsm/foundation/vorn/Clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/ThrownText.h"

namespace {

using Vorn::Clock;
using Vorn::Ptr;
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

class ClockTest : public testing::Test {
 protected:
  Ptr<Timer> timer(std::string name, double at = Clock::never) {
    Ptr<Timer> t = new Timer(std::move(name), &log);
    t->notifierIs(loop.clock());
    t->timeMinIs(at);
    return t;
  }
  // Moves the test time to `t` and makes one pass.
  bool passAt(double t) {
    time.nowIs(t);
    return loop.runOnce(0);
  }
  IntfsmTest::ScopedTestTime time;  // 1000
  Vorn::ActivityManager loop;
  std::vector<std::string> log;
};

TEST_F(ClockTest, FiresOnceWhenTheTimeComesAndNotBefore) {
  Ptr<Timer> t = timer("t", 1005.0);
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { t->timeMinIs(std::nan("")); }),
            "Clock::NotifieeConst::timeMin NaN not allowed");
  EXPECT_FALSE(passAt(1004.999));
  EXPECT_TRUE(passAt(1005.0));
  EXPECT_EQ(t->timeMinSeen, Clock::never);  // reset before the call, so the handler may re-arm
  EXPECT_FALSE(passAt(2000.0));
  EXPECT_EQ(std::tuple(t->calls, loop.clock()->armedReactors()), std::tuple(1, 0u));
}

// Due timers fire in time order, then in arming order, each at its latest time.
TEST_F(ClockTest, DueTimersFireInTimeOrderThenArmingOrderAtTheirLatestTime) {
  Ptr<Timer> a = timer("a", 1003.0), b = timer("b", 1001.0), c = timer("c", 1002.0), d = timer("d", 1001.0),
             gone = timer("gone", 1000.5), moved = timer("moved", 1020.0), e = timer("e", 1002.1);
  gone->timeMinIs(Clock::never);
  moved->timeMinIs(1002.2);
  EXPECT_EQ(std::tuple(loop.clock()->armedReactors(), loop.clock()->timeMinNext()), std::tuple(6u, 1001.0));
  EXPECT_TRUE(passAt(1002.5));
  EXPECT_TRUE(passAt(1030.0));
  EXPECT_THAT(log, ElementsAre("b", "d", "c", "e", "moved", "a"));
}

// Re-armed from its own call-back, even into the past, a timer fires again on the next pass only,
// and the other due timers still fire in this one.
TEST_F(ClockTest, ATimerReArmedInItsCallBackFiresOncePerPass) {
  Ptr<Timer> eager = timer("eager", 999.0), other = timer("other", 1000.0);
  eager->then = [&] { eager->timeMinIs(eager->calls < 3 ? 0.0 : Clock::never); };
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, ElementsAre("eager", "other"));
  for (bool ran : {true, true, false}) EXPECT_EQ(loop.runOnce(0), ran);
  EXPECT_THAT(log, ElementsAre("eager", "other", "eager", "eager"));
}

TEST_F(ClockTest, AReactorThatIsGoneOrCannotTakeNotificationsIsNotCalled) {
  Ptr<Timer> first = timer("first", 1001.0), second = timer("second", 1001.0), dropped = timer("dropped", 1001.0),
             zombie = timer("zombie", 1001.0), inactive = timer("inactive", 1001.0),
             unregistered = timer("unregistered", 1001.0), last = timer("last", 1002.0);
  first->then = [&] { second = nullptr; };
  dropped = nullptr;
  zombie->vornZombieIs(true);
  inactive->hasNotificationActiveIs(false);
  unregistered->isRegisteredNotifieeIs(false);
  EXPECT_TRUE(passAt(1005.0));
  EXPECT_THAT(log, ElementsAre("first", "last"));
  // The firing is lost, not kept for later.
  EXPECT_EQ(std::tuple(zombie->timeMin(), loop.clock()->armedReactors()), std::tuple(Clock::never, 0u));
}

// A timer belongs to the clock it is bound to: armed before binding it waits, unbound it is off,
// rebound it moves.
TEST_F(ClockTest, BindingArmsUnbindingDisarmsAndRebindingMoves) {
  Vorn::ActivityManager other;
  Ptr<Timer> t = new Timer("t", &log);
  t->timeMinIs(1001.0);
  EXPECT_FALSE(passAt(1002.0));
  t->notifierIs(loop.clock());
  EXPECT_TRUE(loop.runOnce(0));
  t->timeMinIs(1003.0);
  t->notifierIs(nullptr);
  EXPECT_EQ(loop.clock()->armedReactors(), 0u);
  EXPECT_FALSE(passAt(1004.0));
  t->notifierIs(other.clock());
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_TRUE(other.runOnce(0));
  EXPECT_EQ(t->calls, 2);
  // Bound to an activity, it runs there on the next pass.
  Ptr<Vorn::Activity> act = other.activityIs("timers", 99);
  t->activityIs(act.ptr());
  t->timeMinIs(1004.0);
  for (int calls : {2, 3}) {
    EXPECT_TRUE(other.runOnce(0));
    EXPECT_EQ(t->calls, calls);
  }
  t = nullptr;  // before `other` goes
}

}  // namespace
