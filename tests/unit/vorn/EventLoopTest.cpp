// The loop as a whole: run()/stop(), runOnce()/runUntil(), the order within a pass, the process's
// one loop, and no descriptor left behind.
#include <sys/eventfd.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/OpenDescriptors.h"
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

// An entity whose only attribute is a counter, for deferred calls.
class Ticker : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Ticker> {
   public:
    virtual void onTicks() {}
  };
  Ticker() : Entity("ticker") {}
  int ticks() const { return ticks_; }
  void ticksIs(int t) { set(ticks_, t, &NotifieeConst::onTicks); }

 private:
  int ticks_ = 0;
};

struct OnTicks : Ticker::NotifieeConst {
  OnTicks(Ptr<Ticker> const & t, std::function<void()> f) : f_(std::move(f)) { notifierIs(t); }
  void onTicks() override { f_(); }
  std::function<void()> f_;
};

class LoopTest : public intfsmTest::EventLoopTest {};

TEST_F(LoopTest, StopFromADescriptorHandlerEndsRun) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
  fd->descriptorIs(pipe.r);
  Ptr<OnReadable> stopper = new OnReadable(fd, [&] { loop.stop(); });
  pipe.put();
  loop.run();
  EXPECT_EQ(fd->readableCount(), 1u);
}

TEST_F(LoopTest, StopFromATimerEndsRunAndEachRunConsumesItsStop) {
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

TEST_F(LoopTest, StopBeforeRunReturnsAtOnce) {
  loop.stop();
  loop.run();
  EXPECT_EQ(loop.passes(), 0u);
}

TEST_F(LoopTest, StopFromADeferredCallEndsRunWithoutWaiting) {
  Ptr<Vorn::Activity> act = loop.activityIs("a", 99);
  Ptr<Ticker> ticker = new Ticker;
  Ptr<OnTicks> r = new OnTicks(ticker, [&] { loop.stop(); });
  r->activityIs(act.ptr());
  ticker->ticksIs(1);
  loop.run();  // nothing else would ever wake it: the stop makes the poll not wait
  EXPECT_EQ(loop.passes(), 1u);
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

TEST_F(LoopTest, RunOnceSaysWhetherAnythingRan) {
  EXPECT_FALSE(loop.runOnce(0));

  System::testTimeIs(50.0);
  Ptr<OnTime> t = new OnTime(loop.clock(), [] {});
  t->timeMinIs(50.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_FALSE(loop.runOnce(0));

  Ptr<Vorn::Activity> act = loop.activityIs("a", 99);
  Ptr<Ticker> ticker = new Ticker;
  Ptr<OnTicks> r = new OnTicks(ticker, [] {});
  r->activityIs(act.ptr());
  ticker->ticksIs(1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_FALSE(loop.runOnce(0));

  // A dropped call is not work done.
  ticker->ticksIs(2);
  r->vornZombieIs(true);
  EXPECT_FALSE(loop.runOnce(0));
}

// Within a pass: deferred calls, then readiness, then timers; what any of them queues runs on the
// next pass.
TEST_F(LoopTest, APassRunsDeferredCallsThenReadinessThenTimers) {
  System::testTimeIs(10.0);
  std::vector<std::string> log;
  Ptr<Vorn::Activity> act = loop.activityIs("a", 99);
  Ptr<Ticker> ticker = new Ticker;
  Ptr<OnTicks> deferred = new OnTicks(ticker, [&] { log.push_back("deferred " + std::to_string(ticker->ticks())); });
  deferred->activityIs(act.ptr());
  Pipe pipe;
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
  fd->descriptorIs(pipe.r);
  Ptr<OnReadable> reader = new OnReadable(fd, [&] {
    log.push_back("readable");
    pipe.drain();
    ticker->ticksIs(ticker->ticks() + 1);
  });
  Ptr<OnTime> timer = new OnTime(loop.clock(), [&] {
    log.push_back("timer");
    ticker->ticksIs(ticker->ticks() + 1);
  });

  ticker->ticksIs(1);
  pipe.put();
  timer->timeMinIs(10.0);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("deferred 1", "readable", "timer"));
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(log, testing::ElementsAre("deferred 1", "readable", "timer", "deferred 3"));
}

TEST_F(LoopTest, RunOnceIsNotReenteredFromAHandler) {
  Ptr<Vorn::Activity> act = loop.activityIs("a", 99);
  Ptr<Ticker> ticker = new Ticker;
  Ptr<OnTicks> r = new OnTicks(ticker, [&] { loop.runOnce(0); });
  r->activityIs(act.ptr());
  ticker->ticksIs(1);
  EXPECT_DEATH(loop.runOnce(0), "!inPass_");
}

TEST_F(LoopTest, TheProcessHasOneLoopWithACloseOnExecEpoll) {
  Vorn::ActivityManager & process = Vorn::activityManager();
  EXPECT_EQ(&process, &Vorn::activityManager());
  EXPECT_EQ(&Vorn::activityManager(), static_cast<Vorn::ActivityManagerConfig *>(&process));
  EXPECT_TRUE(intfsmTest::isCloseOnExec(process.epollDescriptor()));
  EXPECT_TRUE(process.clock());
  Ptr<Vorn::Activity> a = process.activityIs("loopTestActivity", 99);
  EXPECT_EQ(process.activityIs("loopTestActivity", 99), a);
  EXPECT_EQ(a->clock(), process.clock());

  // A FileDescriptor made without a loop is watched by the process's.
  Pipe pipe;
  uint32_t const watches = process.watches();
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("processLoop");
  fd->descriptorIs(pipe.r);
  EXPECT_EQ(process.watches(), watches + 1);
  pipe.put();
  EXPECT_TRUE(process.runUntil([&] { return fd->readableCount() > 0; }, 5.0));
}

TEST_F(LoopTest, ALoopLeavesNoDescriptorBehind) {
  int const before = intfsmTest::openDescriptorCount();
  {
    Vorn::ActivityManager private_;
    EXPECT_TRUE(intfsmTest::isCloseOnExec(private_.epollDescriptor()));
    EXPECT_EQ(intfsmTest::openDescriptorCount(), before + 1);
    Pipe pipe;
    Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", private_);
    fd->descriptorIs(pipe.r);
    fd->writableWantedIs(true);
    pipe.put();
    private_.runOnce(0);
    Ptr<OnTime> t = new OnTime(private_.clock(), [] {});
    t->timeMinIs(System::currentTime() + 100);
    private_.runOnce(0);
  }
  EXPECT_EQ(intfsmTest::openDescriptorCount(), before);
}

// A FileDescriptor that outlives a private loop is no longer watched, and clearing it is harmless.
TEST_F(LoopTest, AFileDescriptorOutlivingItsLoopIsNoLongerWatched) {
  Pipe pipe;
  Ptr<FileDescriptor> fd;
  {
    Vorn::ActivityManager private_;
    fd = Vorn::fileDescriptorFactory("in", private_);
    fd->descriptorIs(pipe.r);
  }
  fd->writableWantedIs(true);
  fd->descriptorIs(-1);
  EXPECT_EQ(fd->descriptor(), -1);
}

}  // namespace
