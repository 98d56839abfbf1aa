// The loop as a whole: run()/stop(), runOnce()/runUntil(), the order within a pass, the process's
// one loop, and no descriptor left behind.
#include "intfsm/foundation/vorn/ActivityManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/System.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Pipe.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/TestEntities.h"

namespace {

using IntfsmTest::Pipe;
using IntfsmTest::Widget;
using Vorn::Ptr;
using Vorn::System;

// One reactor for each source of work, running `f` when called.
struct OnReadable : Vorn::FileDescriptor::NotifieeConst {
  OnReadable(Ptr<Vorn::FileDescriptor> const & fd, std::function<void()> f) : f(std::move(f)) { notifierIs(fd); }
  void onReadableCount() override { f(); }
  std::function<void()> f;
};
struct OnTime : Vorn::Clock::NotifieeConst {
  OnTime(Ptr<Vorn::Clock> const & clock, std::function<void()> f) : f(std::move(f)) { notifierIs(clock); }
  void onTimeMin() override { f(); }
  std::function<void()> f;
};
struct OnLevel : Widget::NotifieeConst {  // deferred to an activity
  OnLevel(Ptr<Widget> const & w, Vorn::Activity * a, std::function<void()> f) : f(std::move(f)) {
    notifierIs(w);
    activityIs(a);
  }
  void onLevel() override { f(); }
  std::function<void()> f;
};

class LoopTest : public testing::Test {
 protected:
  Ptr<Vorn::FileDescriptor> watch(int descriptor) {
    Ptr<Vorn::FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
    fd->descriptorIs(descriptor);
    return fd;
  }
  Vorn::ActivityManager loop;
  Ptr<Widget> widget = Widget::widgetNew("widget");
  Ptr<Vorn::Activity> act = loop.activityIs("a", 99);
};

// run() ends at the first stop(), asked before it or from a handler, and each run consumes its stop.
TEST_F(LoopTest, StopEndsRunAndEachRunConsumesItsStop) {
  loop.stop();
  loop.run();
  EXPECT_EQ(loop.passes(), 0u);
  Ptr<OnLevel> r = new OnLevel(widget, act.ptr(), [&] { loop.stop(); });
  widget->levelIs(1);
  loop.run();  // nothing else would ever wake it: the stop makes the poll not wait
  EXPECT_EQ(loop.passes(), 1u);
  int fired = 0;
  Ptr<OnTime> t = new OnTime(loop.clock(), [&] { ++fired, loop.stop(); });
  for (int i = 1; i <= 2; ++i) {  // the first stop is spent: the second run waits for the timer again
    uint64_t const passes = loop.passes();
    double const start = System::currentTime();
    t->timeMinIs(start + 0.01);
    loop.run();  // the wait ends when the timer is due, without spinning meanwhile
    EXPECT_EQ(fired, i);
    EXPECT_GE(System::currentTime(), start + 0.01);
    EXPECT_LE(loop.passes() - passes, 3u);
  }
}

TEST_F(LoopTest, RunUntilReturnsWhenDoneOrAtTheTimeoutAndAlwaysMakesOnePass) {
  Pipe pipe;
  Ptr<Vorn::FileDescriptor> fd = watch(pipe.r);
  pipe.put();
  EXPECT_TRUE(loop.runUntil([&] { return fd->readableCount() >= 3; }, 5.0));
  EXPECT_EQ(fd->readableCount(), 3u);  // done: no pass more
  pipe.drain();
  double const start = System::monotonicTime();
  EXPECT_FALSE(loop.runUntil([&] { return fd->readableCount() > 3; }, 0.03));
  EXPECT_GE(System::monotonicTime() - start, 0.03);
  uint64_t const passes = loop.passes();
  pipe.put();
  EXPECT_TRUE(loop.runUntil([&] { return fd->readableCount() == 4; }, 0));
  EXPECT_EQ(loop.passes(), passes + 1);
}

// Within a pass: deferred calls, then readiness, then timers; what any of them queues runs on the
// next pass. runOnce says whether anything ran; a dropped call is not work done.
TEST_F(LoopTest, APassRunsDeferredCallsThenReadinessThenTimers) {
  IntfsmTest::ScopedTestTime time(10.0);
  std::vector<std::string> log;
  auto const bump = [&](char const * what) { log.push_back(what), widget->levelIs(widget->level() + 1); };
  Ptr<OnLevel> deferred = new OnLevel(widget, act.ptr(), [&] { log.push_back("deferred " + std::to_string(widget->level())); });
  Pipe pipe;
  Ptr<Vorn::FileDescriptor> fd = watch(pipe.r);
  Ptr<OnReadable> reader = new OnReadable(fd, [&] { pipe.drain(), bump("readable"); });
  Ptr<OnTime> timer = new OnTime(loop.clock(), [&] { bump("timer"); });
  EXPECT_FALSE(loop.runOnce(0));
  widget->levelIs(1);
  pipe.put();
  timer->timeMinIs(10.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("deferred 1", "readable", "timer"));
  for (bool ran : {true, false}) EXPECT_EQ(loop.runOnce(0), ran);
  timer->timeMinIs(10.0);
  EXPECT_TRUE(loop.runOnce(0));
  deferred->vornZombieIs(true);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("deferred 1", "readable", "timer", "deferred 3", "timer"));
}

TEST_F(LoopTest, RunOnceIsNotReenteredFromAHandler) {
  Ptr<OnLevel> r = new OnLevel(widget, act.ptr(), [&] { loop.runOnce(0); });
  widget->levelIs(1);
  EXPECT_DEATH(loop.runOnce(0), "!inPass_");
}

// The process's one loop is the default for a FileDescriptor; a private loop closes its epoll
// descriptor, whatever was watched and armed, and a FileDescriptor that outlives it is no longer watched.
TEST_F(LoopTest, TheProcessHasOneLoopAndAPrivateLoopLeavesNoDescriptorBehind) {
  Vorn::ActivityManager & process = Vorn::activityManager();
  EXPECT_EQ(std::tuple(&process, IntfsmTest::isCloseOnExec(process.epollDescriptor())), std::tuple(&Vorn::activityManager(), true));
  Pipe pipe;
  Ptr<Vorn::FileDescriptor> fd = Vorn::fileDescriptorFactory("processLoop");
  fd->descriptorIs(pipe.r);
  pipe.put();
  EXPECT_TRUE(process.runUntil([&] { return fd->readableCount() > 0; }, 5.0));

  int const before = IntfsmTest::openDescriptorCount();
  {
    Vorn::ActivityManager private_;
    EXPECT_TRUE(IntfsmTest::isCloseOnExec(private_.epollDescriptor()));
    fd = Vorn::fileDescriptorFactory("in", private_);
    fd->descriptorIs(pipe.r);
    private_.runOnce(0);
    Ptr<OnTime> t = new OnTime(private_.clock(), [] {});
    t->timeMinIs(System::currentTime() + 100);
    EXPECT_EQ(IntfsmTest::openDescriptorCount(), before + 1);
  }
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), before);
  fd->writableWantedIs(true);
  fd->descriptorIs(-1);
  EXPECT_EQ(fd->descriptor(), -1);
}

}  // namespace
