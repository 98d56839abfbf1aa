#include "intfsm/foundation/vorn/System.h"

#include <time.h>

namespace Vorn {

namespace {
// The loop is single-threaded; tests set these between passes.
bool testTimeSet = false;
double testTimeValue = 0;
}  // namespace

double System::monotonicTime() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double System::currentTime() { return testTimeSet ? testTimeValue : monotonicTime(); }

bool System::hasTestTime() { return testTimeSet; }

void System::testTimeIs(double t) {
  testTimeSet = true;
  testTimeValue = t;
}

void System::testTimeDel() { testTimeSet = false; }

}  // namespace Vorn
