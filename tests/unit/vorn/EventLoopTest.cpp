// The loop as a whole: run()/stop(), runOnce()/runUntil(), the order within a pass, the process's
// one loop, and no descriptor left behind.
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/OpenDescriptors.h"
#include "tests/support/TestEntities.h"
#include "tests/unit/vorn/EventLoopFixture.h"

namespace {

using Vorn::Clock;
using Vorn::FileDescriptor;
using Vorn::Ptr;
using Vorn::System;
using intfsmTest::Pipe;

struct OnReadable : FileDescriptor::NotifieeConst {
  explicit OnReadable(Ptr<FileDescriptor> const & fd, std::function<void()> f) : f_(std::move(f)) { notifierIs(fd); }
  void onReadableCount() override { f_(); }
  std::function<void()> f_;
};

struct OnTime : Clock::NotifieeConst {
  explicit OnTime(Ptr<Clock> const & clock, std::function<void()> f) : f_(std::move(f)) { notifierIs(clock); }
  void onTimeMin() override { f_(); }
  std::function<void()> f_;
};

struct OnLevel : TestSupport::Widget::NotifieeConst {
  OnLevel(Ptr<TestSupport::Widget> const & w, Vorn::Activity * a, std::function<void()> f) : f_(std::move(f)) {
    notifierIs(w);
    activityIs(a);
  }
  void onLevel() override { f_(); }
  std::function<void()> f_;
};

class LoopTest : public intfsmTest::EventLoopTest {
 protected:
  Ptr<TestSupport::Widget> widget = TestSupport::Widget::widgetNew("widget");
  Ptr<Vorn::Activity> act = loop.activityIs("a", 99);
};

// run() ends at the first stop(), whether asked before it or from any handler, and each run
// consumes its stop.
TEST_F(LoopTest, StopEndsRunAndEachRunConsumesItsStop) {
  loop.stop();
  loop.run();
  EXPECT_EQ(loop.passes(), 0u);

  Ptr<OnLevel> r = new OnLevel(widget, act.ptr(), [&] { loop.stop(); });
  widget->levelIs(1);
  loop.run();  // nothing else would ever wake it: the stop makes the poll not wait
  EXPECT_EQ(loop.passes(), 1u);

  int fired = 0;
  Ptr<OnTime> t = new OnTime(loop.clock(), [&] {
    ++fired;
    loop.stop();
  });
  t->timeMinIs(System::currentTime() + 0.01);
  loop.run();
  EXPECT_EQ(fired, 1);
  t->timeMinIs(System::currentTime() + 0.01);
  loop.run();  // the first stop is spent: this one waits for the timer again
  EXPECT_EQ(fired, 2);
}

TEST_F(LoopTest, RunUntilReturnsWhenDoneOrAtTheTimeout) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
  fd->descriptorIs(pipe.r);
  pipe.put();
  EXPECT_TRUE(loop.runUntil([&] { return fd->readableCount() >= 3; }, 5.0));
  EXPECT_EQ(fd->readableCount(), 3u);
  pipe.drain();

  double const start = System::monotonicTime();
  EXPECT_FALSE(loop.runUntil([&] { return fd->readableCount() > 3; }, 0.03));
  EXPECT_GE(System::monotonicTime() - start, 0.03);

  // A zero timeout still makes one pass.
  uint64_t const passes = loop.passes();
  pipe.put();
  EXPECT_TRUE(loop.runUntil([&] { return fd->readableCount() == 4; }, 0));
  EXPECT_EQ(loop.passes(), passes + 1);
}

// Within a pass: deferred calls, then readiness, then timers; what any of them queues runs on the
// next pass. runOnce says whether anything ran; a dropped call is not work done.
TEST_F(LoopTest, APassRunsDeferredCallsThenReadinessThenTimers) {
  System::testTimeIs(10.0);
  std::vector<std::string> log;
  Ptr<OnLevel> deferred =
      new OnLevel(widget, act.ptr(), [&] { log.push_back("deferred " + std::to_string(widget->level())); });
  Pipe pipe;
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
  fd->descriptorIs(pipe.r);
  Ptr<OnReadable> reader = new OnReadable(fd, [&] {
    log.push_back("readable");
    pipe.drain();
    widget->levelIs(widget->level() + 1);
  });
  Ptr<OnTime> timer = new OnTime(loop.clock(), [&] {
    log.push_back("timer");
    widget->levelIs(widget->level() + 1);
  });
  EXPECT_FALSE(loop.runOnce(0));

  widget->levelIs(1);
  pipe.put();
  timer->timeMinIs(10.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("deferred 1", "readable", "timer"));
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_FALSE(loop.runOnce(0));
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

TEST_F(LoopTest, TheProcessHasOneLoopWithACloseOnExecEpoll) {
  Vorn::ActivityManager & process = Vorn::activityManager();
  EXPECT_EQ(&process, &Vorn::activityManager());
  EXPECT_TRUE(intfsmTest::isCloseOnExec(process.epollDescriptor()));
  // A FileDescriptor made without a loop is watched by the process's.
  Pipe pipe;
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("processLoop");
  fd->descriptorIs(pipe.r);
  pipe.put();
  EXPECT_TRUE(process.runUntil([&] { return fd->readableCount() > 0; }, 5.0));
}

// A private loop closes its epoll descriptor, whatever was watched and armed; a FileDescriptor that
// outlives it is no longer watched, and clearing it is harmless.
TEST_F(LoopTest, ALoopLeavesNoDescriptorBehind) {
  int const before = intfsmTest::openDescriptorCount();
  Pipe pipe;
  Ptr<FileDescriptor> fd;
  {
    Vorn::ActivityManager private_;
    EXPECT_TRUE(intfsmTest::isCloseOnExec(private_.epollDescriptor()));
    EXPECT_EQ(intfsmTest::openDescriptorCount(), before + 3);
    fd = Vorn::fileDescriptorFactory("in", private_);
    fd->descriptorIs(pipe.r);
    pipe.put();
    private_.runOnce(0);
    Ptr<OnTime> t = new OnTime(private_.clock(), [] {});
    t->timeMinIs(System::currentTime() + 100);
    private_.runOnce(0);
  }
  EXPECT_EQ(intfsmTest::openDescriptorCount(), before + 2);
  fd->writableWantedIs(true);
  fd->descriptorIs(-1);
  EXPECT_EQ(fd->descriptor(), -1);
}

}  // namespace
