// The base of every module's unit tests: the kernel replaced by a FakePlatform, the module's traces
// captured, a private event loop driven one pass at a time, and a test clock that only the test moves.
//
//   class KernelOperStateTest : public IntfsmTest::ModuleTest {
//    protected:
//     KernelOperStateTest() : ModuleTest("KernelOperState") {}
//   };
//   TEST_F(KernelOperStateTest, SyncsOnOperStatus) {
//     ... build the state machine, change an attribute ...
//     runOnce();                                  // one loop pass, no waiting
//     advanceAndRun(0.5);                         // time moves on; passes until nothing is left to do
//     EXPECT_THAT(traces(), Contains("doSyncIntfStatus( Ethernet1 )"));
//     EXPECT_EQ(fake.count(FakePlatform::Kind::close), 1u);
//   }
//
// While the test runs, Vorn::activityManager() is the private loop, so state machines that use the
// process's loop (clocks, activities, descriptors) run on it; objects made by the test body are gone
// before it is. The test time starts at ScopedTestTime::start.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/TraceCapture.h"

namespace IntfsmTest {

class ModuleTest : public ::testing::Test {
 protected:
  // `traceModule`: the trace handle whose every level is captured.
  explicit ModuleTest(char const * traceModule);

  Vorn::ActivityManager & loop() { return loop_; }
  // One pass of the loop without waiting; true if anything ran.
  bool runOnce() { return loop_.runOnce(0); }
  // Passes until one runs nothing (at most `maxPasses`); the number of passes that ran something.
  unsigned runUntilIdle(unsigned maxPasses = 1000);
  // Moves the test time on by `seconds`, then runs until idle.
  void advanceAndRun(double seconds);
  double now() const { return time_.now(); }

  // The captured texts of the module's handle, in order; takeTraces() also clears them.
  std::vector<std::string> traces() const { return trace.texts(module_); }
  std::vector<std::string> takeTraces();

 private:
  std::string module_;
  Vorn::ActivityManager loop_;
  ScopedLoop scopedLoop_{loop_};
  ScopedTestTime time_;

 protected:
  FakePlatform fake;
  TraceCapture trace;
};

}  // namespace IntfsmTest
