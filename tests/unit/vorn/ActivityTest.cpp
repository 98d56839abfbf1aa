// Activities: deferred notifications run on a later pass, coalesced, within a budget, and never
// reach a notifiee that is gone or a zombie.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/unit/vorn/EventLoopFixture.h"

namespace {

using Vorn::Activity;
using Vorn::Ptr;
using Vorn::String;

// A small entity: one scalar and one keyed collection, with the framework's mutator shape.
class Gauge : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Gauge> {
   public:
    virtual void onLevel() {}
    virtual void onReading(String const &) {}
  };
  explicit Gauge(Vorn::Name const & name) : Entity(name) {}
  int level() const { return level_; }
  void levelIs(int l) { set(level_, l, &NotifieeConst::onLevel); }
  int reading(String const & k) const {
    auto it = readings_.find(k);
    return it == readings_.end() ? 0 : it->second;
  }
  void readingIs(String const & k, int v) {
    auto [it, added] = readings_.try_emplace(k, v);
    if (!added && it->second == v) return;
    it->second = v;
    notify(&NotifieeConst::onReading, k);
  }

 private:
  int level_ = 0;
  std::map<String, int> readings_;
};

// Logs each call with the value it sees when it runs; `then` lets a test act from inside.
class Watcher : public Gauge::NotifieeConst {
 public:
  Watcher(std::string name, std::vector<std::string> * log) : name_(std::move(name)), log_(log) {}
  void onLevel() override {
    log_->push_back(name_ + " level " + std::to_string(notifier()->level()));
    if (then) then();
  }
  void onReading(String const & k) override {
    log_->push_back(name_ + " " + k.stdString() + "=" + std::to_string(notifier()->reading(k)));
  }
  std::function<void()> then;

 private:
  std::string name_;
  std::vector<std::string> * log_;
};

class ActivityTest : public intfsmTest::EventLoopTest {
 protected:
  Ptr<Watcher> watcher(std::string name, Ptr<Gauge> const & g, Activity * act) {
    Ptr<Watcher> w = new Watcher(std::move(name), &log);
    w->notifierIs(g);
    w->activityIs(act);
    return w;
  }
  Ptr<Gauge> gauge = new Gauge("gauge");
  Ptr<Activity> act = loop.activityIs("work", 99);
  std::vector<std::string> log;
};

TEST_F(ActivityTest, ACallRunsOnTheNextPassNotInsideTheMutator) {
  Ptr<Watcher> sync = watcher("sync", gauge, nullptr);
  Ptr<Watcher> deferred = watcher("deferred", gauge, act.ptr());
  gauge->levelIs(1);
  EXPECT_THAT(log, testing::ElementsAre("sync level 1"));
  EXPECT_EQ(act->pendingCalls(), 1u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("sync level 1", "deferred level 1"));
  EXPECT_EQ(act->pendingCalls(), 0u);
  EXPECT_EQ(act->callsRun(), 1u);
  EXPECT_FALSE(loop.runOnce(0));
}

TEST_F(ActivityTest, ACallQueuedDuringAPassWaitsForTheNextPass) {
  Ptr<Gauge> downstream = new Gauge("downstream");
  Ptr<Watcher> first = watcher("first", gauge, act.ptr());
  Ptr<Watcher> second = watcher("second", downstream, act.ptr());
  first->then = [&] { downstream->levelIs(gauge->level() * 10); };
  gauge->levelIs(2);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("first level 2"));
  EXPECT_EQ(act->pendingCalls(), 1u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("first level 2", "second level 20"));
}

