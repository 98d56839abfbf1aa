// Scoped stand-ins for the process-wide time and loop, for tests that drive the event loop themselves
// (ModuleTest holds one of each).
//
//   IntfsmTest::ScopedTestTime time;        // currentTime() is 1000 until time.advance(...)
//   Vorn::ActivityManager loop;
//   IntfsmTest::ScopedLoop scoped(loop);    // Vorn::activityManager() is `loop` meanwhile
#pragma once

#include "intfsm/foundation/vorn/ActivityManager.h"

namespace IntfsmTest {

// Vorn::System::currentTime() is a test time for the life of this object; the real clock comes back after.
class ScopedTestTime {
 public:
  static constexpr double start = 1000.0;
  explicit ScopedTestTime(double t = start);
  ~ScopedTestTime();
  ScopedTestTime(ScopedTestTime const &) = delete;
  ScopedTestTime & operator=(ScopedTestTime const &) = delete;

  double now() const;
  void advance(double seconds);
  // Sets the test time to `t`.
  void nowIs(double t);
};

// Makes `loop` the process's loop for the life of this object.
class ScopedLoop {
 public:
  explicit ScopedLoop(Vorn::ActivityManager & loop) { Vorn::activityManagerIs(&loop); }
  ~ScopedLoop() { Vorn::activityManagerIs(nullptr); }
  ScopedLoop(ScopedLoop const &) = delete;
  ScopedLoop & operator=(ScopedLoop const &) = delete;
};

}  // namespace IntfsmTest
