// The process's view of time for the event loop.
//
// currentTime() is seconds on CLOCK_MONOTONIC: absolute, never stepped by clock changes, so clock
// reactors can arm at `currentTime() + delay` and compare times freely.
//
// Tests drive time instead of sleeping: while a test time is set, currentTime() returns it and
// timers fall due against it. The loop then never blocks waiting for a timer (the test time only
// moves when the test moves it):
//
//   Vorn::System::testTimeIs(100.0);
//   reactor->timeMinIs(105.0);
//   manager.runOnce(0);                  // nothing fires
//   Vorn::System::testTimeIs(105.0);
//   manager.runOnce(0);                  // onTimeMin() runs
//   Vorn::System::testTimeDel();         // back to the real clock
#pragma once

namespace Vorn {

struct System {
  // Seconds on CLOCK_MONOTONIC, or the test time while one is set.
  static double currentTime();
  // Seconds on CLOCK_MONOTONIC, whatever the test time: for real deadlines (runUntil).
  static double monotonicTime();

  static bool hasTestTime();
  static void testTimeIs(double t);
  static void testTimeDel();
};

}  // namespace Vorn