TEST_F(ActivityTest, AReactorThatReschedulesItselfRunsOncePerPass) {
  Ptr<Watcher> w = watcher("w", gauge, act.ptr());
  w->then = [&] {
    if (gauge->level() < 3) gauge->levelIs(gauge->level() + 1);
  };
  gauge->levelIs(1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(log.size(), 1u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(log.size(), 2u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("w level 1", "w level 2", "w level 3"));
}

TEST_F(ActivityTest, CallsAreCoalescedPerCallbackAndKey) {
  Ptr<Watcher> w = watcher("w", gauge, act.ptr());
  gauge->levelIs(1);
  gauge->readingIs("a", 1);
  gauge->levelIs(2);
  gauge->readingIs("b", 5);
  gauge->readingIs("a", 7);
  gauge->levelIs(3);
  EXPECT_EQ(act->pendingCalls(), 3u);
  EXPECT_TRUE(loop.runOnce(0));
  // Queue order of the first of each; each sees the latest value.
  EXPECT_THAT(log, testing::ElementsAre("w level 3", "w a=7", "w b=5"));
}

TEST_F(ActivityTest, CallsOfDifferentNotifieesAreNotCoalesced) {
  Ptr<Watcher> one = watcher("one", gauge, act.ptr());
  Ptr<Watcher> two = watcher("two", gauge, act.ptr());
  gauge->levelIs(1);
  gauge->levelIs(2);
  EXPECT_EQ(act->pendingCalls(), 2u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("one level 2", "two level 2"));
}

TEST_F(ActivityTest, ANotifieeDestroyedBeforeItsCallRunsIsNotCalled) {
  Ptr<Watcher> kept = watcher("kept", gauge, act.ptr());
  Ptr<Watcher> dropped = watcher("dropped", gauge, act.ptr());
  gauge->levelIs(1);
  gauge->readingIs("a", 1);
  EXPECT_EQ(act->pendingCalls(), 4u);
  dropped = nullptr;
  EXPECT_EQ(act->pendingCalls(), 2u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("kept level 1", "kept a=1"));
}

TEST_F(ActivityTest, ANotifieeDestroyedByAnEarlierCallOfTheSamePassIsNotCalled) {
  Ptr<Watcher> first = watcher("first", gauge, act.ptr());
  Ptr<Watcher> second = watcher("second", gauge, act.ptr());
  Ptr<Watcher> third = watcher("third", gauge, act.ptr());
  first->then = [&] { second = nullptr; };
  gauge->levelIs(1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("first level 1", "third level 1"));
  EXPECT_EQ(act->pendingCalls(), 0u);
}

TEST_F(ActivityTest, ANotifieeMayDestroyItselfFromItsOwnCall) {
  Ptr<Watcher> w = watcher("w", gauge, act.ptr());
  w->then = [&] { w = nullptr; };
  gauge->levelIs(1);
  gauge->readingIs("a", 1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("w level 1"));
  EXPECT_EQ(act->pendingCalls(), 0u);
}

TEST_F(ActivityTest, AZombieOrInactiveOrUnregisteredNotifieeIsNotCalled) {
  Ptr<Watcher> zombie = watcher("zombie", gauge, act.ptr());
  Ptr<Watcher> inactive = watcher("inactive", gauge, act.ptr());
  Ptr<Watcher> unregistered = watcher("unregistered", gauge, act.ptr());
  Ptr<Watcher> marked = watcher("marked", gauge, act.ptr());
  Ptr<Watcher> live = watcher("live", gauge, act.ptr());
  gauge->levelIs(1);
  EXPECT_EQ(act->pendingCalls(), 5u);
  zombie->vornZombieIs(true);
  inactive->hasNotificationActiveIs(false);
  unregistered->isRegisteredNotifieeIs(false);
  marked->vornMarkedForDeletionIs(true);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("live level 1"));
  EXPECT_EQ(act->pendingCalls(), 0u);
  EXPECT_EQ(act->callsRun(), 1u);
}

TEST_F(ActivityTest, ANotifieeZombiedByAnEarlierCallOfTheSamePassIsNotCalled) {
  Ptr<Watcher> first = watcher("first", gauge, act.ptr());
  Ptr<Watcher> second = watcher("second", gauge, act.ptr());
  first->then = [&] { second->vornZombieIs(true); };
  gauge->levelIs(1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("first level 1"));
}

TEST_F(ActivityTest, MovingANotifieeToAnotherActivityDropsWhatWaitedOnTheFirst) {
  Ptr<Activity> other = loop.activityIs("other", 99);
  Ptr<Watcher> w = watcher("w", gauge, act.ptr());
  gauge->levelIs(1);
  w->activityIs(other.ptr());
  EXPECT_EQ(act->pendingCalls(), 0u);
  gauge->levelIs(2);
  EXPECT_EQ(other->pendingCalls(), 1u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("w level 2"));
}

TEST_F(ActivityTest, TheBudgetBoundsTheCallsRunPerPass) {
  Ptr<Activity> small = loop.activityIs("small", 2);
  std::vector<Ptr<Watcher>> ws;
  for (int i = 0; i < 5; ++i) ws.push_back(watcher("w" + std::to_string(i), gauge, small.ptr()));
  gauge->levelIs(1);
  EXPECT_EQ(small->pendingCalls(), 5u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(log.size(), 2u);
  EXPECT_EQ(small->pendingCalls(), 3u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(log.size(), 4u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("w0 level 1", "w1 level 1", "w2 level 1", "w3 level 1", "w4 level 1"));
}

TEST_F(ActivityTest, ABudgetOfZeroRunsEverythingWaiting) {
  Ptr<Activity> unbounded = loop.activityIs("unbounded", 0);
  std::vector<Ptr<Watcher>> ws;
  for (int i = 0; i < 150; ++i) ws.push_back(watcher("w", gauge, unbounded.ptr()));
  gauge->levelIs(1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(log.size(), 150u);
  EXPECT_EQ(unbounded->pendingCalls(), 0u);
}

// Calls left over by the budget do not make the loop wait, and descriptors are served between
// the slices: a reader that keeps rescheduling itself cannot starve I/O.
TEST_F(ActivityTest, WaitingCallsKeepTheLoopFromBlockingButNotFromPolling) {
  Ptr<Activity> small = loop.activityIs("small", 1);
  Ptr<Watcher> a = watcher("a", gauge, small.ptr());
  Ptr<Watcher> b = watcher("b", gauge, small.ptr());
  intfsmTest::Pipe pipe;
  Ptr<Vorn::FileDescriptor> fd = Vorn::fileDescriptorFactory("pipe", loop);
  fd->descriptorIs(pipe.r);
  pipe.put();
  gauge->levelIs(1);
  double const start = Vorn::System::monotonicTime();
  EXPECT_TRUE(loop.runOnce(10.0));
  EXPECT_EQ(log.size(), 1u);
  EXPECT_EQ(fd->readableCount(), 1u);
  EXPECT_TRUE(loop.runOnce(10.0));  // "b" still waits: no blocking
  EXPECT_LT(Vorn::System::monotonicTime() - start, 5.0);
  EXPECT_THAT(log, testing::ElementsAre("a level 1", "b level 1"));
  EXPECT_EQ(fd->readableCount(), 2u);
}

TEST_F(ActivityTest, ActivitiesAreNamedOncePerLoop) {
  EXPECT_EQ(loop.activityIs("work", 99), act);
  EXPECT_EQ(loop.activity("work"), act);
  EXPECT_EQ(loop.activity("none"), nullptr);
  EXPECT_EQ(act->name(), "work");
  EXPECT_EQ(act->budget(), 99u);
  EXPECT_EQ(act->clock(), loop.clock());
  EXPECT_EQ(Vorn::vornActivitySmFor(act), act);
  try {
    loop.activityIs("work", 5);
    FAIL() << "no exception";
  } catch (Vorn::NameInUseException const & e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the pointer interface where constructor parameter attribute _budget has a different "
                 "value of 5 than the current value of 99 not allowed");
  }
  EXPECT_EQ(act->budget(), 99u);
  EXPECT_EQ(loop.activities(), 1u);
}

TEST_F(ActivityTest, AHandlerThatThrowsEndsThePassAndTheRestRunLater) {
  Ptr<Watcher> thrower = watcher("thrower", gauge, act.ptr());
  Ptr<Watcher> after = watcher("after", gauge, act.ptr());
  thrower->then = [] { throw std::runtime_error("handler failed"); };
  gauge->levelIs(1);
  EXPECT_THROW(loop.runOnce(0), std::runtime_error);
  EXPECT_EQ(act->pendingCalls(), 1u);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("thrower level 1", "after level 1"));
}

}  // namespace
